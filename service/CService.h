#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include "CLocks.h"
#include "CServiceMgr.h"
#include "IService.h"
#include "ITimer.h"
#include "TPLContext"

namespace HXFramework::Core {

// One per service name: fans searches out to the subscribed handlers, fans discoveries back
// to the clients that asked, and times active searches and device-list requests out.
class CService : public IService, TPL::CContext<CService> {
 public:
  explicit CService(const std::string& name);
  ~CService() override;

  std::string GetName() const override { return name; }
  void Init() override;
  void Termi() override;
  void Subscribe(const std::shared_ptr<IServiceHandler>& handler) override;
  void Unsubscribe(hxf_service_handler_h handle) override;
  void StartActiveSearch(const std::shared_ptr<IClient>& client, uint32_t timeout) override;
  void StopActiveSearch(hxf_client_h client) override;
  void StartPassiveSearch(const std::shared_ptr<IClient>& client) override;
  void StopPassiveSearch(hxf_client_h client) override;
  void GetDeviceList(const std::shared_ptr<IClient>& client, uint32_t timeout) override;
  void HandleSearchingTimerExpired(hxf_client_h client) override;
  void HandleListSearchingTimerExpired(hxf_client_h client) override;
  void Discovered(hxf_service_handler_h handle,
                  const std::shared_ptr<IEndpointHelper>& endpoint) override;
  void DeviceListDiscovered(hxf_service_handler_h handle,
                            const std::shared_ptr<IEndpointListHelper>& list) override;
  void GetServiceProperty(const std::shared_ptr<IPropertyListHelper>& list,
                          const GetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override;
  void SetServiceProperty(const std::shared_ptr<IPropertyListHelper>& list,
                          const SetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override;
  std::shared_ptr<IServiceHandler> GetServiceHandler() override;
  void SetSearchClient(const std::shared_ptr<IClient>& client) override;
  void ReleaseIfIdle() override;

 private:
  friend class IService;  // the factory hands the context its owner
  using ClientMap = std::unordered_map<hxf_client_h, std::weak_ptr<IClient>>;

  void _InsertClientIfNotExist(ClientMap& map, const std::shared_ptr<IClient>& client);
  void _RemoveClient(ClientMap& map, hxf_client_h client);
  void _ForEachClient(const std::function<void(const std::shared_ptr<IClient>&)>& operation,
                      ClientMap& map);
  void _ForEachServiceHandler(
      const std::function<void(const std::shared_ptr<IServiceHandler>&)>& operation)
      HXF_EXCLUDES(handler_lock_);
  std::shared_ptr<IClient> _FindSearchingClient(hxf_client_h client);
  void _StartSearchTimer(hxf_client_h client, uint32_t timeout);
  void _StartListSearchTimer(hxf_client_h client, uint32_t timeout);
  void _StopSearchTimer();
  void _StopListSearchTimer();
  std::function<void()> _GetSearchTimerHandler(hxf_client_h client);
  std::function<void()> _GetListSearchTimerHandler(hxf_client_h client);

  void _StartActiveSearch(const std::shared_ptr<IClient>& client, uint32_t timeout);
  void _GetDeviceList(const std::shared_ptr<IClient>& client, uint32_t timeout);
  void _StartPassiveSearch(const std::shared_ptr<IClient>& client);
  void _StopActiveSearch(hxf_client_h client);
  void _StopPassiveSearch(hxf_client_h client);
  void _SetSearchClient(const std::shared_ptr<IClient>& client);
  void _Discovered(hxf_service_handler_h handle, const std::shared_ptr<IEndpointHelper>& endpoint);
  void _DeviceListDiscovered(hxf_service_handler_h handle,
                             const std::shared_ptr<IEndpointListHelper>& list);
  void _HandleSearchingTimerExpired(hxf_client_h client);
  void _HandleListSearchingTimerExpired(hxf_client_h client);
  void _Subscribe(const std::shared_ptr<IServiceHandler>& handler) HXF_EXCLUDES(handler_lock_);
  void _Unsubscribe(hxf_service_handler_h handle) HXF_EXCLUDES(handler_lock_);
  std::shared_ptr<IServiceHandler> _GetServiceHandler() HXF_EXCLUDES(handler_lock_);
  void _GetServiceProperty(const std::shared_ptr<IPropertyListHelper>& list,
                           const GetServicePropertyResultHandler_t& handler, uint32_t timeout);
  void _SetServiceProperty(const std::shared_ptr<IPropertyListHelper>& list,
                           const SetServicePropertyResultHandler_t& handler, uint32_t timeout);
  void _ReleaseIfIdle() HXF_EXCLUDES(handler_lock_);
  static bool _HasLiveClient(const ClientMap& map);

  bool passive_searching_ = false;  // nothing sets it: kept so, deliberately
  std::string name;
  ClientMap passive_client_map_;  // context only
  ClientMap search_client_map_;   // context only: active searches and device lists alike
  // Context only. Set once the manager has let this service go; what still reaches it (it
  // was handed out just before) is passed on to the service registered under the name now.
  bool released_ = false;
  std::unordered_map<hxf_service_handler_h, std::weak_ptr<IServiceHandler>> handler_map_
      HXF_GUARDED_BY(handler_lock_);
  // Atomic because Termi stops the timers from the manager's thread, outside the context.
  std::atomic<uint32_t> search_timer_id_{0};
  std::atomic<uint32_t> list_search_timer_id_{0};
  std::unique_ptr<TPL::ITimer> timer_;
  // Guards handler_map_ only: GetServiceHandler reads it on the caller's thread. Taken
  // after the service manager's lock, never before it.
  CSharedMutex handler_lock_ HXF_ACQUIRED_AFTER(CServiceMgr::lock_);
};

}  // namespace HXFramework::Core
