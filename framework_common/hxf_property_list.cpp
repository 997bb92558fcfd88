// C functions of property lists.
#include <memory>
#include <string>

#include "CCommonGuard.h"
#include "CPropertyList.h"
#include "hxf_common.h"

using HXFramework::Common::CProperty;
using HXFramework::Common::CPropertyList;
using HXFramework::Common::Guarded;
using HXFramework::Common::ToStdString;

namespace {
CPropertyList* AsList(hxf_property_list_h handle) {
  return static_cast<CPropertyList*>(handle);
}
}  // namespace

extern "C" {

hxf_property_list_h hxf_property_list_create(hxf_string name) {
  return Guarded<hxf_property_list_h>(nullptr, [&]() -> hxf_property_list_h {
    auto list = std::make_unique<CPropertyList>();
    if (!ToStdString(name, &list->name)) return nullptr;
    return list.release();
  });
}

hxf_property_list_h hxf_property_list_copy(hxf_property_list_h list) {
  if (list == nullptr) return nullptr;
  return Guarded<hxf_property_list_h>(nullptr, [&] { return new CPropertyList(*AsList(list)); });
}

void hxf_property_list_destroy(hxf_property_list_h list) {
  delete AsList(list);
}

const char* hxf_property_list_get_name(hxf_property_list_h list) {
  return list == nullptr ? nullptr : AsList(list)->name.c_str();
}

hxf_error hxf_property_list_set_name(hxf_property_list_h list, hxf_string name) {
  if (list == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  return Guarded(HXF_ERROR_OUT_OF_MEMORY, [&] {
    std::string text;
    if (!ToStdString(name, &text)) return HXF_ERROR_INVALID_PARAMETER;
    AsList(list)->name = std::move(text);
    return HXF_ERROR_NONE;
  });
}

hxf_error hxf_property_list_push_property(hxf_property_list_h list, hxf_property_h property,
                                          hxf_error error) {
  if (list == nullptr || property == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  return Guarded(HXF_ERROR_OUT_OF_MEMORY, [&] {
    AsList(list)->items.Push(*static_cast<CProperty*>(property), error);
    return HXF_ERROR_NONE;
  });
}

hxf_error hxf_property_list_pop(hxf_property_list_h list, hxf_property_h* property,
                                hxf_error* error) {
  if (list == nullptr || property == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  *property = AsList(list)->items.Pop(error).release();
  return *property != nullptr ? HXF_ERROR_NONE : HXF_ERROR_NOT_FOUND;
}

hxf_property_h hxf_property_list_find(hxf_property_list_h list, hxf_string name) {
  if (list == nullptr) return nullptr;
  return Guarded<hxf_property_h>(nullptr, [&]() -> hxf_property_h {
    std::string wanted;
    if (!ToStdString(name, &wanted)) return nullptr;
    return AsList(list)->items.FindIf([&](const CProperty& p) { return p.name == wanted; });
  });
}

hxf_property_h hxf_property_list_get_first(hxf_property_list_h list) {
  return list == nullptr ? nullptr : AsList(list)->items.First();
}

hxf_property_h hxf_property_list_get_next(hxf_property_list_h list, hxf_property_h item) {
  return list == nullptr ? nullptr : AsList(list)->items.Next(item);
}

bool hxf_property_list_empty(hxf_property_list_h list) {
  return list == nullptr || AsList(list)->items.Empty();
}

uint32_t hxf_property_list_size(hxf_property_list_h list) {
  return list == nullptr ? 0 : AsList(list)->items.Size();
}

}  // extern "C"
