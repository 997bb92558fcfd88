#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

class IClient;
class IEndpointHelper;
class IEndpointListHelper;
class IPropertyListHelper;
class IServiceHandler;

// The meeting point, for one service name, of the handlers that provide it and the clients
// that search for it. Owned by the service manager.
class IService : private CNoncopyable {
 public:
  static std::shared_ptr<IService> Create(const std::string& name);

  virtual ~IService() = default;
  virtual std::string GetName() const = 0;
  virtual void Init() = 0;
  virtual void Termi() = 0;
  virtual void Subscribe(const std::shared_ptr<IServiceHandler>& handler) = 0;
  virtual void Unsubscribe(hxf_service_handler_h handle) = 0;
  virtual void StartActiveSearch(const std::shared_ptr<IClient>& client, uint32_t timeout) = 0;
  virtual void StopActiveSearch(hxf_client_h client) = 0;
  virtual void StartPassiveSearch(const std::shared_ptr<IClient>& client) = 0;
  virtual void StopPassiveSearch(hxf_client_h client) = 0;
  virtual void GetDeviceList(const std::shared_ptr<IClient>& client, uint32_t timeout) = 0;
  virtual void HandleSearchingTimerExpired(hxf_client_h client) = 0;
  virtual void HandleListSearchingTimerExpired(hxf_client_h client) = 0;
  virtual void Discovered(hxf_service_handler_h handle,
                          const std::shared_ptr<IEndpointHelper>& endpoint) = 0;
  virtual void DeviceListDiscovered(hxf_service_handler_h handle,
                                    const std::shared_ptr<IEndpointListHelper>& list) = 0;
  virtual void GetServiceProperty(const std::shared_ptr<IPropertyListHelper>& list,
                                  const GetServicePropertyResultHandler_t& handler,
                                  uint32_t timeout) = 0;
  virtual void SetServiceProperty(const std::shared_ptr<IPropertyListHelper>& list,
                                  const SetServicePropertyResultHandler_t& handler,
                                  uint32_t timeout) = 0;
  virtual std::shared_ptr<IServiceHandler> GetServiceHandler() = 0;
  virtual void SetSearchClient(const std::shared_ptr<IClient>& client) = 0;
  // Leaves the registry if no handler and no live client is left (posted to the context).
  virtual void ReleaseIfIdle() = 0;
};

}  // namespace HXFramework::Core
