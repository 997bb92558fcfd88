#pragma once

#include "IEndpointListHelper.h"

namespace HXFramework::Core {

class CEndpointListHelper : public IEndpointListHelper {
 public:
  explicit CEndpointListHelper(void* handle);
  ~CEndpointListHelper() override;

  void* GetHandle() override { return handle_; }
  hxf_error Push(void* endpoint, hxf_error error) override;
  hxf_error Pop(void** endpoint, hxf_error* error) override;
  void* Find(const std::string& device_id) override;
  void* GetFirst() override;
  void* GetNext(void* item) override;
  bool Empty() override;

 private:
  hxf_endpoint_list_h handle_;  // the copy, destroyed exactly once, with this object
};

}  // namespace HXFramework::Core
