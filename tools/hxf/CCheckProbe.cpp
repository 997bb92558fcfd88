#include "CCheckProbe.h"

#include "CLocks.h"

#include <dlfcn.h>

#include <atomic>
#include <deque>
#include <map>
#include <memory>

#include "hxf_core.h"

namespace hxf_tool {

namespace {

using Clock = std::chrono::steady_clock;

// One callback the plugin set, wrapped: the trampolines below call it and time the call.
struct Wrapped {
  const char* kind;
  void* callback;
  void* user_data;
};

struct State {
  HXFramework::CMutex mutex;
  std::atomic<bool> on{false};
  // Wrapped callbacks live until the process ends: the core may call one at any time.
  std::deque<std::unique_ptr<Wrapped>> wrapped HXF_GUARDED_BY(mutex);
  std::map<uint64_t, std::pair<const char*, Clock::time_point>> running HXF_GUARDED_BY(mutex);
  uint64_t next_call HXF_GUARDED_BY(mutex) = 0;
  ProbeSnapshot seen HXF_GUARDED_BY(mutex);
  std::map<uint64_t, size_t> request_index HXF_GUARDED_BY(mutex);
};

State& Probe() {
  static State* state = new State;  // never destroyed: plugin threads may outlive main()
  return *state;
}

std::chrono::milliseconds Since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

// Times `call` as a callback of `kind` while the probe is on.
template <typename Call>
void Timed(const char* kind, Call&& call) {
  State& probe = Probe();
  if (!probe.on) {
    call();
    return;
  }
  uint64_t id = 0;
  const Clock::time_point start = Clock::now();
  {
    HXFramework::CMutexLock lock(probe.mutex);
    id = ++probe.next_call;
    probe.running[id] = {kind, start};
  }
  call();
  const std::chrono::milliseconds took = Since(start);
  HXFramework::CMutexLock lock(probe.mutex);
  probe.running.erase(id);
  ++probe.seen.callbacks;
  if (took >= probe.seen.longest) {
    probe.seen.longest = took;
    probe.seen.longest_kind = kind;
  }
}

Wrapped* Wrap(const char* kind, void* callback, void* user_data) {
  State& probe = Probe();
  HXFramework::CMutexLock lock(probe.mutex);
  probe.wrapped.push_back(std::make_unique<Wrapped>(Wrapped{kind, callback, user_data}));
  return probe.wrapped.back().get();
}

void NameTrampoline(hxf_service_handler_h handler, hxf_string name, void* data) {
  auto* wrapped = static_cast<Wrapped*>(data);
  auto callback = reinterpret_cast<hxf_service_handler_search_cb>(wrapped->callback);
  Timed(wrapped->kind, [&] { callback(handler, name, wrapped->user_data); });
}

void RequestTrampoline(hxf_service_handler_h handler, hxf_transaction_h transaction,
                       hxf_property_list_h properties, void* data) {
  auto* wrapped = static_cast<Wrapped*>(data);
  State& probe = Probe();
  if (probe.on) {
    HXFramework::CMutexLock lock(probe.mutex);
    const auto id = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(transaction));
    probe.request_index[id] = probe.seen.requests.size();
    probe.seen.requests.push_back(id);
    probe.seen.answers.push_back(0);
  }
  auto callback = reinterpret_cast<hxf_service_handler_set_request_service_cb>(wrapped->callback);
  Timed(wrapped->kind, [&] { callback(handler, transaction, properties, wrapped->user_data); });
}

void CountAnswer(hxf_string_t service, hxf_transaction_h transaction) {
  State& probe = Probe();
  if (!probe.on) return;
  HXFramework::CMutexLock lock(probe.mutex);
  if (service.str != nullptr) probe.seen.answered_services.insert(std::string(service.str, service.len));
  if (transaction == nullptr) return;
  const auto found =
      probe.request_index.find(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(transaction)));
  if (found == probe.request_index.end()) {
    ++probe.seen.stray_answers;
    return;
  }
  ++probe.seen.answers[found->second];
}

// The core's own function of that name, the next definition after this executable's.
template <typename Function>
Function Real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

template <typename Callback, typename Setter>
hxf_error_e SetWrapped(Setter setter, const char* kind, hxf_service_handler_h handler,
                       Callback callback, Callback trampoline, void* user_data) {
  if (setter == nullptr) return HXF_ERROR_OPERATION_FAILED;
  if (callback == nullptr) return setter(handler, callback, user_data);
  return setter(handler, trampoline, Wrap(kind, reinterpret_cast<void*>(callback), user_data));
}

}  // namespace

void ProbeEnable(bool on) {
  State& probe = Probe();
  HXFramework::CMutexLock lock(probe.mutex);
  probe.seen = ProbeSnapshot{};
  probe.request_index.clear();
  probe.running.clear();
  probe.on = on;
}

void ProbeResetRequests() {
  State& probe = Probe();
  HXFramework::CMutexLock lock(probe.mutex);
  probe.seen.requests.clear();
  probe.seen.answers.clear();
  probe.seen.stray_answers = 0;
  probe.request_index.clear();
}

void ProbeResetTimings() {
  State& probe = Probe();
  HXFramework::CMutexLock lock(probe.mutex);
  probe.seen.longest = std::chrono::milliseconds(0);
  probe.seen.longest_kind.clear();
  probe.seen.callbacks = 0;
}

ProbeSnapshot ProbeRead() {
  State& probe = Probe();
  HXFramework::CMutexLock lock(probe.mutex);
  ProbeSnapshot snapshot = probe.seen;
  for (const auto& call : probe.running) {
    const std::chrono::milliseconds running = Since(call.second.second);
    if (running >= snapshot.longest_running) {
      snapshot.longest_running = running;
      snapshot.longest_running_kind = call.second.first;
    }
  }
  return snapshot;
}

}  // namespace hxf_tool

// The functions a plugin calls, put ahead of the core's (exported by the executable).
extern "C" {

// Visible despite -fvisibility=hidden: the dynamic list exports only visible symbols.
#define HXF_PROBE_API __attribute__((visibility("default")))

#define HXF_PROBE_NAME_SETTER(function, type, kind)                                           \
  HXF_PROBE_API hxf_error_e function(hxf_service_handler_h handler, type cb, void* user_data) {             \
    static const auto real = hxf_tool::Real<hxf_error_e (*)(hxf_service_handler_h, type,      \
                                                             void*)>(#function);              \
    return hxf_tool::SetWrapped<type>(real, kind, handler, cb, &hxf_tool::NameTrampoline,     \
                                      user_data);                                             \
  }

HXF_PROBE_NAME_SETTER(hxf_core_service_handler_set_search_callback, hxf_service_handler_search_cb,
                      "search")
HXF_PROBE_NAME_SETTER(hxf_core_service_handler_set_search_stop_callback,
                      hxf_service_handler_search_stop_cb, "search stop")
HXF_PROBE_NAME_SETTER(hxf_core_service_handler_set_get_device_list_callback,
                      hxf_service_handler_get_device_list_cb, "device list")
HXF_PROBE_NAME_SETTER(hxf_core_service_handler_set_listen_callback, hxf_service_handler_listen_cb,
                      "listen")
HXF_PROBE_NAME_SETTER(hxf_core_service_handler_set_listen_stop_callback,
                      hxf_service_handler_listen_stop_cb, "listen stop")

HXF_PROBE_API hxf_error_e hxf_core_service_handler_set_request_service_callback(
    hxf_service_handler_h handler, hxf_service_handler_set_request_service_cb cb, void* user_data) {
  static const auto real =
      hxf_tool::Real<hxf_error_e (*)(hxf_service_handler_h, hxf_service_handler_set_request_service_cb,
                                     void*)>(__func__);
  return hxf_tool::SetWrapped<hxf_service_handler_set_request_service_cb>(
      real, "request", handler, cb, &hxf_tool::RequestTrampoline, user_data);
}

HXF_PROBE_API hxf_error_e hxf_core_service_handler_subscribe_service(hxf_service_handler_h handler,
                                                       hxf_string_t service_name) {
  static const auto real =
      hxf_tool::Real<hxf_error_e (*)(hxf_service_handler_h, hxf_string_t)>(__func__);
  hxf_tool::State& probe = hxf_tool::Probe();
  if (probe.on && service_name.str != nullptr) {
    HXFramework::CMutexLock lock(probe.mutex);
    probe.seen.subscribed.insert(std::string(service_name.str, service_name.len));
  }
  return real != nullptr ? real(handler, service_name) : HXF_ERROR_OPERATION_FAILED;
}

HXF_PROBE_API hxf_error_e hxf_core_service_handler_send_request_result(hxf_service_handler_h handler,
                                                         hxf_string_t service_name,
                                                         hxf_property_list_h properties,
                                                         hxf_transaction_h transaction,
                                                         hxf_error_e error) {
  static const auto real =
      hxf_tool::Real<hxf_error_e (*)(hxf_service_handler_h, hxf_string_t, hxf_property_list_h,
                                     hxf_transaction_h, hxf_error_e)>(__func__);
  hxf_tool::CountAnswer(service_name, transaction);
  return real != nullptr ? real(handler, service_name, properties, transaction, error)
                         : HXF_ERROR_OPERATION_FAILED;
}

HXF_PROBE_API hxf_error_e hxf_core_service_handler_notify(hxf_service_handler_h handler,
                                            hxf_string_t service_name,
                                            hxf_property_list_h properties,
                                            hxf_transaction_h transaction, hxf_error_e error) {
  static const auto real =
      hxf_tool::Real<hxf_error_e (*)(hxf_service_handler_h, hxf_string_t, hxf_property_list_h,
                                     hxf_transaction_h, hxf_error_e)>(__func__);
  hxf_tool::CountAnswer(service_name, transaction);
  return real != nullptr ? real(handler, service_name, properties, transaction, error)
                         : HXF_ERROR_OPERATION_FAILED;
}

}  // extern "C"
