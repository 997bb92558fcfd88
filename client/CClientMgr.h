#pragma once

#include <memory>
#include <shared_mutex>
#include <unordered_map>

#include "IClientMgr.h"

namespace HXFramework::Core {

class IClient;

class CClientMgr : public IClientMgr {
 public:
  CClientMgr();
  ~CClientMgr() override = default;

  void Initialize() override;
  void Finalize() override;
  void* CreateClient(const std::string& name) override;
  void AddDevice(hxf_client_h client, hxf_service_session_h session,
                 const std::shared_ptr<IEndpointHelper>& endpoint) override;
  void SetDiscoveredCallback(hxf_client_h client, const DiscoveredHandler_t& handler) override;
  void SetServiceNotificationCallback(hxf_client_h client,
                                      const ServiceNotificationHandler_t& handler) override;
  void StartPassiveSearch(hxf_client_h client, const std::string& name,
                          const DiscoveredHandler_t& handler) override;
  void StopPassiveSearch(hxf_client_h client, const std::string& name) override;
  void StartActiveSearch(hxf_client_h client, const std::string& name,
                         const DiscoveredHandler_t& handler, uint32_t timeout) override;
  void GetDeviceList(hxf_client_h client, const std::string& name,
                     const DeviceListDiscoveredHandler_t& handler, uint32_t timeout) override;
  void StopActiveSearch(hxf_client_h client, const std::string& name) override;
  void* SubscribeService(hxf_client_h client, const std::string& name,
                         const ServiceNotificationHandler_t& handler) override;
  void GetServiceProperty(hxf_client_h client, const std::string& name,
                          const std::shared_ptr<IPropertyListHelper>& list,
                          const GetServicePropertyResultHandler_t& handler,
                          uint32_t timeout) override;
  void RequestService(hxf_client_h client, hxf_service_session_h session,
                      const std::shared_ptr<IPropertyListHelper>& list,
                      const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                      void** transaction) override;
  void DestroyClient(hxf_client_h client) override;
  void DestroyClientAsync(hxf_client_h client, const ClientDestroyedHandler_t& destroyed) override;
  void SetDeviceListDiscoveredCallback(hxf_client_h client, const std::string& name,
                                       const DeviceListDiscoveredHandler_t& handler) override;

 private:
  // Called with client_mutex_ held.
  std::shared_ptr<IClient> _FindClient(hxf_client_h client) const;
  std::shared_ptr<IClient> _CreateClient(const std::string& name);
  std::shared_ptr<IClient> _ReleaseClient(hxf_client_h client);
  // Takes the read lock itself and returns with it released: the client is then called
  // outside the lock, since a call may run its queued jobs and callbacks on this thread.
  std::shared_ptr<IClient> _LookupClient(hxf_client_h client) const;
  // Checks the handle and the name, then forwards to the found client.
  template <typename Forward>
  void _ForwardNamed(hxf_client_h client, const std::string& name, Forward&& forward);

  // Guards client_map_ and is held only for its operations, for creating and starting a new
  // client, and by Finalize: a client is called after the lock is released, so that jobs
  // and callbacks it runs on this thread may use the API freely.
  mutable std::shared_mutex client_mutex_;
  std::unordered_map<hxf_client_h, std::shared_ptr<IClient>> client_map_;
};

}  // namespace HXFramework::Core
