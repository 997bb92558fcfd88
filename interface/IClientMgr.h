#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

class IEndpointHelper;
class IPropertyListHelper;

// Registry of the consumers' clients (process-wide singleton). Checks its arguments and
// throws CException before taking its lock; assembles subscriptions and creates the
// transactions of requests.
class IClientMgr : private CNoncopyable {
 public:
  static IClientMgr* GetInstance();

  virtual ~IClientMgr() = default;
  virtual void Initialize() = 0;
  // Terminates every remaining client synchronously and empties the registry.
  virtual void Finalize() = 0;
  virtual void* CreateClient(const std::string& name) = 0;
  virtual void AddDevice(hxf_client_h client, hxf_service_session_h session,
                         const std::shared_ptr<IEndpointHelper>& endpoint) = 0;
  virtual void SetDiscoveredCallback(hxf_client_h client, const DiscoveredHandler_t& handler) = 0;
  virtual void SetServiceNotificationCallback(hxf_client_h client,
                                              const ServiceNotificationHandler_t& handler) = 0;
  virtual void StartPassiveSearch(hxf_client_h client, const std::string& name,
                                  const DiscoveredHandler_t& handler) = 0;
  virtual void StopPassiveSearch(hxf_client_h client, const std::string& name) = 0;
  virtual void StartActiveSearch(hxf_client_h client, const std::string& name,
                                 const DiscoveredHandler_t& handler, uint32_t timeout) = 0;
  virtual void GetDeviceList(hxf_client_h client, const std::string& name,
                             const DeviceListDiscoveredHandler_t& handler, uint32_t timeout) = 0;
  virtual void StopActiveSearch(hxf_client_h client, const std::string& name) = 0;
  virtual void* SubscribeService(hxf_client_h client, const std::string& name,
                                 const ServiceNotificationHandler_t& handler) = 0;
  virtual void GetServiceProperty(hxf_client_h client, const std::string& name,
                                  const std::shared_ptr<IPropertyListHelper>& list,
                                  const GetServicePropertyResultHandler_t& handler,
                                  uint32_t timeout) = 0;
  virtual void RequestService(hxf_client_h client, hxf_service_session_h session,
                              const std::shared_ptr<IPropertyListHelper>& list,
                              const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                              void** transaction) = 0;
  virtual void DestroyClient(hxf_client_h client) = 0;
  virtual void DestroyClientAsync(hxf_client_h client,
                                  const ClientDestroyedHandler_t& destroyed) = 0;
  virtual void SetDeviceListDiscoveredCallback(hxf_client_h client, const std::string& name,
                                               const DeviceListDiscoveredHandler_t& handler) = 0;
};

}  // namespace HXFramework::Core
