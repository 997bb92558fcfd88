#pragma once

#include <memory>
#include <unordered_map>

#include "CLocks.h"
#include "IClientMgr.h"

namespace HXFramework::Core {

class IClient;

class CClientMgr : public IClientMgr {
 public:
  CClientMgr();
  ~CClientMgr() override = default;

  void Initialize() override HXF_EXCLUDES(client_mutex_);
  void Finalize() override HXF_EXCLUDES(client_mutex_);
  void* CreateClient(const std::string& name) override HXF_EXCLUDES(client_mutex_);
  void AddDevice(hxf_client_h client, hxf_service_session_h session,
                 const std::shared_ptr<IEndpointHelper>& endpoint) override
      HXF_EXCLUDES(client_mutex_);
  void SetDiscoveredCallback(hxf_client_h client, const DiscoveredHandler_t& handler) override
      HXF_EXCLUDES(client_mutex_);
  void SetServiceNotificationCallback(hxf_client_h client,
                                      const ServiceNotificationHandler_t& handler) override
      HXF_EXCLUDES(client_mutex_);
  void StartPassiveSearch(hxf_client_h client, const std::string& name,
                          const DiscoveredHandler_t& handler) override HXF_EXCLUDES(client_mutex_);
  void StopPassiveSearch(hxf_client_h client, const std::string& name) override
      HXF_EXCLUDES(client_mutex_);
  void StartActiveSearch(hxf_client_h client, const std::string& name,
                         const DiscoveredHandler_t& handler, uint32_t timeout) override
      HXF_EXCLUDES(client_mutex_);
  void GetDeviceList(hxf_client_h client, const std::string& name,
                     const DeviceListDiscoveredHandler_t& handler, uint32_t timeout) override
      HXF_EXCLUDES(client_mutex_);
  void StopActiveSearch(hxf_client_h client, const std::string& name) override
      HXF_EXCLUDES(client_mutex_);
  void* SubscribeService(hxf_client_h client, const std::string& name,
                         const ServiceNotificationHandler_t& handler) override
      HXF_EXCLUDES(client_mutex_);
  void GetServiceProperty(hxf_client_h client, const std::string& name,
                          const std::shared_ptr<IPropertyListHelper>& list,
                          const GetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override HXF_EXCLUDES(client_mutex_);
  void RequestService(hxf_client_h client, hxf_service_session_h session,
                      const std::shared_ptr<IPropertyListHelper>& list,
                      const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                      void** transaction) override HXF_EXCLUDES(client_mutex_);
  void DestroyClient(hxf_client_h client) override HXF_EXCLUDES(client_mutex_);
  void DestroyClientAsync(hxf_client_h client, const ClientDestroyedHandler_t& destroyed) override
      HXF_EXCLUDES(client_mutex_);
  void SetDeviceListDiscoveredCallback(hxf_client_h client, const std::string& name,
                                       const DeviceListDiscoveredHandler_t& handler) override
      HXF_EXCLUDES(client_mutex_);

 private:
  std::shared_ptr<IClient> _FindClient(hxf_client_h client) const
      HXF_REQUIRES_SHARED(client_mutex_);
  std::shared_ptr<IClient> _CreateClient(const std::string& name) HXF_REQUIRES(client_mutex_);
  std::shared_ptr<IClient> _ReleaseClient(hxf_client_h client) HXF_REQUIRES(client_mutex_);
  // Takes the read lock itself and returns with it released: the client is then called
  // outside the lock, since a call may run its queued jobs and callbacks on this thread.
  std::shared_ptr<IClient> _LookupClient(hxf_client_h client) const HXF_EXCLUDES(client_mutex_);
  // Checks the handle and the name, then forwards to the found client.
  template <typename Forward>
  void _ForwardNamed(hxf_client_h client, const std::string& name, Forward&& forward)
      HXF_EXCLUDES(client_mutex_);

  // Guards client_map_ and is held only for its operations, for creating and starting a new
  // client, and by Finalize: a client is called after the lock is released, so that jobs
  // and callbacks it runs on this thread may use the API freely.
  mutable CSharedMutex client_mutex_;
  std::unordered_map<hxf_client_h, std::shared_ptr<IClient>> client_map_
      HXF_GUARDED_BY(client_mutex_);
};

}  // namespace HXFramework::Core
