#include "CServiceHandler.h"

#include <algorithm>
#include <functional>
#include <iterator>

#include "CHandleQuarantine.h"
#include "CWeakRegistry.h"
#include "CommonText.h"
#include "HXCALLTRACE_OBJ.h"
#include "IEndpointHelper.h"
#include "IPropertyListHelper.h"
#include "IServiceSession.h"
#include "ITransaction.h"
#include "ITransactionResult.h"
#include "JobFrame.h"
#include "TPLInvokers.h"

namespace HXFramework::Core {

using std::placeholders::_1;
using TPL::Direct;
using TPL::Pool;

std::shared_ptr<IServiceHandler> IServiceHandler::Create(const std::string& name,
                                                         void* /*user_data*/) {
  // The plugin's user data is deliberately not kept: each callback carries its own.
  auto handler = CHandleQuarantine<CServiceHandler>::Make(name);
  handler->weak_this_ = handler;
  return handler;
}

CServiceHandler::CServiceHandler(const std::string& handler_name) : name(handler_name) {
  service_session_map_.max_load_factor(1.0f);
}

CServiceHandler::~CServiceHandler() {
  HXLOG(DLOG_INFO, "service_handler destroyed: %s\n", name.c_str());
}

hxf_service_handler_h CServiceHandler::GetHandle() const {
  return const_cast<CServiceHandler*>(this);
}

void CServiceHandler::Init() {
  HXF_CALLTRACE_OBJ(this);
  Initiate(Direct());
}

void CServiceHandler::Termi() {
  HXF_CALLTRACE_OBJ(this);
  TerminateSync(Direct());
}

void CServiceHandler::TermiAsync(const ServiceHandlerDestroyedHandler_t& destroyed) {
  HXF_CALLTRACE_OBJ(this);
  InvokeTask(std::bind(&CServiceHandler::_TermiAsync, _1, destroyed), Direct());
  Terminate(Pool());
}

// ---- posting: the invoker of each operation is fixed ----

void CServiceHandler::SetSearchCallback(const SearchHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetSearchCallback, _1, h), Pool());
}
void CServiceHandler::SetSearchStopCallback(const SearchStopHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetSearchStopCallback, _1, h), Pool());
}
void CServiceHandler::SetGetDeviceListCallback(const GetDeviceListHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetGetDeviceListCallback, _1, h), Pool());
}
void CServiceHandler::SetListenCallback(const ListenHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetListenCallback, _1, h), Pool());
}
void CServiceHandler::SetListenStopCallback(const ListenStopHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetListenStopCallback, _1, h), Pool());
}
void CServiceHandler::SetAddDeviceCallback(const AddDeviceHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetAddDeviceCallback, _1, h), Pool());
}
void CServiceHandler::SetServiceSessionCreatedCallback(const ServiceSessionCreatedHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetServiceSessionCreatedCallback, _1, h), Pool());
}
// Alone among the setters on the direct invoker: a request may follow at once.
void CServiceHandler::SetRequestServiceCallback(const SetServicePropertyHandler_t& h) {
  InvokeTask(std::bind(&CServiceHandler::_SetRequestServiceCallback, _1, h), Direct());
}

void CServiceHandler::StartActiveSearch(const std::string& n) {
  InvokeTask(std::bind(&CServiceHandler::_StartActiveSearch, _1, n), Pool());
}
void CServiceHandler::StopActiveSearch(const std::string& n) {
  InvokeTask(std::bind(&CServiceHandler::_StopActiveSearch, _1, n), Pool());
}
void CServiceHandler::GetDeviceList(const std::string& n) {
  InvokeTask(std::bind(&CServiceHandler::_GetDeviceList, _1, n), Pool());
}
void CServiceHandler::StartPassiveSearch(const std::string& n) {
  InvokeTask(std::bind(&CServiceHandler::_StartPassiveSearch, _1, n), Pool());
}
void CServiceHandler::StopPassiveSearch(const std::string& n) {
  InvokeTask(std::bind(&CServiceHandler::_StopPassiveSearch, _1, n), Pool());
}

void CServiceHandler::AddDevice(hxf_service_session_h session,
                                const std::shared_ptr<IEndpointHelper>& endpoint) {
  InvokeTask(std::bind(&CServiceHandler::_AddDevice, _1, session, endpoint), Direct());
}

void CServiceHandler::RequestService(const std::shared_ptr<ITransaction>& transaction,
                                     const std::shared_ptr<IPropertyListHelper>& list) {
  InvokeTask(std::bind(&CServiceHandler::_RequestService, _1, transaction, list), Direct());
}

void CServiceHandler::ServiceSessionCreated(const std::shared_ptr<IServiceSession>& session) {
  InvokeTask(std::bind(&CServiceHandler::_ServiceSessionCreated, _1, session), Direct());
}

void CServiceHandler::SendRequestResult(const std::string& service_name,
                                        const std::shared_ptr<IPropertyListHelper>& list,
                                        hxf_transaction_h transaction, hxf_error_e error) {
  InvokeTask(
      std::bind(&CServiceHandler::_SendRequestResult, _1, service_name, list, transaction, error),
      Pool());
}

void CServiceHandler::Notify(const std::string& service_name,
                             const std::shared_ptr<IPropertyListHelper>& list,
                             hxf_transaction_h transaction, hxf_error_e error) {
  InvokeTask(std::bind(&CServiceHandler::_Notify, _1, service_name, list, transaction, error),
             Pool());
}

// ---- the work, on the context ----

template <typename Slot>
void CServiceHandler::_SetSlot(CLogFunction hxf_log_function_, Slot& slot, const Slot& handler,
                               const char* kind) {
  slot = handler;  // the old one is destroyed here
  if (kind != nullptr) {
    HXLOG(DLOG_INFO, "%s callback has been set[%p]\n", kind, static_cast<const void*>(&handler));
  }
}

void CServiceHandler::_SetSearchCallback(const SearchHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, search_cb_, h, "search");
}
void CServiceHandler::_SetSearchStopCallback(const SearchStopHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, search_stop_cb_, h, "search stop");
}
void CServiceHandler::_SetGetDeviceListCallback(const GetDeviceListHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, get_device_list_cb_, h, "get device list");
}
void CServiceHandler::_SetListenCallback(const ListenHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, listen_cb_, h, "listen");
}
void CServiceHandler::_SetListenStopCallback(const ListenStopHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, listen_stop_cb_, h, "listen stop");
}
// The add-device setter writes no message, only its trace.
void CServiceHandler::_SetAddDeviceCallback(const AddDeviceHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, add_device_cb_, h, nullptr);
}
void CServiceHandler::_SetServiceSessionCreatedCallback(const ServiceSessionCreatedHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, service_session_created_cb_, h, "session created");
}
void CServiceHandler::_SetRequestServiceCallback(const SetServicePropertyHandler_t& h) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _SetSlot(hxf_log_function_, request_service_cb_, h, "set request service");
}

void CServiceHandler::_CallSearchSlot(CLogFunction hxf_log_function_, const SearchHandler_t& slot,
                                      const std::string& service_name) {
  // Rethrown: a failing search reaches the context that runs it.
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (!slot) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    slot(GetHandle(), AsCommonString(service_name));
  });
}

void CServiceHandler::_StartActiveSearch(const std::string& n) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _CallSearchSlot(hxf_log_function_, search_cb_, n);
}
void CServiceHandler::_StopActiveSearch(const std::string& n) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _CallSearchSlot(hxf_log_function_, search_stop_cb_, n);
}
void CServiceHandler::_GetDeviceList(const std::string& n) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _CallSearchSlot(hxf_log_function_, get_device_list_cb_, n);
}
void CServiceHandler::_StartPassiveSearch(const std::string& n) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _CallSearchSlot(hxf_log_function_, listen_cb_, n);
}
void CServiceHandler::_StopPassiveSearch(const std::string& n) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  _CallSearchSlot(hxf_log_function_, listen_stop_cb_, n);
}

void CServiceHandler::_AddDevice(hxf_service_session_h /*session*/,
                                 const std::shared_ptr<IEndpointHelper>& endpoint) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  // The session is not passed on: the plugin learns only the handler and the endpoint.
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    if (!add_device_cb_) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    add_device_cb_(GetHandle(), endpoint->GetHandle());
  });
}

void CServiceHandler::_RequestService(const std::shared_ptr<ITransaction>& transaction,
                                      const std::shared_ptr<IPropertyListHelper>& list) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    if (!request_service_cb_) {
      HXLOG(DLOG_ERROR, "callback is nullptr!\n");
      return;
    }
    request_service_cb_(GetHandle(), transaction->GetHandle(), list->GetHandle());
  });
}

void CServiceHandler::_ServiceSessionCreated(const std::shared_ptr<IServiceSession>& session) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    _SweepEndedSessions();
    // A dead session under the same (recycled) handle does not count: it is replaced.
    if (!InsertUnlessLive(service_session_map_, session->GetHandle(), session)) {
      throw CException("couldn't insert service session to service_session_map_!!",
                       HXF_ERROR_OPERATION_FAILED);
    }
    HXLOG(DLOG_ERROR, "pelnor service session map count : %zu\n", service_session_map_.size());
  });
}

void CServiceHandler::_SweepEndedSessions() {
  if (service_session_map_.size() < sweep_at_) return;
  for (auto entry = service_session_map_.begin(); entry != service_session_map_.end();) {
    entry = entry->second.expired() ? service_session_map_.erase(entry) : std::next(entry);
  }
  // Amortised: the next sweep waits until the map has doubled again.
  sweep_at_ = std::max(kFirstSweepAt, 2 * service_session_map_.size());
}

template <typename Body>
void CServiceHandler::_ForEachLiveSession(CLogFunction hxf_log_function_, Body&& body) {
  HXLOG(DLOG_ERROR, "pelnor service session map count : %zu\n", service_session_map_.size());
  for (auto entry = service_session_map_.begin(); entry != service_session_map_.end();) {
    std::shared_ptr<IServiceSession> session = entry->second.lock();
    if (session == nullptr) {
      HXLOG(DLOG_ERROR, "IServiceSession expired!\n");
      // Erased rather than kept: ended sessions would slow every later result for good.
      entry = service_session_map_.erase(entry);
      continue;
    }
    // A session on its way out (refusing the call) costs the ones after it nothing.
    RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] { body(session); });
    ++entry;
  }
}

void CServiceHandler::_SendRequestResult(const std::string& service_name,
                                         const std::shared_ptr<IPropertyListHelper>& list,
                                         hxf_transaction_h transaction, hxf_error_e error) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXLOG(DLOG_ERROR, "pelnor debug3\n");
  HXF_CALLTRACE_OBJ(this);
  // Offered to every live session: only the one holding the transaction takes it.
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    _ForEachLiveSession(hxf_log_function_, [&](const std::shared_ptr<IServiceSession>& session) {
      session->SendRequestResult(service_name, transaction,
                                 ITransactionResult::Create(list, error));
    });
  });
}

void CServiceHandler::_Notify(const std::string& service_name,
                              const std::shared_ptr<IPropertyListHelper>& list,
                              hxf_transaction_h transaction, hxf_error_e error) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    const std::string list_name = list != nullptr ? list->GetName() : std::string();
    _ForEachLiveSession(hxf_log_function_, [&](const std::shared_ptr<IServiceSession>& session) {
      HXLOG(DLOG_INFO, "service_name: %s, service_session: %p, service property name: %s\n",
            service_name.c_str(), session->GetHandle(), list_name.c_str());
      session->Notify(service_name, transaction, ITransactionResult::Create(list, error));
    });
  });
}

void CServiceHandler::_TermiAsync(const ServiceHandlerDestroyedHandler_t& destroyed) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  if (!destroyed) {
    HXLOG(DLOG_ERROR, "callback is nullptr!\n");
    return;
  }
  // Runs when the context terminates, after every earlier task of this handler.
  _SetTerminateHandler(
      [destroyed](const std::shared_ptr<CServiceHandler>& self) { destroyed(self->GetHandle()); });
}

}  // namespace HXFramework::Core
