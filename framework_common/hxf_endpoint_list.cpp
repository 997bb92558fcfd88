// C functions of endpoint lists.
#include <string>

#include "CCommonGuard.h"
#include "CEndpointList.h"
#include "hxf_common.h"

using HXFramework::Common::CEndpoint;
using HXFramework::Common::CEndpointList;
using HXFramework::Common::Guarded;
using HXFramework::Common::ToStdString;

namespace {
CEndpointList* AsList(hxf_endpoint_list_h handle) {
  return static_cast<CEndpointList*>(handle);
}
}  // namespace

extern "C" {

hxf_endpoint_list_h hxf_endpoint_list_create(void) {
  return Guarded<hxf_endpoint_list_h>(nullptr, [] { return new CEndpointList(); });
}

hxf_endpoint_list_h hxf_endpoint_list_copy(hxf_endpoint_list_h list) {
  if (list == nullptr) return nullptr;
  return Guarded<hxf_endpoint_list_h>(nullptr, [&] { return new CEndpointList(*AsList(list)); });
}

void hxf_endpoint_list_destroy(hxf_endpoint_list_h list) {
  delete AsList(list);
}

hxf_error hxf_endpoint_list_push_endpoint(hxf_endpoint_list_h list, hxf_endpoint_h endpoint,
                                          hxf_error error) {
  if (list == nullptr || endpoint == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  return Guarded(HXF_ERROR_OUT_OF_MEMORY, [&] {
    AsList(list)->items.Push(*static_cast<CEndpoint*>(endpoint), error);
    return HXF_ERROR_NONE;
  });
}

hxf_error hxf_endpoint_list_pop(hxf_endpoint_list_h list, hxf_endpoint_h* endpoint,
                                hxf_error* error) {
  if (list == nullptr || endpoint == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  *endpoint = AsList(list)->items.Pop(error).release();
  return *endpoint != nullptr ? HXF_ERROR_NONE : HXF_ERROR_NOT_FOUND;
}

hxf_endpoint_h hxf_endpoint_list_find(hxf_endpoint_list_h list, hxf_string device_id) {
  if (list == nullptr) return nullptr;
  return Guarded<hxf_endpoint_h>(nullptr, [&]() -> hxf_endpoint_h {
    std::string id;
    if (!ToStdString(device_id, &id)) return nullptr;
    return AsList(list)->items.FindIf([&](const CEndpoint& e) { return e.device_id == id; });
  });
}

hxf_endpoint_h hxf_endpoint_list_get_first(hxf_endpoint_list_h list) {
  return list == nullptr ? nullptr : AsList(list)->items.First();
}

hxf_endpoint_h hxf_endpoint_list_get_next(hxf_endpoint_list_h list, hxf_endpoint_h item) {
  return list == nullptr ? nullptr : AsList(list)->items.Next(item);
}

bool hxf_endpoint_list_empty(hxf_endpoint_list_h list) {
  return list == nullptr || AsList(list)->items.Empty();
}

uint32_t hxf_endpoint_list_size(hxf_endpoint_list_h list) {
  return list == nullptr ? 0 : AsList(list)->items.Size();
}

}  // extern "C"
