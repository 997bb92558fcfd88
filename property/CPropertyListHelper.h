#pragma once

#include "IPropertyListHelper.h"

namespace HXFramework::Core {

class CPropertyListHelper : public IPropertyListHelper {
 public:
  explicit CPropertyListHelper(void* handle);
  ~CPropertyListHelper() override;

  void* GetHandle() override { return handle_; }
  void SetName(const std::string& name) override;
  std::string GetName() override;
  void Push(void* property, hxf_error error) override;
  hxf_error Pop(void** property, hxf_error* error) override;
  void* Find(const std::string& name) override;
  void* GetFirst() override;
  void* GetNext(void* item) override;
  bool Empty() override;

 private:
  hxf_property_list_h handle_;  // the copy, destroyed exactly once, with this object
};

}  // namespace HXFramework::Core
