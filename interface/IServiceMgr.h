#pragma once

#include <cstddef>
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
class IService;
class IServiceHandler;

// Registry of services (by name) and service handlers (by handle); every provider-side call
// and every search or subscription of a client passes through it. Checks its arguments and
// throws CException before taking its lock.
class IServiceMgr : private CNoncopyable {
 public:
  static IServiceMgr* GetInstance();

  virtual ~IServiceMgr() = default;
  virtual void Initialize() = 0;
  // Terminates every service, then every handler, and empties both registries.
  virtual void Finalize() = 0;
  virtual void* CreateServiceHandler(const std::string& name, void* user_data) = 0;
  virtual void SetSearchCallback(hxf_service_handler_h handle, const SearchHandler_t& handler) = 0;
  virtual void SetSearchStopCallback(hxf_service_handler_h handle,
                                     const SearchStopHandler_t& handler) = 0;
  virtual void SetGetDeviceListCallback(hxf_service_handler_h handle,
                                        const GetDeviceListHandler_t& handler) = 0;
  virtual void SetListenCallback(hxf_service_handler_h handle, const ListenHandler_t& handler) = 0;
  virtual void SetListenStopCallback(hxf_service_handler_h handle,
                                     const ListenStopHandler_t& handler) = 0;
  virtual void SubscribeService(hxf_service_handler_h handle, const std::string& name) = 0;
  virtual void UnsubscribeService(hxf_service_handler_h handle, const std::string& name) = 0;
  virtual void StartActiveSearch(const std::string& name, const std::shared_ptr<IClient>& client,
                                 uint32_t timeout) = 0;
  virtual void StopActiveSearch(const std::string& name, hxf_client_h client) = 0;
  virtual void GetDeviceList(const std::string& name, const std::shared_ptr<IClient>& client,
                             uint32_t timeout) = 0;
  virtual void StartPassiveSearch(const std::string& name,
                                  const std::shared_ptr<IClient>& client) = 0;
  virtual void StopPassiveSearch(const std::string& name, hxf_client_h client) = 0;
  virtual void HandleSearchingTimerExpired(const std::string& name) = 0;
  virtual void Discovered(hxf_service_handler_h handle,
                          const std::shared_ptr<IEndpointHelper>& endpoint) = 0;
  virtual void DeviceListDiscovered(hxf_service_handler_h handle,
                                    const std::shared_ptr<IEndpointListHelper>& list) = 0;
  virtual void DestroyServiceHandler(hxf_service_handler_h handle) = 0;
  virtual void DestroyServiceHandlerAsync(hxf_service_handler_h handle,
                                          const ServiceHandlerDestroyedHandler_t& destroyed) = 0;
  virtual void GetServiceProperty(const std::string& name,
                                  const std::shared_ptr<IPropertyListHelper>& list,
                                  const GetServicePropertyResultHandler_t& handler,
                                  uint32_t timeout) = 0;
  virtual void SetServiceProperty(const std::string& name,
                                  const std::shared_ptr<IPropertyListHelper>& list,
                                  const SetServicePropertyResultHandler_t& handler,
                                  uint32_t timeout) = 0;
  virtual void Notify(hxf_service_handler_h handle, const std::string& name,
                      const std::shared_ptr<IPropertyListHelper>& list,
                      hxf_transaction_h transaction, hxf_error_e error) = 0;
  virtual void SetAddDeviceCallback(hxf_service_handler_h handle,
                                    const AddDeviceHandler_t& handler) = 0;
  virtual void SetServiceSessionCreatedCallback(hxf_service_handler_h handle,
                                                const ServiceSessionCreatedHandler_t& handler) = 0;
  virtual void SetRequestServiceCallback(hxf_service_handler_h handle,
                                         const SetServicePropertyHandler_t& handler) = 0;
  virtual std::shared_ptr<IServiceHandler> GetServiceHandler(const std::string& name) = 0;
  virtual void SendRequestResult(hxf_service_handler_h handle, const std::string& name,
                                 const std::shared_ptr<IPropertyListHelper>& list,
                                 hxf_transaction_h transaction, hxf_error_e error) = 0;
  virtual void SetSearchClient(const std::string& name, const std::shared_ptr<IClient>& client) = 0;
  // Asks every service to let itself go if it has no handler and no live client left (a
  // client has gone). Returns at once; the services decide on their own contexts.
  virtual void ReleaseIdleServices() = 0;
  // Takes `service` out of the registry if it is still the one registered under `name`;
  // false when it is not (another has replaced it meanwhile).
  virtual bool ForgetIdleService(const std::string& name, const IService* service) = 0;
  // How many services the registry holds now.
  virtual std::size_t ServiceCount() const = 0;
};

}  // namespace HXFramework::Core
