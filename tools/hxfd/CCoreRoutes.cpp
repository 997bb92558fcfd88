#include "CCoreRoutes.h"

#include <cstdio>
#include <cstdlib>
#include "CCallers.h"
#include "CDeviceRoutes.h"
#include "CLocks.h"
#include "CSession.h"
#include "CWatch.h"

namespace hxfd {

namespace {

// The routing table the callbacks reach. A callback may still be finishing on a pool thread
// after its client was destroyed, even after hxfd stopped serving: it then finds none.
HXFramework::CMutex g_mutex;
CCoreRoutes* g_routes HXF_GUARDED_BY(g_mutex) = nullptr;

uint64_t TokenOf(void* user_data) {
  return reinterpret_cast<uint64_t>(user_data);
}

}  // namespace

int CCoreRoutes::Start(sd_event* event) {
  const int r = tasks_.Start(event);
  if (r < 0) return r;
  HXFramework::CMutexLock lock(g_mutex);
  g_routes = this;
  return 0;
}

void CCoreRoutes::Stop() {
  {
    HXFramework::CMutexLock lock(g_mutex);
    if (g_routes == this) g_routes = nullptr;
  }
  tasks_.Stop();
  targets_.clear();
}

void CCoreRoutes::AssertBusThread() const {
  if (tasks_.OnLoopThread()) return;
  std::fputs("hxfd: bus-thread code called from another thread\n", stderr);
  std::abort();
}

uint64_t CCoreRoutes::Add(Target target) {
  AssertBusThread();
  const uint64_t token = next_token_++;
  targets_.emplace(token, target);
  return token;
}

void CCoreRoutes::Remove(uint64_t token) {
  AssertBusThread();
  targets_.erase(token);
}

template <typename T>
T* CCoreRoutes::Find(uint64_t token) const {
  AssertBusThread();
  const auto found = targets_.find(token);
  if (found == targets_.end()) return nullptr;
  T* const* target = std::get_if<T*>(&found->second);
  return target != nullptr ? *target : nullptr;
}

void CCoreRoutes::Hand(std::function<void(CCoreRoutes&)> deliver) {
  // Posted under the lock: Stop clears g_routes under it before it stops the hand-off, so no
  // task is posted to a stopped (or freed) one.
  HXFramework::CMutexLock lock(g_mutex);
  if (g_routes == nullptr) return;
  CCoreRoutes* routes = g_routes;
  routes->tasks_.Post([routes, deliver = std::move(deliver)] { deliver(*routes); });
}

// ---- the core's callbacks (pool threads): copy, hand over, return ----

void CCoreRoutes::OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                          hxf_endpoint_h endpoint, void* token) {
  FoundEvent event;
  event.service = hxf_tool::Copy(service);
  event.result = result;
  event.has_device = endpoint != nullptr;
  if (endpoint != nullptr) event.device = hxf_tool::ReadDevice(endpoint);
  Hand([token = TokenOf(token), event = std::move(event)](CCoreRoutes& routes) {
    if (CWatch* watch = routes.Find<CWatch>(token)) watch->Found(event);
  });
}

void CCoreRoutes::OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                         hxf_endpoint_list_h list, void* token) {
  ListEvent event;
  event.service = hxf_tool::Copy(service);
  event.result = result;
  if (list != nullptr) {
    for (hxf_endpoint_h e = hxf_endpoint_list_get_first(list); e != nullptr;
         e = hxf_endpoint_list_get_next(list, e))
      event.devices.push_back(hxf_tool::ReadDevice(e));
  }
  Hand([token = TokenOf(token), event = std::move(event)](CCoreRoutes& routes) {
    if (CCaller* caller = routes.Find<CCaller>(token))
      caller->Listed(event);
    else if (CDeviceRoutes* devices = routes.Find<CDeviceRoutes>(token))
      devices->LookupListed(event);
  });
}

namespace {
AnswerEvent CopyAnswer(hxf_property_list_h list, hxf_transaction_h transaction, int error) {
  AnswerEvent event;
  event.transaction = transaction;
  if (list != nullptr) {
    event.operation = hxf_property_list_get_name(list);
    event.properties = hxf_tool::ReadProperties(list);
  }
  event.error = error;
  return event;
}
}  // namespace

void CCoreRoutes::OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                           hxf_transaction_h transaction, hxf_error_e error, void* token) {
  Hand([token = TokenOf(token), event = CopyAnswer(list, transaction, error)](CCoreRoutes& routes) {
    if (CCaller* caller = routes.Find<CCaller>(token)) caller->Answered(event);  // or dropped
  });
}

void CCoreRoutes::OnNotification(hxf_string, hxf_service_session_h, hxf_property_list_h list,
                                 hxf_transaction_h transaction, hxf_error_e error, void* token) {
  Hand([token = TokenOf(token), event = CopyAnswer(list, transaction, error)](CCoreRoutes& routes) {
    if (CSession* session = routes.Find<CSession>(token)) session->Notified(event);
  });
}

}  // namespace hxfd
