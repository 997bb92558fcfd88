#include "CClient.h"

#include <functional>

#include "CHandleQuarantine.h"
#include "CommonText.h"
#include "HXCALLTRACE_OBJ.h"
#include "IEndpointHelper.h"
#include "IEndpointListHelper.h"
#include "IPropertyListHelper.h"
#include "IServiceMgr.h"
#include "IServiceSession.h"
#include "ITransaction.h"
#include "ITransactionResult.h"
#include "JobFrame.h"
#include "TPLInvokers.h"

namespace HXFramework::Core {

using std::placeholders::_1;
using TPL::Direct;
using TPL::Pool;

namespace {
IServiceMgr* Services() {
  return IServiceMgr::GetInstance();
}
}  // namespace

std::shared_ptr<IClient> IClient::Create(const std::string& name) {
  auto client = CHandleQuarantine<CClient>::Make(name);
  client->weak_this_ = client;
  return client;
}

CClient::CClient(const std::string& name) : name_(name) {
  service_session_map_.max_load_factor(1.0f);
}

CClient::~CClient() {
  HXLOG(DLOG_INFO, "client destroyed: %s[%p]\n", name_.c_str(), static_cast<void*>(this));
  _ReleaseAll();  // sessions left only if the client was never terminated
  if (!searched_) return;
  // Services this client searched and nobody else needs may go now that it has. On a pool
  // thread: this may run under the service registry's lock (a service terminating).
  try {
    TPL::Pool().Invoke([] { Services()->ReleaseIdleServices(); });
  } catch (const std::exception& e) {
    HXLOG(DLOG_ERROR, "Exception !! - %s\n", e.what());
  }
}

void CClient::Init() {
  HXF_CALLTRACE_OBJ(this);
  Initiate(Direct());
}

std::unordered_map<hxf_service_session_h, std::shared_ptr<IServiceSession>>
CClient::_TakeSessions() {
  std::unordered_map<hxf_service_session_h, std::shared_ptr<IServiceSession>> sessions;
  CMutexLock lock(sessions_mutex_);
  sessions.swap(service_session_map_);
  return sessions;
}

// Only where no job of the client can run: its termination hook, its destructor.
void CClient::_ReleaseAll() {
  discovered_cb_ = nullptr;
  device_list_cb_ = nullptr;
  for (auto& [handle, session] : _TakeSessions()) {
    if (session != nullptr) session->Terminate();
  }
}

void CClient::Termi() {
  HXF_CALLTRACE_OBJ(this);
  const bool terminated_here = TerminateSync(Direct());
  HXLOG(DLOG_INFO, "TPL termiate result : %d\n", terminated_here ? 1 : 0);
  // Whatever the result, the sessions end now: no notification reaches the client after
  // its destroy has returned, even while one of its jobs still runs on another thread.
  auto sessions = _TakeSessions();
  HXLOG(DLOG_INFO, "client_name: %s, service_session_map size(): %zu\n", name_.c_str(),
        sessions.size());
  for (auto& [handle, session] : sessions) {
    if (session != nullptr) session->Terminate();
  }
  // The handlers are emptied only where no job runs: a running job may be calling one, and
  // then they go with the object when that job lets go of it.
  if (terminated_here) {
    discovered_cb_ = nullptr;
    device_list_cb_ = nullptr;
  }
}

void CClient::TermiAsync(const ClientDestroyedHandler_t& destroyed) {
  HXF_CALLTRACE_OBJ(this);
  InvokeTask(std::bind(&CClient::_TermiAsync, _1, destroyed), Pool());
  Terminate(Pool());  // queued behind the task, so the hook is installed first
}

std::shared_ptr<IClient> CClient::_Self() {
  return std::shared_ptr<IClient>(weak_this_);
}

template <typename Body>
void CClient::_Run(const CLogSite& site, Body&& body) {
  // Every task logs its own failure; nothing reaches the caller, who has returned.
  RunLogged(site, OnException::kSwallow, std::forward<Body>(body));
}

// ---- posting: the invoker of each operation is fixed ----

void CClient::SubscribeService(const std::shared_ptr<IServiceSession>& s) {
  InvokeTask(std::bind(&CClient::_SubscribeService, _1, s), Direct());
}
void CClient::SendRequestResult(const std::shared_ptr<IServiceSession>& s, const std::string& n,
                                const std::shared_ptr<ITransaction>& t,
                                const std::shared_ptr<ITransactionResult>& r) {
  InvokeTask(std::bind(&CClient::_SendRequestResult, _1, s, n, t, r), Direct());
}
void CClient::DeviceListDiscovered(const std::string& n, hxf_endpoint_discovery_result_e r,
                                   std::shared_ptr<IEndpointListHelper> l) {
  InvokeTask(std::bind(&CClient::_DeviceListDiscovered, _1, n, r, l), Direct());
}
void CClient::SetDeviceListDiscoveredCallback(const std::string& n,
                                              const DeviceListDiscoveredHandler_t& h) {
  InvokeTask(std::bind(&CClient::_SetDeviceListDiscoveredCallback, _1, n, h), Direct());
}
// A single endpoint goes through the pool, a list and a result directly: kept on purpose.
void CClient::Discovered(const std::string& n, hxf_endpoint_discovery_result_e r,
                         const std::shared_ptr<IEndpointHelper>& e) {
  InvokeTask(std::bind(&CClient::_Discovered, _1, n, r, e), Pool());
}
void CClient::AddDevice(hxf_service_session_h s, const std::shared_ptr<IEndpointHelper>& e) {
  InvokeTask(std::bind(&CClient::_AddDevice, _1, s, e), Pool());
}
void CClient::SetDiscoveredCallback(const DiscoveredHandler_t& h) {
  InvokeTask(std::bind(&CClient::_SetDiscoveredCallback, _1, h), Pool());
}
void CClient::SetServiceNotificationCallback(const ServiceNotificationHandler_t& h) {
  InvokeTask(std::bind(&CClient::_SetServiceNotificationCallback, _1, h), Pool());
}
void CClient::StartPassiveSearch(const std::string& n, const DiscoveredHandler_t& h) {
  InvokeTask(std::bind(&CClient::_StartPassiveSearch, _1, n, h), Pool());
}
void CClient::StopPassiveSearch(const std::string& n) {
  InvokeTask(std::bind(&CClient::_StopPassiveSearch, _1, n), Pool());
}
void CClient::StartActiveSearch(const std::string& n, const DiscoveredHandler_t& h, uint32_t t) {
  InvokeTask(std::bind(&CClient::_StartActiveSearch, _1, n, h, t), Pool());
}
void CClient::StopActiveSearch(const std::string& n) {
  InvokeTask(std::bind(&CClient::_StopActiveSearch, _1, n), Pool());
}
void CClient::GetDeviceList(const std::string& n, const DeviceListDiscoveredHandler_t& h,
                            uint32_t t) {
  InvokeTask(std::bind(&CClient::_GetDeviceList, _1, n, h, t), Pool());
}
void CClient::HandleSearchingTimerExpired(const std::string& n) {
  InvokeTask(std::bind(&CClient::_HandleSearchingTimerExpired, _1, n), Pool());
}
void CClient::HandleListSearchingTimerExpired(const std::string& n) {
  InvokeTask(std::bind(&CClient::_HandleListSearchingTimerExpired, _1, n), Pool());
}
void CClient::RequestService(hxf_service_session_h s, const std::shared_ptr<IPropertyListHelper>& l,
                             const SetServicePropertyResultHandler_t& h, uint32_t t,
                             const std::shared_ptr<ITransaction>& tr) {
  InvokeTask(std::bind(&CClient::_RequestService, _1, s, l, h, t, tr), Pool());
}
void CClient::GetServiceProperty(const std::string& n,
                                 const std::shared_ptr<IPropertyListHelper>& l,
                                 const GetServicePropertyResultHandler_t& h, uint32_t t) {
  InvokeTask(std::bind(&CClient::_GetServiceProperty, _1, n, l, h, t), Pool());
}

// ---- the work, on the context ----

std::shared_ptr<IServiceSession> CClient::_FindServiceSession(hxf_service_session_h session) const {
  std::shared_ptr<IServiceSession> found;
  bool present = false;
  {
    CMutexLock lock(sessions_mutex_);
    auto entry = service_session_map_.find(session);
    present = entry != service_session_map_.end();
    if (present) found = entry->second;
  }
  if (!present) throw CException("session not found in map!!", HXF_ERROR_OPERATION_FAILED);
  if (found == nullptr) throw CException("session is null!!", HXF_ERROR_OPERATION_FAILED);
  return found;
}

void CClient::_SetDiscoveredCallback(const DiscoveredHandler_t& handler) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  discovered_cb_ = handler;
}

// Accepted and dropped: notifications go to the handler given at subscription. Kept so.
void CClient::_SetServiceNotificationCallback(const ServiceNotificationHandler_t&) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
}

void CClient::_SetDeviceListDiscoveredCallback(const std::string& name,
                                               const DeviceListDiscoveredHandler_t& handler) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    device_list_cb_ = handler;
    searched_ = true;
    Services()->SetSearchClient(name, _Self());
  });
}

void CClient::_StartPassiveSearch(const std::string& name, const DiscoveredHandler_t& handler) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    discovered_cb_ = handler;  // one slot: the last search's handler hears every service
    searched_ = true;
    Services()->StartPassiveSearch(name, _Self());
  });
}

void CClient::_StopPassiveSearch(const std::string& name) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] { Services()->StopPassiveSearch(name, GetHandle()); });
}

void CClient::_StartActiveSearch(const std::string& name, const DiscoveredHandler_t& handler,
                                 uint32_t timeout) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    discovered_cb_ = handler;
    searched_ = true;
    Services()->StartActiveSearch(name, _Self(), timeout);
  });
}

void CClient::_StopActiveSearch(const std::string& name) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] { Services()->StopActiveSearch(name, GetHandle()); });
}

void CClient::_GetDeviceList(const std::string& name, const DeviceListDiscoveredHandler_t& handler,
                             uint32_t timeout) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    device_list_cb_ = handler;
    searched_ = true;
    Services()->GetDeviceList(name, _Self(), timeout);
  });
}

void CClient::_GetServiceProperty(const std::string& name,
                                  const std::shared_ptr<IPropertyListHelper>& list,
                                  const GetServicePropertyResultHandler_t& handler,
                                  uint32_t timeout) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] { Services()->GetServiceProperty(name, list, handler, timeout); });
}

void CClient::_Discovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                          const std::shared_ptr<IEndpointHelper>& endpoint) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    HXLOG(DLOG_INFO, "a device discovered for %s\n", name.c_str());
    if (!discovered_cb_) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    discovered_cb_(GetHandle(), AsCommonString(name), result, endpoint->GetHandle());
  });
}

void CClient::_DeviceListDiscovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                                    const std::shared_ptr<IEndpointListHelper>& list) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    HXLOG(DLOG_INFO, "a device list discovered for %s\n", name.c_str());
    if (!device_list_cb_) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    device_list_cb_(GetHandle(), AsCommonString(name), result, list->GetHandle());
  });
}

// A timed search ends with result 2 and no endpoint; the timers are the service's.
void CClient::_HandleSearchingTimerExpired(const std::string& name) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    if (!discovered_cb_) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    discovered_cb_(GetHandle(), AsCommonString(name), HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT, nullptr);
  });
}

void CClient::_HandleListSearchingTimerExpired(const std::string& name) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    if (!device_list_cb_) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    device_list_cb_(GetHandle(), AsCommonString(name), HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT, nullptr);
  });
}

void CClient::_SubscribeService(const std::shared_ptr<IServiceSession>& session) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    {
      CMutexLock lock(sessions_mutex_);
      service_session_map_[session->GetHandle()] = session;
    }
    HXLOG(DLOG_ERROR, "service_session added for %s. service_session: %p\n",
          session->GetServiceName().c_str(), session->GetHandle());
  });
}

void CClient::_RequestService(hxf_service_session_h session,
                              const std::shared_ptr<IPropertyListHelper>& list,
                              const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                              const std::shared_ptr<ITransaction>& transaction) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE,
       [&] { _FindServiceSession(session)->RequestService(list, handler, timeout, transaction); });
}

void CClient::_AddDevice(hxf_service_session_h session,
                         const std::shared_ptr<IEndpointHelper>& endpoint) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] { _FindServiceSession(session)->AddDevice(endpoint); });
}

void CClient::_SendRequestResult(const std::shared_ptr<IServiceSession>& session,
                                 const std::string& /*name*/,
                                 const std::shared_ptr<ITransaction>& transaction,
                                 const std::shared_ptr<ITransactionResult>& result) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _Run(HXF_LOG_SITE, [&] {
    hxf_error_e error = HXF_ERROR_OPERATION_FAILED;
    void* property_list = nullptr;
    if (result != nullptr) {
      error = result->GetErrorCode();
      if (std::shared_ptr<IPropertyListHelper> list = result->GetPropertyList())
        property_list = list->GetHandle();
    }
    const hxf_transaction_h transaction_h = transaction->GetHandle();
    const SetServicePropertyResultHandler_t handler = transaction->GetResultHandler();
    const hxf_service_session_h session_h = session != nullptr ? session->GetHandle() : nullptr;
    HXLOG(DLOG_INFO,
          "error(%d), result(%p), property_list_h(%p) service_session(%p), transaction_h(%p)\n",
          static_cast<int>(error), static_cast<void*>(result.get()), property_list, session_h,
          transaction_h);
    if (!handler) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    if (error == HXF_ERROR_TIMED_OUT) {
      HXLOG(DLOG_INFO, "pelnor YES timeout result\n");
      handler(GetHandle(), session_h, property_list, transaction_h, HXF_ERROR_TIMED_OUT);
    } else {
      HXLOG(DLOG_INFO, "pelnor not timeout result\n");
      handler(GetHandle(), session_h, property_list, transaction_h, error);
    }
  });
}

void CClient::_TermiAsync(const ClientDestroyedHandler_t& destroyed) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  if (!destroyed) {
    HXLOG(DLOG_ERROR, "callback is nullptr!\n");
    return;
  }
  // Runs when the context terminates, after every earlier task of this client. Deliberately
  // the sessions are released here, in the context's own order, rather than by TermiAsync's
  // caller: no task of the client can be using them any more.
  _SetTerminateHandler([destroyed](const std::shared_ptr<CClient>& self) {
    self->_ReleaseAll();
    destroyed(self->GetHandle());
  });
}

}  // namespace HXFramework::Core
