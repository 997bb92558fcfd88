#include "CEndpointListHelper.h"

#include <stdexcept>

#include "CommonText.h"
#include "HXLog.h"

namespace HXFramework::Core {

std::shared_ptr<IEndpointListHelper> IEndpointListHelper::Create(void* handle) {
  return std::make_shared<CEndpointListHelper>(handle);
}

CEndpointListHelper::CEndpointListHelper(void* handle) : handle_(hxf_endpoint_list_copy(handle)) {
  if (handle_ == nullptr) {
    HXLOG(DLOG_ERROR, "failed to copy list\n");
    throw std::invalid_argument("failed to create list");
  }
}

CEndpointListHelper::~CEndpointListHelper() {
  hxf_endpoint_list_destroy(handle_);
}

hxf_error CEndpointListHelper::Push(void* endpoint, hxf_error error) {
  return hxf_endpoint_list_push_endpoint(handle_, endpoint, error);
}

hxf_error CEndpointListHelper::Pop(void** endpoint, hxf_error* error) {
  return hxf_endpoint_list_pop(handle_, endpoint, error);
}

void* CEndpointListHelper::Find(const std::string& device_id) {
  return hxf_endpoint_list_find(handle_, AsCommonString(device_id));
}

void* CEndpointListHelper::GetFirst() {
  return hxf_endpoint_list_get_first(handle_);
}
void* CEndpointListHelper::GetNext(void* item) {
  return hxf_endpoint_list_get_next(handle_, item);
}
bool CEndpointListHelper::Empty() {
  return hxf_endpoint_list_empty(handle_);
}

}  // namespace HXFramework::Core
