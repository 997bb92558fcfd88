#pragma once

#include "IEndpointHelper.h"

namespace HXFramework::Core {

class CEndpointHelper : public IEndpointHelper {
 public:
  explicit CEndpointHelper(void* handle);
  ~CEndpointHelper() override;

  hxf_error SetInterfaceName(const std::string& value) override;
  hxf_error SetInterfaceType(const std::string& value) override;
  hxf_error SetAddress(const std::string& value) override;
  hxf_error SetDeviceId(const std::string& value) override;
  hxf_error SetDeviceName(const std::string& value) override;
  hxf_error SetUIMeta(const std::string& value) override;
  std::string GetServiceName() override;
  std::string GetInterfaceName() override;
  std::string GetInterfaceType() override;
  std::string GetAddress() override;
  std::string GetDeviceId() override;
  std::string GetDeviceName() override;
  std::string GetUIMeta() override;
  void* GetHandle() override { return handle_; }

 private:
  hxf_endpoint_h handle_;  // the copy, destroyed exactly once, with this object
};

}  // namespace HXFramework::Core
