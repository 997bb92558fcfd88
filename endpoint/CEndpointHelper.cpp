#include "CEndpointHelper.h"

#include "CException.h"
#include "CommonText.h"

namespace HXFramework::Core {

std::shared_ptr<IEndpointHelper> IEndpointHelper::Create(void* handle) {
  return std::make_shared<CEndpointHelper>(handle);
}

CEndpointHelper::CEndpointHelper(void* handle) : handle_(hxf_endpoint_copy(handle)) {
  if (handle_ == nullptr) throw CException("endpoint_h is invalid", HXF_ERROR_CREATE_FAILED);
}

CEndpointHelper::~CEndpointHelper() {
  hxf_endpoint_destroy(handle_);
}

hxf_error CEndpointHelper::SetInterfaceName(const std::string& v) {
  return hxf_endpoint_set_interface_name(handle_, AsCommonString(v));
}
hxf_error CEndpointHelper::SetInterfaceType(const std::string& v) {
  return hxf_endpoint_set_interface_type(handle_, AsCommonString(v));
}
hxf_error CEndpointHelper::SetAddress(const std::string& v) {
  return hxf_endpoint_set_address(handle_, AsCommonString(v));
}
hxf_error CEndpointHelper::SetDeviceId(const std::string& v) {
  return hxf_endpoint_set_device_id(handle_, AsCommonString(v));
}
hxf_error CEndpointHelper::SetDeviceName(const std::string& v) {
  return hxf_endpoint_set_device_name(handle_, AsCommonString(v));
}
hxf_error CEndpointHelper::SetUIMeta(const std::string& v) {
  return hxf_endpoint_set_ui_meta(handle_, AsCommonString(v));
}

std::string CEndpointHelper::GetServiceName() {
  return CommonText(hxf_endpoint_get_service_name(handle_));
}
std::string CEndpointHelper::GetInterfaceName() {
  return CommonText(hxf_endpoint_get_interface_name(handle_));
}
std::string CEndpointHelper::GetInterfaceType() {
  return CommonText(hxf_endpoint_get_interface_type(handle_));
}
std::string CEndpointHelper::GetAddress() {
  return CommonText(hxf_endpoint_get_address(handle_));
}
std::string CEndpointHelper::GetDeviceId() {
  return CommonText(hxf_endpoint_get_device_id(handle_));
}
std::string CEndpointHelper::GetDeviceName() {
  return CommonText(hxf_endpoint_get_device_name(handle_));
}
std::string CEndpointHelper::GetUIMeta() {
  return CommonText(hxf_endpoint_get_ui_meta(handle_));
}

}  // namespace HXFramework::Core
