// The provider side of the stress run (libhxf-plugin-stress.so): provider threads that
// answer requests at once, late, twice or never, notify with and without transactions,
// report devices, destroy and recreate their handlers while requests are outstanding, and
// unsubscribe services in the middle of searches. Result and notification lists carry the
// request's own list name, so that the consumer side can tell requests apart.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Str.h"
#include "hxf_core.h"

#define EXPORT extern "C" __attribute__((visibility("default")))

using HXFramework::Test::Str;

namespace {

constexpr int kServices = 3;
const char* const kServiceNames[kServices] = {"stress-a", "stress-b", "stress-c"};

struct Pending {
  hxf_transaction_h transaction;
  std::string name;  // the request's list name
  int service;
  hxf_service_handler_h handler;  // the handler that received it, which answers it
  long generation;                // of that handler
};

std::mutex g_mutex;  // guards everything below but the atomics
hxf_service_handler_h g_handlers[kServices] = {};
long g_generations[kServices] = {};  // of the handler in g_handlers: a handle may come back
long g_next_generation = 0;
std::deque<Pending> g_pending;
std::vector<std::thread> g_threads;
std::atomic<bool> g_running{false};
std::atomic<long> g_operations{0};
std::atomic<int> g_destroyed_callbacks{0};
std::atomic<int> g_async_destroys{0};
// One clock for both sides of the run: tickets order an answer against the destroy of the
// client that asked and of the handler that answered.
std::atomic<long> g_tickets{0};
struct AnswerRecord {
  long ticket;      // taken once the core had accepted the answer
  long generation;  // of the handler that answered
};
struct HandlerEnd {
  long ticket;  // taken before the destroy began
  bool sync;    // a synchronous destroy may discard answers still queued in the handler
};
std::mutex g_answers_mutex;                               // guards g_answers and g_handler_ends
std::unordered_map<std::string, AnswerRecord> g_answers;  // request name -> its first answer
std::unordered_map<long, HandlerEnd> g_handler_ends;

// Only the long-waiting requests ("L" tags) are checked against their answers.
void RecordAnswer(const Pending& pending) {
  if (pending.name.empty() || pending.name[0] != 'L') return;
  const long ticket = ++g_tickets;
  std::lock_guard<std::mutex> lock(g_answers_mutex);
  g_answers.emplace(pending.name, AnswerRecord{ticket, pending.generation});  // the first counts
}

void RecordHandlerEnd(long generation, bool sync) {
  const long ticket = ++g_tickets;
  std::lock_guard<std::mutex> lock(g_answers_mutex);
  g_handler_ends.emplace(generation, HandlerEnd{ticket, sync});
}

void OnRequest(hxf_service_handler_h handler, hxf_transaction_h transaction,
               hxf_property_list_h list, void*) {
  std::lock_guard<std::mutex> lock(g_mutex);
  int service = 0;
  while (service < kServices && g_handlers[service] != handler) ++service;
  if (service == kServices) return;  // a handler already replaced
  Pending pending{transaction, hxf_property_list_get_name(list), service, handler,
                  g_generations[service]};
  // Long-waiting requests go first (making room if need be), so that most are answered while
  // their client lives; the others queue up behind them, never answered once it is full.
  if (pending.name[0] == 'L') {
    if (g_pending.size() >= 100000) g_pending.pop_back();
    g_pending.push_front(std::move(pending));
  } else if (g_pending.size() < 100000) {
    g_pending.push_back(std::move(pending));
  }
}

void OnSearch(hxf_service_handler_h handler, hxf_string name, void*) {
  // Answered at once from inside the callback, sometimes.
  if (name.len % 2 == 0) return;
  hxf_endpoint_h endpoint = hxf_endpoint_create(name);
  hxf_endpoint_set_device_id(endpoint, Str("inline"));
  hxf_core_service_handler_report_device_found(handler, endpoint);
  hxf_endpoint_destroy(endpoint);
}

std::mutex g_destroyed_mutex;  // with g_destroyed_cv: DestroyPlugin waits for the callbacks
std::condition_variable g_destroyed_cv;

void OnDestroyed(hxf_service_handler_h, void*) {
  std::lock_guard<std::mutex> lock(g_destroyed_mutex);
  ++g_destroyed_callbacks;
  g_destroyed_cv.notify_all();
}

hxf_service_handler_h MakeHandler(int service) {
  hxf_service_handler_h handler =
      hxf_core_service_handler_create(Str(std::string("p-") + kServiceNames[service]), nullptr);
  hxf_core_service_handler_set_search_callback(handler, OnSearch, nullptr);
  hxf_core_service_handler_set_listen_callback(handler, OnSearch, nullptr);
  hxf_core_service_handler_set_get_device_list_callback(handler, OnSearch, nullptr);
  hxf_core_service_handler_set_request_service_callback(handler, OnRequest, nullptr);
  hxf_core_service_handler_subscribe_service(handler, Str(kServiceNames[service]));
  return handler;
}

void Notify(int service, hxf_transaction_h transaction, const std::string& name) {
  hxf_service_handler_h handler;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    handler = g_handlers[service];  // may be destroyed meanwhile: then the call fails cleanly
  }
  hxf_property_list_h list = hxf_property_list_create(Str(name));
  hxf_core_service_handler_notify(handler, Str(kServiceNames[service]), list, transaction,
                                  HXF_ERROR_NONE);
  hxf_property_list_destroy(list);
}

// Answers a request through the handler that received it (which may be gone by now).
void Answer(const Pending& pending) {
  hxf_property_list_h list = hxf_property_list_create(Str(pending.name));
  if (hxf_core_service_handler_send_request_result(
          pending.handler, Str(kServiceNames[pending.service]), list, pending.transaction,
          HXF_ERROR_NONE) == HXF_ERROR_NONE) {
    RecordAnswer(pending);
  }
  hxf_property_list_destroy(list);
}

void ProviderLoop(unsigned seed) {
  std::mt19937 random(seed);
  while (g_running) {
    const int dice = static_cast<int>(random() % 100);
    const int service = static_cast<int>(random() % kServices);
    Pending pending{nullptr, "", 0, nullptr, 0};
    bool have = false;
    if (dice < 60) {
      std::lock_guard<std::mutex> lock(g_mutex);
      if (!g_pending.empty()) {
        // Mostly the oldest; sometimes a newer one, so that some are answered late.
        auto at =
            g_pending.begin() + static_cast<long>(random() % std::min<size_t>(g_pending.size(), 4));
        pending = *at;
        g_pending.erase(at);
        have = true;
      }
    }
    if (have) {
      if (dice < 40) {
        Answer(pending);  // once
      } else if (dice < 45) {
        Answer(pending);  // twice
        Answer(pending);
      } else if (dice < 52) {
        Notify(pending.service, pending.transaction, pending.name);  // completes it
      }  // else never: the request times out
    } else if (dice < 70) {
      Notify(service, nullptr, "news");  // news without transaction
    } else if (dice < 80) {
      hxf_service_handler_h handler;
      {
        std::lock_guard<std::mutex> lock(g_mutex);
        handler = g_handlers[service];
      }
      hxf_endpoint_h endpoint = hxf_endpoint_create(Str(kServiceNames[service]));
      hxf_endpoint_set_device_id(endpoint, Str("dev-" + std::to_string(random() % 8)));
      if (dice < 76) {
        hxf_core_service_handler_report_device_found(handler, endpoint);
      } else {
        hxf_endpoint_list_h list = hxf_endpoint_list_create();
        hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
        hxf_core_service_handler_report_device_list(handler, list);
        hxf_endpoint_list_destroy(list);
      }
      hxf_endpoint_destroy(endpoint);
    } else if (dice < 82) {
      // A handler destroyed while requests are outstanding, and a new one in its place.
      hxf_service_handler_h fresh = MakeHandler(service);
      hxf_service_handler_h old;
      long old_generation;
      {
        std::lock_guard<std::mutex> lock(g_mutex);
        old = g_handlers[service];
        old_generation = g_generations[service];
        g_handlers[service] = fresh;
        g_generations[service] = ++g_next_generation;
      }
      const bool sync = random() % 2 == 0;
      RecordHandlerEnd(old_generation, sync);
      if (sync) {
        hxf_core_service_handler_destroy(old);
      } else if (hxf_core_service_handler_destroy_async(old, OnDestroyed, nullptr) ==
                 HXF_ERROR_NONE) {
        ++g_async_destroys;
      }
    } else if (dice < 84) {
      // The service ends mid-search; subscribing again makes a fresh one.
      hxf_service_handler_h handler;
      {
        std::lock_guard<std::mutex> lock(g_mutex);
        handler = g_handlers[service];
      }
      hxf_core_service_handler_unsubscribe_service(handler, Str(kServiceNames[service]));
      hxf_core_service_handler_subscribe_service(handler, Str(kServiceNames[service]));
    } else {
      std::this_thread::yield();
      continue;
    }
    ++g_operations;
  }
}

}  // namespace

EXPORT bool CreatePlugin(void) {
  for (int i = 0; i < kServices; ++i) {
    hxf_service_handler_h handler = MakeHandler(i);  // never call the API holding our lock
    std::lock_guard<std::mutex> lock(g_mutex);
    g_handlers[i] = handler;
  }
  hxf_core_plugin_send_load_result(Str("stress"), HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  return true;
}

EXPORT void hxf_stress_start(unsigned seed, int threads) {
  g_running = true;
  for (int i = 0; i < threads; ++i)
    g_threads.emplace_back(ProviderLoop, seed * 7919u + static_cast<unsigned>(i));
}

EXPORT void hxf_stress_stop(void) {
  g_running = false;
  for (std::thread& thread : g_threads) thread.join();
  g_threads.clear();
}

EXPORT long hxf_stress_operations(void) {
  return g_operations.load();
}
EXPORT int hxf_stress_async_destroys(void) {
  return g_async_destroys.load();
}
EXPORT int hxf_stress_destroyed_callbacks(void) {
  return g_destroyed_callbacks.load();
}
// Drops the answer records (the run's own bookkeeping, not the core's memory).
EXPORT void hxf_stress_forget(void) {
  std::lock_guard<std::mutex> lock(g_answers_mutex);
  std::unordered_map<std::string, AnswerRecord>().swap(g_answers);
  std::unordered_map<long, HandlerEnd>().swap(g_handler_ends);
}

EXPORT long hxf_stress_ticket(void) {
  return ++g_tickets;
}
// Whether the request named `name` was answered with a result in a way that must reach its
// session: through a handler never destroyed synchronously, and destroyed asynchronously (if
// at all) only after the answer (its queued answer then runs before the termination).
// Returns the answer's ticket, or -1.
EXPORT long hxf_stress_answer_ticket(const char* name) {
  std::lock_guard<std::mutex> lock(g_answers_mutex);
  auto answer = g_answers.find(name);
  if (answer == g_answers.end()) return -1;
  auto end = g_handler_ends.find(answer->second.generation);
  if (end != g_handler_ends.end() &&
      (end->second.sync || end->second.ticket < answer->second.ticket)) {
    return -1;
  }
  return answer->second.ticket;
}

EXPORT bool DestroyPlugin(void) {
  hxf_stress_stop();
  // Destroyed callbacks still queued would run in this library after it is closed: wait.
  {
    std::unique_lock<std::mutex> lock(g_destroyed_mutex);
    g_destroyed_cv.wait_for(lock, std::chrono::seconds(10),
                            [] { return g_destroyed_callbacks >= g_async_destroys; });
  }
  hxf_service_handler_h handlers[kServices];
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    for (int i = 0; i < kServices; ++i) {
      handlers[i] = g_handlers[i];
      g_handlers[i] = nullptr;
    }
    g_pending.clear();
  }
  for (hxf_service_handler_h handler : handlers) hxf_core_service_handler_destroy(handler);
  return true;
}
