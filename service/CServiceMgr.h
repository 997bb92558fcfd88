#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "CLocks.h"
#include "IServiceMgr.h"

namespace HXFramework::Core {

class IService;

class CServiceMgr : public IServiceMgr {
 public:
  CServiceMgr();
  ~CServiceMgr() override = default;

  void Initialize() override HXF_EXCLUDES(lock_);
  void Finalize() override HXF_EXCLUDES(lock_);
  void* CreateServiceHandler(const std::string& name, void* user_data) override HXF_EXCLUDES(lock_);
  void SetSearchCallback(hxf_service_handler_h handle, const SearchHandler_t& handler) override
      HXF_EXCLUDES(lock_);
  void SetSearchStopCallback(hxf_service_handler_h handle,
                             const SearchStopHandler_t& handler) override HXF_EXCLUDES(lock_);
  void SetGetDeviceListCallback(hxf_service_handler_h handle,
                                const GetDeviceListHandler_t& handler) override HXF_EXCLUDES(lock_);
  void SetListenCallback(hxf_service_handler_h handle, const ListenHandler_t& handler) override
      HXF_EXCLUDES(lock_);
  void SetListenStopCallback(hxf_service_handler_h handle,
                             const ListenStopHandler_t& handler) override HXF_EXCLUDES(lock_);
  void SubscribeService(hxf_service_handler_h handle, const std::string& name) override
      HXF_EXCLUDES(lock_);
  void UnsubscribeService(hxf_service_handler_h handle, const std::string& name) override
      HXF_EXCLUDES(lock_);
  void StartActiveSearch(const std::string& name, const std::shared_ptr<IClient>& client,
                         uint32_t timeout) override HXF_EXCLUDES(lock_);
  void StopActiveSearch(const std::string& name, hxf_client_h client) override HXF_EXCLUDES(lock_);
  void GetDeviceList(const std::string& name, const std::shared_ptr<IClient>& client,
                     uint32_t timeout) override HXF_EXCLUDES(lock_);
  void StartPassiveSearch(const std::string& name, const std::shared_ptr<IClient>& client) override
      HXF_EXCLUDES(lock_);
  void StopPassiveSearch(const std::string& name, hxf_client_h client) override HXF_EXCLUDES(lock_);
  void HandleSearchingTimerExpired(const std::string& name) override HXF_EXCLUDES(lock_);
  void Discovered(hxf_service_handler_h handle,
                  const std::shared_ptr<IEndpointHelper>& endpoint) override HXF_EXCLUDES(lock_);
  void DeviceListDiscovered(hxf_service_handler_h handle,
                            const std::shared_ptr<IEndpointListHelper>& list) override
      HXF_EXCLUDES(lock_);
  void DestroyServiceHandler(hxf_service_handler_h handle) override HXF_EXCLUDES(lock_);
  void DestroyServiceHandlerAsync(hxf_service_handler_h handle,
                                  const ServiceHandlerDestroyedHandler_t& destroyed) override
      HXF_EXCLUDES(lock_);
  void GetServiceProperty(const std::string& name, const std::shared_ptr<IPropertyListHelper>& list,
                          const GetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override HXF_EXCLUDES(lock_);
  void SetServiceProperty(const std::string& name, const std::shared_ptr<IPropertyListHelper>& list,
                          const SetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override HXF_EXCLUDES(lock_);
  void Notify(hxf_service_handler_h handle, const std::string& name,
              const std::shared_ptr<IPropertyListHelper>& list, hxf_transaction_h transaction,
              hxf_error_e error) override HXF_EXCLUDES(lock_);
  void SetAddDeviceCallback(hxf_service_handler_h handle,
                            const AddDeviceHandler_t& handler) override HXF_EXCLUDES(lock_);
  void SetServiceSessionCreatedCallback(hxf_service_handler_h handle,
                                        const ServiceSessionCreatedHandler_t& handler) override
      HXF_EXCLUDES(lock_);
  void SetRequestServiceCallback(hxf_service_handler_h handle,
                                 const SetServicePropertyHandler_t& handler) override
      HXF_EXCLUDES(lock_);
  std::shared_ptr<IServiceHandler> GetServiceHandler(const std::string& name) override
      HXF_EXCLUDES(lock_);
  void SendRequestResult(hxf_service_handler_h handle, const std::string& name,
                         const std::shared_ptr<IPropertyListHelper>& list,
                         hxf_transaction_h transaction, hxf_error_e error) override
      HXF_EXCLUDES(lock_);
  void SetSearchClient(const std::string& name, const std::shared_ptr<IClient>& client) override
      HXF_EXCLUDES(lock_);
  void ReleaseIdleServices() override HXF_EXCLUDES(lock_);
  bool ForgetIdleService(const std::string& name, const IService* service) override
      HXF_EXCLUDES(lock_);
  std::size_t ServiceCount() const override HXF_EXCLUDES(lock_);

 private:
  std::shared_ptr<IServiceHandler> _CreateServiceHandler(const std::string& name)
      HXF_REQUIRES(lock_);
  std::shared_ptr<IServiceHandler> _FindServiceHandler(hxf_service_handler_h handle) const
      HXF_REQUIRES_SHARED(lock_);
  std::shared_ptr<IServiceHandler> _ReleaseServiceHandler(hxf_service_handler_h handle)
      HXF_REQUIRES(lock_);
  std::shared_ptr<IService> _CreateService(const std::string& name) HXF_REQUIRES(lock_);
  std::shared_ptr<IService> _FindService(const std::string& name) const HXF_REQUIRES_SHARED(lock_);
  std::shared_ptr<IService> _GetService(const std::string& name) HXF_REQUIRES(lock_);
  void _DestroyService(const std::string& name) HXF_REQUIRES(lock_);
  // The same, each taking the lock itself and returning with it released: the object is
  // then called outside the lock, since a call may run queued jobs and their callbacks on
  // this thread.
  std::shared_ptr<IServiceHandler> _LookupServiceHandler(hxf_service_handler_h handle) const
      HXF_EXCLUDES(lock_);
  std::shared_ptr<IService> _LookupService(const std::string& name) const HXF_EXCLUDES(lock_);
  std::shared_ptr<IService> _LookupOrCreateService(const std::string& name) HXF_EXCLUDES(lock_);
  // Runs `operation` on every existing service ("*"), or on the named one, created if new.
  template <typename Operation>
  void _ForNamedOrEveryService(const std::string& name, Operation&& operation) HXF_EXCLUDES(lock_);

  // Guards both maps, and is held only for their operations, for creating and starting a
  // new object, and by Finalize: never while an existing object runs work that may call
  // back into the application or a plugin. Lock order: this lock, then a service's handler
  // lock; never the reverse.
  friend class CService;  // which declares its handler lock as taken after this one
  mutable CSharedMutex lock_;
  std::unordered_map<std::string, std::shared_ptr<IService>> service_map_ HXF_GUARDED_BY(lock_);
  std::unordered_map<hxf_service_handler_h, std::shared_ptr<IServiceHandler>> service_handler_map_
      HXF_GUARDED_BY(lock_);
};

}  // namespace HXFramework::Core
