#include "CPropertyListHelper.h"

#include <stdexcept>

#include "CException.h"
#include "CommonText.h"
#include "HXLog.h"

namespace HXFramework::Core {

std::shared_ptr<IPropertyListHelper> IPropertyListHelper::Create(void* handle) {
  return std::make_shared<CPropertyListHelper>(handle);
}

CPropertyListHelper::CPropertyListHelper(void* handle) : handle_(hxf_property_list_copy(handle)) {
  if (handle_ == nullptr) {
    HXLOG(DLOG_ERROR, "failed to copy list\n");
    throw std::invalid_argument("failed to create list");
  }
  const std::string name = GetName();  // once: the log macro formats its arguments twice
  HXLOG(DLOG_ERROR, "pelnor (core)property list created for %s(%p)\n", name.c_str(), handle_);
}

CPropertyListHelper::~CPropertyListHelper() {
  const char* name = hxf_property_list_get_name(handle_);
  HXLOG(DLOG_ERROR, "pelnor (core)property list destroy for %s(%p)\n", name != nullptr ? name : "",
        handle_);
  hxf_property_list_destroy(handle_);
}

void CPropertyListHelper::SetName(const std::string& name) {
  const hxf_error result = hxf_property_list_set_name(handle_, AsCommonString(name));
  if (result != HXF_ERROR_NONE) throw CException("CPropertyListHelper::SetName is failed", result);
}

std::string CPropertyListHelper::GetName() {
  return CommonText(hxf_property_list_get_name(handle_));
}

void CPropertyListHelper::Push(void* property, hxf_error error) {
  const hxf_error result = hxf_property_list_push_property(handle_, property, error);
  if (result != HXF_ERROR_NONE) throw CException("CPropertyListHelper::Push is failed", result);
}

hxf_error CPropertyListHelper::Pop(void** property, hxf_error* error) {
  return hxf_property_list_pop(handle_, property, error);
}

void* CPropertyListHelper::Find(const std::string& name) {
  return hxf_property_list_find(handle_, AsCommonString(name));
}

void* CPropertyListHelper::GetFirst() {
  return hxf_property_list_get_first(handle_);
}
void* CPropertyListHelper::GetNext(void* item) {
  return hxf_property_list_get_next(handle_, item);
}
bool CPropertyListHelper::Empty() {
  return hxf_property_list_empty(handle_);
}

}  // namespace HXFramework::Core
