#include "CServiceSession.h"

#include <functional>

#include "CHandleQuarantine.h"
#include "CommonText.h"
#include "HXCALLTRACE_OBJ.h"
#include "IClient.h"
#include "IPropertyListHelper.h"
#include "IServiceHandler.h"
#include "ITransaction.h"
#include "ITransactionResult.h"
#include "JobFrame.h"
#include "TPLInvokers.h"

namespace HXFramework::Core {

using std::placeholders::_1;
using TPL::Direct;
using TPL::Pool;

std::shared_ptr<IServiceSession> IServiceSession::Create() {
  auto session = CHandleQuarantine<CServiceSession>::Make();
  session->weak_this_ = session;
  return session;
}

CServiceSession::~CServiceSession() {
  _ForgetEverything();
  HXLOG(DLOG_INFO, "session_session destroyed: %p\n", static_cast<void*>(this));
}

void CServiceSession::Initiate(const std::shared_ptr<IClient>& client,
                               const std::string& service_name,
                               const std::shared_ptr<IServiceHandler>& handler,
                               const ServiceNotificationHandler_t& notification) {
  HXF_CALLTRACE_OBJ(this);
  client_ = client;
  service_handler_ = handler;
  service_name_ = service_name;
  _SetNotificationHandler(notification);
  // When the context ends, the outstanding transactions and the handler go, in the
  // context's own order: after the jobs queued before the end.
  _SetTerminateHandler(
      [](const std::shared_ptr<CServiceSession>& self) { self->_ForgetEverything(); });
  TPL::CContext<CServiceSession>::Initiate(Direct());
}

void CServiceSession::_SetNotificationHandler(const ServiceNotificationHandler_t& handler) {
  ServiceNotificationHandler_t old;  // destroyed outside the lock
  CMutexLock lock(notification_mutex_);
  old.swap(notification_handler_);
  notification_handler_ = handler;
}

void CServiceSession::_ForgetEverything() {
  _SetNotificationHandler(nullptr);
  // Released without a result callback; their timers are stopped so that they go now.
  for (auto& [handle, transaction] : transaction_map_) transaction->StopTimer();
  transaction_map_.clear();
}

void CServiceSession::Terminate() {
  HXF_CALLTRACE_OBJ(this);
  // The handler goes now, not when the termination job runs: that job waits behind a job
  // running on another thread, and no notification may reach a destroyed client.
  _SetNotificationHandler(nullptr);
  TPL::CContext<CServiceSession>::Terminate(Direct());
}

// ---- posting: every task through the direct invoker ----

void CServiceSession::RequestService(const std::shared_ptr<IPropertyListHelper>& l,
                                     const SetServicePropertyResultHandler_t& h, uint32_t t,
                                     const std::shared_ptr<ITransaction>& tr) {
  InvokeTask(std::bind(&CServiceSession::_RequestService, _1, l, h, t, tr), Direct());
}
void CServiceSession::SendRequestResult(const std::string& n, hxf_transaction_h t,
                                        const std::shared_ptr<ITransactionResult>& r) {
  InvokeTask(std::bind(&CServiceSession::_SendRequestResult, _1, n, t, r), Direct());
}
void CServiceSession::Notify(const std::string& n, hxf_transaction_h t,
                             const std::shared_ptr<ITransactionResult>& r) {
  InvokeTask(std::bind(&CServiceSession::_Notify, _1, n, t, r), Direct());
}
void CServiceSession::ServiceSessionCreated() {
  InvokeTask(std::bind(&CServiceSession::_ServiceSessionCreated, _1), Direct());
}
void CServiceSession::AddDevice(const std::shared_ptr<IEndpointHelper>& e) {
  InvokeTask(std::bind(&CServiceSession::_AddDevice, _1, e), Direct());
}

// ---- helpers ----

std::shared_ptr<IClient> CServiceSession::_GetClient() {
  std::shared_ptr<IClient> client = client_.lock();
  if (client == nullptr) throw CException("client expired", HXF_ERROR_OPERATION_FAILED);
  return client;
}

std::shared_ptr<IServiceHandler> CServiceSession::_GetServiceHandler() const {
  std::shared_ptr<IServiceHandler> handler = service_handler_.lock();
  if (handler == nullptr) throw CException("service handler expired", HXF_ERROR_OPERATION_FAILED);
  return handler;
}

std::shared_ptr<ITransaction> CServiceSession::_ReleaseTransaction(hxf_transaction_h transaction) {
  auto found = transaction_map_.find(transaction);
  // Not outstanding here: a result or notification is offered to every session of the
  // handler, so this is the common case, answered without the cost of an exception.
  if (found == transaction_map_.end()) return nullptr;
  std::shared_ptr<ITransaction> released = std::move(found->second);
  transaction_map_.erase(found);
  HXLOG(DLOG_INFO, "transaction[%p] deleted in transaction map\n", transaction);
  return released;
}

std::function<void(hxf_transaction_h)> CServiceSession::_GetTransactionTimeoutHandler() {
  // Weak: a pending time-out must not keep a finished session alive.
  std::weak_ptr<CServiceSession> weak = weak_this_;
  return [weak](hxf_transaction_h transaction) {
    std::shared_ptr<CServiceSession> self = weak.lock();
    if (self == nullptr) return;
    // The time-out takes the result path, with no list: first come, first served.
    self->SendRequestResult(self->service_name_, transaction,
                            ITransactionResult::Create(nullptr, HXF_ERROR_TIMED_OUT));
  };
}

// ---- the work, on the context ----

void CServiceSession::_RequestService(const std::shared_ptr<IPropertyListHelper>& list,
                                      const SetServicePropertyResultHandler_t& handler,
                                      uint32_t timeout,
                                      const std::shared_ptr<ITransaction>& transaction) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    const std::string list_name = list->GetName();  // once: the log macro formats twice
    HXLOG(DLOG_INFO, "service property name : %s\n", list_name.c_str());
    if (!transaction_map_.emplace(transaction->GetHandle(), transaction).second) {
      throw CException("unable to insert transacio to map!", HXF_ERROR_OPERATION_FAILED);
    }
    transaction->SetHandler(handler, _GetTransactionTimeoutHandler());
    transaction->StartTimer(timeout);
    _GetServiceHandler()->RequestService(transaction, list);
  });
}

void CServiceSession::_SendRequestResult(const std::string& service_name,
                                         hxf_transaction_h transaction,
                                         const std::shared_ptr<ITransactionResult>& result) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  // A late answer after a time-out (or the reverse), another session's transaction, or a
  // client gone: not an error.
  try {
    std::shared_ptr<ITransaction> found = _ReleaseTransaction(transaction);
    if (found != nullptr) {
      found->StopTimer();
      std::shared_ptr<CServiceSession> self(weak_this_);
      _GetClient()->SendRequestResult(self, service_name, found, result);
      return;
    }
  } catch (const CException&) {
  }
  HXLOG(DLOG_INFO, "[RequestResult] transaction NOT Found. But Not Error case.\n");
}

void CServiceSession::_Notify(const std::string& /*service_name*/, hxf_transaction_h transaction,
                              const std::shared_ptr<ITransactionResult>& result) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  ServiceNotificationHandler_t handler;
  {
    CMutexLock lock(notification_mutex_);
    handler = notification_handler_;
  }
  if (!handler) {
    HXLOG(DLOG_ERROR, "callback is nullptr!\n");
    return;
  }
  // A notification naming an outstanding request completes it: no result will follow.
  if (std::shared_ptr<ITransaction> found = _ReleaseTransaction(transaction)) {
    found->StopTimer();
  } else {
    HXLOG(DLOG_INFO,
          "[Notify] transaction NOT Found. But Not Error case. keep going with null transaction\n");
  }
  std::shared_ptr<IPropertyListHelper> list =
      result != nullptr ? result->GetPropertyList() : nullptr;
  // The session's own service name, not the argument; the transaction exactly as given.
  handler(AsCommonString(service_name_), GetHandle(), list != nullptr ? list->GetHandle() : nullptr,
          transaction, result != nullptr ? result->GetErrorCode() : HXF_ERROR_OPERATION_FAILED);
}

void CServiceSession::_ServiceSessionCreated() {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    _GetServiceHandler()->ServiceSessionCreated(std::shared_ptr<CServiceSession>(weak_this_));
  });
}

void CServiceSession::_AddDevice(const std::shared_ptr<IEndpointHelper>& endpoint) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow,
            [&] { _GetServiceHandler()->AddDevice(GetHandle(), endpoint); });
}

}  // namespace HXFramework::Core
