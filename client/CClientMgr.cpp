#include "CClientMgr.h"

#include "CException.h"
#include "HXCALLTRACE_OBJ.h"
#include "HXLog.h"
#include "IClient.h"
#include "IPropertyListHelper.h"
#include "IServiceHandler.h"
#include "IServiceMgr.h"
#include "IServiceSession.h"
#include "ITransaction.h"
#include "LeakySingleton.h"

namespace HXFramework::Core {

namespace {

// The "client handle is null" family: a null client is an invalid client.
void RequireClientAndName(hxf_client_h client, const std::string& name) {
  Require(client != nullptr, "client handle is null", HXF_ERROR_INVALID_CLIENT);
  Require(!name.empty(), "service name is empty", HXF_ERROR_INVALID_SERVICE_NAME);
}

}  // namespace

IClientMgr* IClientMgr::GetInstance() {
  return &LeakySingleton<CClientMgr>();
}

CClientMgr::CClientMgr() {
  client_map_.max_load_factor(1.0f);
}

// ---- helpers ----

std::shared_ptr<IClient> CClientMgr::_FindClient(hxf_client_h client) const {
  auto found = client_map_.find(client);
  Require(found != client_map_.end(), "client not found in client_map_!!",
          HXF_ERROR_INVALID_HANDLE);
  return found->second;
}

std::shared_ptr<IClient> CClientMgr::_CreateClient(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IClient> client = IClient::Create(name);
  auto inserted = client_map_.emplace(client->GetHandle(), client);
  Require(inserted.second, "Unable to insert client to client_map_!!", HXF_ERROR_CREATE_FAILED);
  HXLOG(DLOG_INFO,
        " [%s] client has been created & inserted into client_map_ : [%p], ref_count:[%ld]\n",
        name.c_str(), client->GetHandle(), inserted.first->second.use_count());
  return client;
}

std::shared_ptr<IClient> CClientMgr::_ReleaseClient(hxf_client_h client) {
  HXF_CALLTRACE_OBJ(this);
  auto found = client_map_.find(client);
  Require(found != client_map_.end(), "client not found in client_map_!!",
          HXF_ERROR_INVALID_HANDLE);
  std::shared_ptr<IClient> released = std::move(found->second);
  client_map_.erase(found);
  HXLOG(DLOG_INFO, "client[%p] deleted from client map\n", client);
  return released;
}

template <typename Forward>
void CClientMgr::_ForwardNamed(hxf_client_h client, const std::string& name, Forward&& forward) {
  RequireClientAndName(client, name);
  forward(_LookupClient(client));
}

std::shared_ptr<IClient> CClientMgr::_LookupClient(hxf_client_h client) const {
  CReadLock guard(client_mutex_);
  return _FindClient(client);
}

// ---- lifecycle ----

void CClientMgr::Initialize() {
  HXF_CALLTRACE_OBJ(this);
}

void CClientMgr::Finalize() {
  HXF_CALLTRACE_OBJ(this);
  CWriteLock guard(client_mutex_);
  HXLOG(DLOG_INFO, "client map size: %zu\n", client_map_.size());
  for (auto& [handle, client] : client_map_) {
    HXLOG(DLOG_INFO, "client:(%s)(%p), ref_count:%ld\n", client->GetName().c_str(), handle,
          client.use_count());
    client->Termi();
  }
  client_map_.clear();
}

void* CClientMgr::CreateClient(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "client_name is empty!!", HXF_ERROR_INVALID_PARAMETER);
  CWriteLock guard(client_mutex_);
  std::shared_ptr<IClient> client = _CreateClient(name);
  client->Init();
  return client->GetHandle();
}

void CClientMgr::DestroyClient(hxf_client_h client) {
  HXF_CALLTRACE_OBJ(this);
  Require(client != nullptr, "client handle is null", HXF_ERROR_INVALID_CLIENT);
  std::shared_ptr<IClient> released;
  {
    CWriteLock guard(client_mutex_);
    released = _ReleaseClient(client);
  }
  // Deliberately outside the registry lock: the termination may run this client's queued
  // jobs (application callbacks) on this thread, and a slow one must not block other clients.
  released->Termi();
}

void CClientMgr::DestroyClientAsync(hxf_client_h client,
                                    const ClientDestroyedHandler_t& destroyed) {
  HXF_CALLTRACE_OBJ(this);
  Require(client != nullptr, "client handle is null", HXF_ERROR_INVALID_CLIENT);
  std::shared_ptr<IClient> released;
  {
    CWriteLock guard(client_mutex_);
    released = _ReleaseClient(client);
  }
  released->TermiAsync(destroyed);  // outside the lock, deliberately, as in DestroyClient
}

// ---- forwarding ----

// No null check here, on purpose: a null handle is simply not found (invalid handle).
void CClientMgr::SetDiscoveredCallback(hxf_client_h client, const DiscoveredHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  _LookupClient(client)->SetDiscoveredCallback(handler);
}

void CClientMgr::SetServiceNotificationCallback(hxf_client_h client,
                                                const ServiceNotificationHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  _LookupClient(client)->SetServiceNotificationCallback(handler);
}

void CClientMgr::SetDeviceListDiscoveredCallback(hxf_client_h client, const std::string& name,
                                                 const DeviceListDiscoveredHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  _ForwardNamed(client, name, [&](const std::shared_ptr<IClient>& c) {
    c->SetDeviceListDiscoveredCallback(name, handler);
  });
}

void CClientMgr::StartPassiveSearch(hxf_client_h client, const std::string& name,
                                    const DiscoveredHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  _ForwardNamed(client, name,
                [&](const std::shared_ptr<IClient>& c) { c->StartPassiveSearch(name, handler); });
}

void CClientMgr::StopPassiveSearch(hxf_client_h client, const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  _ForwardNamed(client, name,
                [&](const std::shared_ptr<IClient>& c) { c->StopPassiveSearch(name); });
}

void CClientMgr::StartActiveSearch(hxf_client_h client, const std::string& name,
                                   const DiscoveredHandler_t& handler, uint32_t timeout) {
  HXF_CALLTRACE_OBJ(this);
  _ForwardNamed(client, name, [&](const std::shared_ptr<IClient>& c) {
    c->StartActiveSearch(name, handler, timeout);
  });
}

void CClientMgr::StopActiveSearch(hxf_client_h client, const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  _ForwardNamed(client, name,
                [&](const std::shared_ptr<IClient>& c) { c->StopActiveSearch(name); });
}

void CClientMgr::GetDeviceList(hxf_client_h client, const std::string& name,
                               const DeviceListDiscoveredHandler_t& handler, uint32_t timeout) {
  HXF_CALLTRACE_OBJ(this);
  _ForwardNamed(client, name, [&](const std::shared_ptr<IClient>& c) {
    c->GetDeviceList(name, handler, timeout);
  });
}

// The same fault reads "invalid client handle" with an invalid-parameter code here: kept.
void CClientMgr::GetServiceProperty(hxf_client_h client, const std::string& name,
                                    const std::shared_ptr<IPropertyListHelper>& list,
                                    const GetServicePropertyResultHandler_t& handler,
                                    uint32_t timeout) {
  HXF_CALLTRACE_OBJ(this);
  Require(client != nullptr, "invalid client handle", HXF_ERROR_INVALID_PARAMETER);
  _LookupClient(client)->GetServiceProperty(name, list, handler, timeout);
}

void CClientMgr::AddDevice(hxf_client_h client, hxf_service_session_h session,
                           const std::shared_ptr<IEndpointHelper>& endpoint) {
  HXF_CALLTRACE_OBJ(this);
  Require(client != nullptr, "invalid client handle", HXF_ERROR_INVALID_PARAMETER);
  Require(session != nullptr, "invalid service_session handle", HXF_ERROR_INVALID_PARAMETER);
  Require(endpoint != nullptr, "invalid endpoint handle", HXF_ERROR_INVALID_PARAMETER);
  _LookupClient(client)->AddDevice(session, endpoint);
}

void* CClientMgr::SubscribeService(hxf_client_h client, const std::string& name,
                                   const ServiceNotificationHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  RequireClientAndName(client, name);
  HXLOG(DLOG_INFO, "SubscribeService service name: %s\n", name.c_str());
  std::shared_ptr<IClient> found = _LookupClient(client);
  std::shared_ptr<IServiceSession> session = IServiceSession::Create();
  Require(session != nullptr, "service session create failed", HXF_ERROR_OPERATION_FAILED);
  std::shared_ptr<IServiceHandler> handler_of_service =
      IServiceMgr::GetInstance()->GetServiceHandler(name);
  session->Initiate(found, name, handler_of_service, handler);
  handler_of_service->ServiceSessionCreated(session);  // the provider learns of it first
  found->SubscribeService(session);                    // the client owns it from here
  return session->GetHandle();
}

void CClientMgr::RequestService(hxf_client_h client, hxf_service_session_h session,
                                const std::shared_ptr<IPropertyListHelper>& list,
                                const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                                void** transaction_out) {
  HXF_CALLTRACE_OBJ(this);
  Require(client != nullptr, "invalid client handle", HXF_ERROR_INVALID_PARAMETER);
  Require(session != nullptr, "invalid service session handle", HXF_ERROR_INVALID_PARAMETER);
  std::shared_ptr<ITransaction> transaction = ITransaction::Create();
  // Handed out before anything is forwarded: the caller has it even if the lookup fails.
  if (transaction_out != nullptr) *transaction_out = transaction->GetHandle();
  const std::string list_name = list != nullptr ? list->GetName() : std::string();  // once
  HXLOG(DLOG_INFO, "service_session: %p, service property name : %s\n", session, list_name.c_str());
  _LookupClient(client)->RequestService(session, list, handler, timeout, transaction);
}

}  // namespace HXFramework::Core
