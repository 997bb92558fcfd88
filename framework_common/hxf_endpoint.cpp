// C functions of endpoints.
#include <string>

#include "CCommonGuard.h"
#include "CEndpoint.h"
#include "hxf_common.h"

using HXFramework::Common::CEndpoint;
using HXFramework::Common::Guarded;
using HXFramework::Common::ToStdString;

namespace {

CEndpoint* AsEndpoint(hxf_endpoint_h handle) {
  return static_cast<CEndpoint*>(handle);
}

const char* Get(hxf_endpoint_h handle, std::string CEndpoint::*field) {
  return handle == nullptr ? nullptr : (AsEndpoint(handle)->*field).c_str();
}

hxf_error Set(hxf_endpoint_h handle, std::string CEndpoint::*field, hxf_string value) {
  if (handle == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  return Guarded(HXF_ERROR_OUT_OF_MEMORY, [&] {
    std::string text;
    if (!ToStdString(value, &text)) return HXF_ERROR_INVALID_PARAMETER;
    AsEndpoint(handle)->*field = std::move(text);
    return HXF_ERROR_NONE;
  });
}

}  // namespace

extern "C" {

hxf_endpoint_h hxf_endpoint_create(hxf_string service_name) {
  return Guarded<hxf_endpoint_h>(nullptr, [&]() -> hxf_endpoint_h {
    std::string name;
    if (!ToStdString(service_name, &name)) return nullptr;
    auto* endpoint = new CEndpoint();
    endpoint->service_name = std::move(name);
    return endpoint;
  });
}

hxf_endpoint_h hxf_endpoint_copy(hxf_endpoint_h endpoint) {
  if (endpoint == nullptr) return nullptr;
  return Guarded<hxf_endpoint_h>(nullptr, [&] { return new CEndpoint(*AsEndpoint(endpoint)); });
}

void hxf_endpoint_destroy(hxf_endpoint_h endpoint) {
  delete AsEndpoint(endpoint);
}

const char* hxf_endpoint_get_service_name(hxf_endpoint_h e) {
  return Get(e, &CEndpoint::service_name);
}
const char* hxf_endpoint_get_interface_name(hxf_endpoint_h e) {
  return Get(e, &CEndpoint::interface_name);
}
const char* hxf_endpoint_get_interface_type(hxf_endpoint_h e) {
  return Get(e, &CEndpoint::interface_type);
}
const char* hxf_endpoint_get_address(hxf_endpoint_h e) {
  return Get(e, &CEndpoint::address);
}
const char* hxf_endpoint_get_device_id(hxf_endpoint_h e) {
  return Get(e, &CEndpoint::device_id);
}
const char* hxf_endpoint_get_device_name(hxf_endpoint_h e) {
  return Get(e, &CEndpoint::device_name);
}
const char* hxf_endpoint_get_ui_meta(hxf_endpoint_h e) {
  return Get(e, &CEndpoint::ui_meta);
}

hxf_error hxf_endpoint_set_interface_name(hxf_endpoint_h e, hxf_string v) {
  return Set(e, &CEndpoint::interface_name, v);
}
hxf_error hxf_endpoint_set_interface_type(hxf_endpoint_h e, hxf_string v) {
  return Set(e, &CEndpoint::interface_type, v);
}
hxf_error hxf_endpoint_set_address(hxf_endpoint_h e, hxf_string v) {
  return Set(e, &CEndpoint::address, v);
}
hxf_error hxf_endpoint_set_device_id(hxf_endpoint_h e, hxf_string v) {
  return Set(e, &CEndpoint::device_id, v);
}
hxf_error hxf_endpoint_set_device_name(hxf_endpoint_h e, hxf_string v) {
  return Set(e, &CEndpoint::device_name, v);
}
hxf_error hxf_endpoint_set_ui_meta(hxf_endpoint_h e, hxf_string v) {
  return Set(e, &CEndpoint::ui_meta, v);
}

}  // extern "C"
