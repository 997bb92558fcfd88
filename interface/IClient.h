#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

class IEndpointHelper;
class IEndpointListHelper;
class IPropertyListHelper;
class IServiceSession;
class ITransaction;
class ITransactionResult;

// The consumer-side object: discovery callbacks and the client's sessions.
class IClient : private CNoncopyable {
 public:
  static std::shared_ptr<IClient> Create(const std::string& name);

  virtual ~IClient() = default;
  virtual hxf_client_h GetHandle() const = 0;
  virtual std::string GetName() const = 0;
  virtual void Init() = 0;
  virtual void Termi() = 0;
  virtual void TermiAsync(const ClientDestroyedHandler_t& destroyed) = 0;
  virtual void AddDevice(hxf_service_session_h session,
                         const std::shared_ptr<IEndpointHelper>& endpoint) = 0;
  virtual void SetDiscoveredCallback(const DiscoveredHandler_t& handler) = 0;
  virtual void SetServiceNotificationCallback(const ServiceNotificationHandler_t& handler) = 0;
  virtual void StartPassiveSearch(const std::string& name, const DiscoveredHandler_t& handler) = 0;
  virtual void StopPassiveSearch(const std::string& name) = 0;
  virtual void StartActiveSearch(const std::string& name, const DiscoveredHandler_t& handler,
                                 uint32_t timeout) = 0;
  virtual void StopActiveSearch(const std::string& name) = 0;
  virtual void GetDeviceList(const std::string& name, const DeviceListDiscoveredHandler_t& handler,
                             uint32_t timeout) = 0;
  virtual void HandleSearchingTimerExpired(const std::string& name) = 0;
  virtual void HandleListSearchingTimerExpired(const std::string& name) = 0;
  virtual void Discovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                          const std::shared_ptr<IEndpointHelper>& endpoint) = 0;
  virtual void DeviceListDiscovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                                    std::shared_ptr<IEndpointListHelper> list) = 0;
  virtual void GetServiceProperty(const std::string& name,
                                  const std::shared_ptr<IPropertyListHelper>& list,
                                  const GetServicePropertyResultHandler_t& handler,
                                  uint32_t timeout) = 0;
  virtual void RequestService(hxf_service_session_h session,
                              const std::shared_ptr<IPropertyListHelper>& list,
                              const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                              const std::shared_ptr<ITransaction>& transaction) = 0;
  virtual void SendRequestResult(const std::shared_ptr<IServiceSession>& session,
                                 const std::string& name,
                                 const std::shared_ptr<ITransaction>& transaction,
                                 const std::shared_ptr<ITransactionResult>& result) = 0;
  virtual void SubscribeService(const std::shared_ptr<IServiceSession>& session) = 0;
  virtual void SetDeviceListDiscoveredCallback(const std::string& name,
                                               const DeviceListDiscoveredHandler_t& handler) = 0;
};

}  // namespace HXFramework::Core
