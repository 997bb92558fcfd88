#include "CService.h"

#include <functional>
#include <typeinfo>

#include "CWeakRegistry.h"
#include "HXCALLTRACE_OBJ.h"
#include "IClient.h"
#include "IServiceHandler.h"
#include "IServiceMgr.h"
#include "JobFrame.h"
#include "TPLInvokers.h"

namespace HXFramework::Core {

using std::placeholders::_1;
using TPL::Direct;
using TPL::Pool;

std::shared_ptr<IService> IService::Create(const std::string& name) {
  auto service = std::make_shared<CService>(name);
  service->weak_this_ = service;
  return service;
}

CService::CService(const std::string& service_name)
    : name(service_name), timer_(TPL::ITimer::Create(typeid(CService*).name())) {
  passive_client_map_.max_load_factor(1.0f);
  search_client_map_.max_load_factor(1.0f);
  handler_map_.max_load_factor(1.0f);
}

CService::~CService() {
  _StopSearchTimer();
  _StopListSearchTimer();
  HXLOG(DLOG_INFO, "service destroyed : %s\n", name.c_str());
}

void CService::Init() {
  HXF_CALLTRACE_OBJ(this);
  Initiate(Direct());
}

void CService::Termi() {
  HXF_CALLTRACE_OBJ(this);
  _StopSearchTimer();
  _StopListSearchTimer();
  const bool result = TerminateSync(Direct());
  HXLOG(DLOG_INFO, "TPL terminate result : %d\n", result ? 1 : 0);
}

std::shared_ptr<IServiceHandler> CService::GetServiceHandler() {
  HXF_CALLTRACE_OBJ(this);
  return _GetServiceHandler();  // on the caller's thread, under the handler lock
}

// ---- posting: the invoker of each operation is fixed ----

void CService::Subscribe(const std::shared_ptr<IServiceHandler>& h) {
  InvokeTask(std::bind(&CService::_Subscribe, _1, h), Direct());
}
void CService::Unsubscribe(hxf_service_handler_h h) {
  InvokeTask(std::bind(&CService::_Unsubscribe, _1, h), Direct());
}
void CService::SetSearchClient(const std::shared_ptr<IClient>& c) {
  InvokeTask(std::bind(&CService::_SetSearchClient, _1, c), Direct());
}
void CService::HandleSearchingTimerExpired(hxf_client_h c) {
  InvokeTask(std::bind(&CService::_HandleSearchingTimerExpired, _1, c), Direct());
}
void CService::HandleListSearchingTimerExpired(hxf_client_h c) {
  InvokeTask(std::bind(&CService::_HandleListSearchingTimerExpired, _1, c), Direct());
}
void CService::GetServiceProperty(const std::shared_ptr<IPropertyListHelper>& l,
                                  const GetServicePropertyResultHandler_t& h, uint32_t t) {
  InvokeTask(std::bind(&CService::_GetServiceProperty, _1, l, h, t), Direct());
}
void CService::SetServiceProperty(const std::shared_ptr<IPropertyListHelper>& l,
                                  const SetServicePropertyResultHandler_t& h, uint32_t t) {
  InvokeTask(std::bind(&CService::_SetServiceProperty, _1, l, h, t), Direct());
}
void CService::StartActiveSearch(const std::shared_ptr<IClient>& c, uint32_t t) {
  InvokeTask(std::bind(&CService::_StartActiveSearch, _1, c, t), Pool());
}
void CService::StopActiveSearch(hxf_client_h c) {
  InvokeTask(std::bind(&CService::_StopActiveSearch, _1, c), Pool());
}
void CService::GetDeviceList(const std::shared_ptr<IClient>& c, uint32_t t) {
  InvokeTask(std::bind(&CService::_GetDeviceList, _1, c, t), Pool());
}
void CService::StartPassiveSearch(const std::shared_ptr<IClient>& c) {
  InvokeTask(std::bind(&CService::_StartPassiveSearch, _1, c), Pool());
}
void CService::StopPassiveSearch(hxf_client_h c) {
  InvokeTask(std::bind(&CService::_StopPassiveSearch, _1, c), Pool());
}
void CService::Discovered(hxf_service_handler_h h, const std::shared_ptr<IEndpointHelper>& e) {
  InvokeTask(std::bind(&CService::_Discovered, _1, h, e), Pool());
}
void CService::DeviceListDiscovered(hxf_service_handler_h h,
                                    const std::shared_ptr<IEndpointListHelper>& l) {
  InvokeTask(std::bind(&CService::_DeviceListDiscovered, _1, h, l), Pool());
}
void CService::ReleaseIfIdle() {
  InvokeTask(std::bind(&CService::_ReleaseIfIdle, _1), Pool());
}

// ---- helpers (context) ----

void CService::_InsertClientIfNotExist(ClientMap& map, const std::shared_ptr<IClient>& client) {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    // A dead client under the same (recycled) handle does not count.
    if (!InsertUnlessLive(map, client->GetHandle(), client)) {
      HXLOG(DLOG_INFO, "this client is already exist.\n");
    }
  });
}

void CService::_RemoveClient(ClientMap& map, hxf_client_h client) {
  HXF_CALLTRACE_OBJ(this);
  map.erase(client);  // absence is no error
  HXLOG(DLOG_INFO, "client[%p] deleted from client map in CService[%s]\n", client, name.c_str());
}

void CService::_ForEachClient(const std::function<void(const std::shared_ptr<IClient>&)>& operation,
                              ClientMap& map) {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    HXLOG(DLOG_INFO, "service name:[%s], map size:[%zu]\n", name.c_str(), map.size());
    ForEachLive(HXF_LOG_SITE, map, operation, [] {});  // dead entries are skipped and stay
  });
}

void CService::_ForEachServiceHandler(
    const std::function<void(const std::shared_ptr<IServiceHandler>&)>& operation) {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    // Handlers only post to their own contexts here, so holding the read lock is brief.
    CReadLock lock(handler_lock_);
    ForEachLive(HXF_LOG_SITE, handler_map_, operation, [] {});
  });
}

std::shared_ptr<IClient> CService::_FindSearchingClient(hxf_client_h client) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IClient> found;
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    auto entry = search_client_map_.find(client);
    if (entry == search_client_map_.end()) {
      throw CException("client not found in search_client_map_!!", HXF_ERROR_INVALID_CLIENT);
    }
    found = entry->second.lock();
    if (found == nullptr) throw CException("sp_client expired!!", HXF_ERROR_INVALID_CLIENT);
  });
  return found;
}

void CService::_StartSearchTimer(hxf_client_h client, uint32_t timeout) {
  // The previous id is overwritten, not stopped: with two clients searching, the first
  // client's timer still fires. Deliberate.
  search_timer_id_ = timer_->Start(_GetSearchTimerHandler(client), timeout);
}

void CService::_StartListSearchTimer(hxf_client_h client, uint32_t timeout) {
  list_search_timer_id_ = timer_->Start(_GetListSearchTimerHandler(client), timeout);
}

void CService::_StopSearchTimer() {
  const uint32_t id = search_timer_id_.exchange(0);
  if (id != 0) timer_->Stop(id);
}

void CService::_StopListSearchTimer() {
  const uint32_t id = list_search_timer_id_.exchange(0);
  if (id != 0) timer_->Stop(id);
}

std::function<void()> CService::_GetSearchTimerHandler(hxf_client_h client) {
  HXF_LOG_AS_OPERATION();  // the timer's lines name the operation that armed it
  // Holds the service alive until the timer drops the handler.
  std::shared_ptr<CService> self(weak_this_);
  return [self, client] {
    RunLogged(HXF_LOG_SITE, OnException::kSwallow,
              [&] { self->HandleSearchingTimerExpired(client); });
  };
}

std::function<void()> CService::_GetListSearchTimerHandler(hxf_client_h client) {
  HXF_LOG_AS_OPERATION();
  std::shared_ptr<CService> self(weak_this_);
  return [self, client] {
    RunLogged(HXF_LOG_SITE, OnException::kSwallow,
              [&] { self->HandleListSearchingTimerExpired(client); });
  };
}

// ---- operations (context) ----

void CService::_StartActiveSearch(const std::shared_ptr<IClient>& client, uint32_t timeout) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->StartActiveSearch(name, client, timeout);
    _StartSearchTimer(client->GetHandle(), timeout);
    _InsertClientIfNotExist(search_client_map_, client);
    _ForEachServiceHandler(
        [this](const std::shared_ptr<IServiceHandler>& h) { h->StartActiveSearch(name); });
  });
}

void CService::_GetDeviceList(const std::shared_ptr<IClient>& client, uint32_t timeout) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->GetDeviceList(name, client, timeout);
    _StartListSearchTimer(client->GetHandle(), timeout);
    _InsertClientIfNotExist(search_client_map_, client);
    _ForEachServiceHandler(
        [this](const std::shared_ptr<IServiceHandler>& h) { h->GetDeviceList(name); });
  });
}

void CService::_StartPassiveSearch(const std::shared_ptr<IClient>& client) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->StartPassiveSearch(name, client);
    _InsertClientIfNotExist(passive_client_map_, client);
    _ForEachServiceHandler(
        [this](const std::shared_ptr<IServiceHandler>& h) { h->StartPassiveSearch(name); });
  });
}

void CService::_StopActiveSearch(hxf_client_h client) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->StopActiveSearch(name, client);
    _StopSearchTimer();  // whichever client started it
    _RemoveClient(search_client_map_, client);
    // Every handler is told, even if other clients still search.
    _ForEachServiceHandler(
        [this](const std::shared_ptr<IServiceHandler>& h) { h->StopActiveSearch(name); });
    _ReleaseIfIdle();
  });
}

void CService::_StopPassiveSearch(hxf_client_h client) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->StopPassiveSearch(name, client);
    _RemoveClient(passive_client_map_, client);
    _ForEachServiceHandler(
        [this](const std::shared_ptr<IServiceHandler>& h) { h->StopPassiveSearch(name); });
    _ReleaseIfIdle();
  });
}

void CService::_SetSearchClient(const std::shared_ptr<IClient>& client) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->SetSearchClient(name, client);
    _InsertClientIfNotExist(search_client_map_, client);
  });
}

void CService::_Discovered(hxf_service_handler_h handle,
                           const std::shared_ptr<IEndpointHelper>& endpoint) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->Discovered(handle, endpoint);
    _StopSearchTimer();  // the first device found ends the active-search time-out
    const auto tell = [&](const std::shared_ptr<IClient>& client) {
      client->Discovered(name, HXF_ENDPOINT_DISCOVERY_RESULT_FOUND, endpoint);
    };
    // A client in both maps is told twice: kept so.
    _ForEachClient(tell, passive_client_map_);
    _ForEachClient(tell, search_client_map_);
  });
}

void CService::_DeviceListDiscovered(hxf_service_handler_h handle,
                                     const std::shared_ptr<IEndpointListHelper>& list) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (released_) return IServiceMgr::GetInstance()->DeviceListDiscovered(handle, list);
    _StopListSearchTimer();
    // Only searching clients hear of lists; listeners do not.
    _ForEachClient(
        [&](const std::shared_ptr<IClient>& client) {
          client->DeviceListDiscovered(name, HXF_ENDPOINT_DISCOVERY_RESULT_FOUND, list);
        },
        search_client_map_);
  });
}

void CService::_HandleSearchingTimerExpired(hxf_client_h client) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    std::shared_ptr<IClient> found = _FindSearchingClient(client);
    _StopSearchTimer();
    found->HandleSearchingTimerExpired(name);  // the client stays in the map
  });
}

void CService::_HandleListSearchingTimerExpired(hxf_client_h client) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    std::shared_ptr<IClient> found = _FindSearchingClient(client);
    _StopListSearchTimer();
    found->HandleListSearchingTimerExpired(name);
  });
}

void CService::_Subscribe(const std::shared_ptr<IServiceHandler>& handler) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    if (handler == nullptr)
      throw CException("nullptr == service_handler!!", HXF_ERROR_INVALID_PARAMETER);
    if (released_) return IServiceMgr::GetInstance()->SubscribeService(handler->GetHandle(), name);
    {
      CWriteLock lock(handler_lock_);
      // A handler destroyed while subscribed leaves a dead entry; its successor at the same
      // address replaces it. Only a live duplicate is refused.
      if (!InsertUnlessLive(handler_map_, handler->GetHandle(), handler)) {
        throw CException("Unable to insert service_handler to service_handler_map_!!",
                         HXF_ERROR_OPERATION_FAILED);
      }
    }
    if (passive_searching_) handler->StartPassiveSearch(name);
  });
}

void CService::_Unsubscribe(hxf_service_handler_h handle) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    CWriteLock lock(handler_lock_);
    auto entry = handler_map_.find(handle);
    if (entry == handler_map_.end()) {
      throw CException("unable to find service_handler in map!", HXF_ERROR_OPERATION_FAILED);
    }
    if (passive_searching_) {
      if (std::shared_ptr<IServiceHandler> handler = entry->second.lock())
        handler->StopPassiveSearch(name);
    }
    handler_map_.erase(entry);
  });
}

std::shared_ptr<IServiceHandler> CService::_GetServiceHandler() {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IServiceHandler> handler;
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    CReadLock lock(handler_lock_);
    if (handler_map_.empty()) {
      throw CException("no service handler(weak) in map!", HXF_ERROR_OPERATION_FAILED);
    }
    handler = handler_map_.begin()->second.lock();  // with several, the map's first entry
    if (handler == nullptr)
      throw CException("service handler expired!", HXF_ERROR_OPERATION_FAILED);
  });
  return handler;
}

// Property requests addressed to a service by name are accepted and dropped: kept so.
void CService::_GetServiceProperty(const std::shared_ptr<IPropertyListHelper>&,
                                   const GetServicePropertyResultHandler_t&, uint32_t) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
}

void CService::_SetServiceProperty(const std::shared_ptr<IPropertyListHelper>&,
                                   const SetServicePropertyResultHandler_t&, uint32_t) {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
}

bool CService::_HasLiveClient(const ClientMap& map) {
  for (const auto& entry : map) {
    if (!entry.second.expired()) return true;
  }
  return false;
}

// Deliberate: a service named by searches alone would otherwise stay registered for good once
// its clients have stopped or gone, one per name ever asked for.
void CService::_ReleaseIfIdle() {
  HXF_ASSERT_ON_OWN_CONTEXT();
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [&] {
    if (released_ || _HasLiveClient(passive_client_map_) || _HasLiveClient(search_client_map_)) {
      return;
    }
    {
      CReadLock lock(handler_lock_);
      for (const auto& entry : handler_map_) {
        if (!entry.second.expired()) return;
      }
    }
    // Without the handler lock: the manager's lock comes first.
    if (!IServiceMgr::GetInstance()->ForgetIdleService(name, this)) return;
    released_ = true;
    _StopSearchTimer();
    _StopListSearchTimer();
  });
}

}  // namespace HXFramework::Core
