#pragma once

#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "hxf_common.h"

namespace HXFramework::Core {

// Owns a copy of an endpoint for as long as the core needs it.
class IEndpointHelper : private CNoncopyable {
 public:
  // Copies `handle`; a null endpoint throws CException "endpoint_h is invalid" (code 3).
  static std::shared_ptr<IEndpointHelper> Create(void* handle);

  virtual ~IEndpointHelper() = default;
  virtual hxf_error SetInterfaceName(const std::string& value) = 0;
  virtual hxf_error SetInterfaceType(const std::string& value) = 0;
  virtual hxf_error SetAddress(const std::string& value) = 0;
  virtual hxf_error SetDeviceId(const std::string& value) = 0;
  virtual hxf_error SetDeviceName(const std::string& value) = 0;
  virtual hxf_error SetUIMeta(const std::string& value) = 0;
  virtual std::string GetServiceName() = 0;
  virtual std::string GetInterfaceName() = 0;
  virtual std::string GetInterfaceType() = 0;
  virtual std::string GetAddress() = 0;
  virtual std::string GetDeviceId() = 0;
  virtual std::string GetDeviceName() = 0;
  virtual std::string GetUIMeta() = 0;
  virtual void* GetHandle() = 0;
};

}  // namespace HXFramework::Core
