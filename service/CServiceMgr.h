#pragma once

#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "IServiceMgr.h"

namespace HXFramework::Core {

class IService;

class CServiceMgr : public IServiceMgr {
 public:
  CServiceMgr();
  ~CServiceMgr() override = default;

  void Initialize() override;
  void Finalize() override;
  void* CreateServiceHandler(const std::string& name, void* user_data) override;
  void SetSearchCallback(hxf_service_handler_h handle, const SearchHandler_t& handler) override;
  void SetSearchStopCallback(hxf_service_handler_h handle,
                             const SearchStopHandler_t& handler) override;
  void SetGetDeviceListCallback(hxf_service_handler_h handle,
                                const GetDeviceListHandler_t& handler) override;
  void SetListenCallback(hxf_service_handler_h handle, const ListenHandler_t& handler) override;
  void SetListenStopCallback(hxf_service_handler_h handle,
                             const ListenStopHandler_t& handler) override;
  void SubscribeService(hxf_service_handler_h handle, const std::string& name) override;
  void UnsubscribeService(hxf_service_handler_h handle, const std::string& name) override;
  void StartActiveSearch(const std::string& name, const std::shared_ptr<IClient>& client,
                         uint32_t timeout) override;
  void StopActiveSearch(const std::string& name, hxf_client_h client) override;
  void GetDeviceList(const std::string& name, const std::shared_ptr<IClient>& client,
                     uint32_t timeout) override;
  void StartPassiveSearch(const std::string& name, const std::shared_ptr<IClient>& client) override;
  void StopPassiveSearch(const std::string& name, hxf_client_h client) override;
  void HandleSearchingTimerExpired(const std::string& name) override;
  void Discovered(hxf_service_handler_h handle,
                  const std::shared_ptr<IEndpointHelper>& endpoint) override;
  void DeviceListDiscovered(hxf_service_handler_h handle,
                            const std::shared_ptr<IEndpointListHelper>& list) override;
  void DestroyServiceHandler(hxf_service_handler_h handle) override;
  void DestroyServiceHandlerAsync(hxf_service_handler_h handle,
                                  const ServiceHandlerDestroyedHandler_t& destroyed) override;
  void GetServiceProperty(const std::string& name, const std::shared_ptr<IPropertyListHelper>& list,
                          const GetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override;
  void SetServiceProperty(const std::string& name, const std::shared_ptr<IPropertyListHelper>& list,
                          const SetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override;
  void Notify(hxf_service_handler_h handle, const std::string& name,
              const std::shared_ptr<IPropertyListHelper>& list, hxf_transaction_h transaction,
              hxf_error_e error) override;
  void SetAddDeviceCallback(hxf_service_handler_h handle,
                            const AddDeviceHandler_t& handler) override;
  void SetServiceSessionCreatedCallback(hxf_service_handler_h handle,
                                        const ServiceSessionCreatedHandler_t& handler) override;
  void SetRequestServiceCallback(hxf_service_handler_h handle,
                                 const SetServicePropertyHandler_t& handler) override;
  std::shared_ptr<IServiceHandler> GetServiceHandler(const std::string& name) override;
  void SendRequestResult(hxf_service_handler_h handle, const std::string& name,
                         const std::shared_ptr<IPropertyListHelper>& list,
                         hxf_transaction_h transaction, hxf_error_e error) override;
  void SetSearchClient(const std::string& name, const std::shared_ptr<IClient>& client) override;

 private:
  // Called with `lock` held.
  std::shared_ptr<IServiceHandler> _CreateServiceHandler(const std::string& name);
  std::shared_ptr<IServiceHandler> _FindServiceHandler(hxf_service_handler_h handle) const;
  std::shared_ptr<IServiceHandler> _ReleaseServiceHandler(hxf_service_handler_h handle);
  std::shared_ptr<IService> _CreateService(const std::string& name);
  std::shared_ptr<IService> _FindService(const std::string& name) const;
  std::shared_ptr<IService> _GetService(const std::string& name);
  void _DestroyService(const std::string& name);
  // The same, each taking the lock itself and returning with it released: the object is
  // then called outside the lock, since a call may run queued jobs and their callbacks on
  // this thread.
  std::shared_ptr<IServiceHandler> _LookupServiceHandler(hxf_service_handler_h handle) const;
  std::shared_ptr<IService> _LookupService(const std::string& name) const;
  std::shared_ptr<IService> _LookupOrCreateService(const std::string& name);
  // Runs `operation` on every existing service ("*"), or on the named one, created if new.
  template <typename Operation>
  void _ForNamedOrEveryService(const std::string& name, Operation&& operation);

  // Guards both maps, and is held only for their operations, for creating and starting a
  // new object, and by Finalize: never while an existing object runs work that may call
  // back into the application or a plugin. Lock order: this lock, then a service's handler
  // lock; never the reverse.
  mutable std::shared_mutex lock;
  std::unordered_map<std::string, std::shared_ptr<IService>> service_map_;
  std::unordered_map<hxf_service_handler_h, std::shared_ptr<IServiceHandler>> service_handler_map_;
};

}  // namespace HXFramework::Core
