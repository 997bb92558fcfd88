#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include "CLocks.h"
#include "IClient.h"
#include "TPLContext"

namespace HXFramework::Core {

// The consumer-side object: one discovered-handler slot and one device-list slot for all
// services, and the sessions it subscribed (owned here). The handlers are touched only by
// tasks of its own context; the session map also by Termi (see sessions_mutex_).
class CClient : public IClient, TPL::CContext<CClient> {
 public:
  explicit CClient(const std::string& name);
  ~CClient() override;

  hxf_client_h GetHandle() const override { return const_cast<CClient*>(this); }
  std::string GetName() const override { return name_; }
  void Init() override;
  void Termi() override;
  void TermiAsync(const ClientDestroyedHandler_t& destroyed) override;
  void AddDevice(hxf_service_session_h session,
                 const std::shared_ptr<IEndpointHelper>& endpoint) override;
  void SetDiscoveredCallback(const DiscoveredHandler_t& handler) override;
  void SetServiceNotificationCallback(const ServiceNotificationHandler_t& handler) override;
  void StartPassiveSearch(const std::string& name, const DiscoveredHandler_t& handler) override;
  void StopPassiveSearch(const std::string& name) override;
  void StartActiveSearch(const std::string& name, const DiscoveredHandler_t& handler,
                         uint32_t timeout) override;
  void StopActiveSearch(const std::string& name) override;
  void GetDeviceList(const std::string& name, const DeviceListDiscoveredHandler_t& handler,
                     uint32_t timeout) override;
  void HandleSearchingTimerExpired(const std::string& name) override;
  void HandleListSearchingTimerExpired(const std::string& name) override;
  void Discovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                  const std::shared_ptr<IEndpointHelper>& endpoint) override;
  void DeviceListDiscovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                            std::shared_ptr<IEndpointListHelper> list) override;
  void GetServiceProperty(const std::string& name, const std::shared_ptr<IPropertyListHelper>& list,
                          const GetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override;
  void RequestService(hxf_service_session_h session,
                      const std::shared_ptr<IPropertyListHelper>& list,
                      const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                      const std::shared_ptr<ITransaction>& transaction) override;
  void SendRequestResult(const std::shared_ptr<IServiceSession>& session, const std::string& name,
                         const std::shared_ptr<ITransaction>& transaction,
                         const std::shared_ptr<ITransactionResult>& result) override;
  void SubscribeService(const std::shared_ptr<IServiceSession>& session) override;
  void SetDeviceListDiscoveredCallback(const std::string& name,
                                       const DeviceListDiscoveredHandler_t& handler) override;

 private:
  friend class IClient;  // the factory hands the context its owner

  std::shared_ptr<IClient> _Self();
  std::shared_ptr<IServiceSession> _FindServiceSession(hxf_service_session_h session) const
      HXF_EXCLUDES(sessions_mutex_);
  std::unordered_map<hxf_service_session_h, std::shared_ptr<IServiceSession>> _TakeSessions()
      HXF_EXCLUDES(sessions_mutex_);
  void _ReleaseAll();
  template <typename Body>
  void _Run(const CLogSite& site, Body&& body);

  void _SetDiscoveredCallback(const DiscoveredHandler_t& handler);
  void _SetServiceNotificationCallback(const ServiceNotificationHandler_t& handler);
  void _SetDeviceListDiscoveredCallback(const std::string& name,
                                        const DeviceListDiscoveredHandler_t& handler);
  void _StartPassiveSearch(const std::string& name, const DiscoveredHandler_t& handler);
  void _StopPassiveSearch(const std::string& name);
  void _StartActiveSearch(const std::string& name, const DiscoveredHandler_t& handler,
                          uint32_t timeout);
  void _StopActiveSearch(const std::string& name);
  void _GetDeviceList(const std::string& name, const DeviceListDiscoveredHandler_t& handler,
                      uint32_t timeout);
  void _GetServiceProperty(const std::string& name,
                           const std::shared_ptr<IPropertyListHelper>& list,
                           const GetServicePropertyResultHandler_t& handler, uint32_t timeout);
  void _Discovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                   const std::shared_ptr<IEndpointHelper>& endpoint);
  void _DeviceListDiscovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                             const std::shared_ptr<IEndpointListHelper>& list);
  void _HandleSearchingTimerExpired(const std::string& name);
  void _HandleListSearchingTimerExpired(const std::string& name);
  void _SubscribeService(const std::shared_ptr<IServiceSession>& session);
  void _RequestService(hxf_service_session_h session,
                       const std::shared_ptr<IPropertyListHelper>& list,
                       const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                       const std::shared_ptr<ITransaction>& transaction);
  void _AddDevice(hxf_service_session_h session, const std::shared_ptr<IEndpointHelper>& endpoint);
  void _SendRequestResult(const std::shared_ptr<IServiceSession>& session, const std::string& name,
                          const std::shared_ptr<ITransaction>& transaction,
                          const std::shared_ptr<ITransactionResult>& result);
  void _TermiAsync(const ClientDestroyedHandler_t& destroyed);

  std::string name_;
  // Set by the first search or list request; the destructor then has the services that
  // this client leaves behind looked at (read there, after every job).
  std::atomic<bool> searched_{false};
  DiscoveredHandler_t discovered_cb_;             // one slot for every service
  DeviceListDiscoveredHandler_t device_list_cb_;  // one slot for every service
  // Termi ends the sessions whatever its termination's result, so possibly while a job of
  // this client still runs on another thread (and looks a session up): the map alone is
  // shared across threads. The lock is a leaf: held for map operations only, never while a
  // session or anything else is called.
  mutable CMutex sessions_mutex_;
  std::unordered_map<hxf_service_session_h, std::shared_ptr<IServiceSession>> service_session_map_
      HXF_GUARDED_BY(sessions_mutex_);
};

}  // namespace HXFramework::Core
