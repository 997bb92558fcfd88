// Stress run: consumer threads and provider threads drive the public API at random for a
// set time, then every invariant is checked.
//   hxf_stress [--duration-ms N] [--seed S] [--consumers N] [--providers N]
// Exit code 0 when every invariant holds.
#include <dlfcn.h>
#include <malloc.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::Str;

namespace {

using Clock = std::chrono::steady_clock;
// Far beyond any answer's delay: a request waiting this long and answered must get the answer.
constexpr uint32_t kLongTimeoutMs = 4000;
constexpr long kMaxOpenRequests = 64;  // per client, before a consumer waits
constexpr const char* kServices[] = {"stress-a", "stress-b", "stress-c", "*"};

struct Options {
  long duration_ms = 3000;
  unsigned seed = 1;
  int consumers = 4;
  int providers = 3;
};

// One request's fate.
struct Request {
  std::string tag;
  int client;                               // index of the consumer's client generation
  hxf_service_session_h session = nullptr;  // the session it was sent on
  bool long_timeout = false;                // a time-out far beyond any answer's delay
  std::atomic<int> results{0};
  std::atomic<int> answers{0};   // results carrying the provider's echo of the request
  std::atomic<int> timeouts{0};  // results with HXF_ERROR_TIMED_OUT
  std::atomic<int> notifications{0};
  std::atomic<bool> settled{false};  // its first callback has come
  long answer_ticket = -1;           // long-waiting only: when the provider answered it
};

struct Subscriber {
  int client;
};  // (kept for the notification's user data; the session decides whose request it is)

struct World {
  std::mutex mutex;
  std::condition_variable cv;
  std::map<std::string, std::shared_ptr<Request>> requests;  // by tag
  std::vector<bool> client_destroyed;                        // by client index
  std::vector<long> destroy_ticket;  // by client index: taken before its destroy began
  std::vector<long> open_requests;   // by client index: requests without any callback yet
  std::vector<long> open_short;      // the same, of the short-waiting requests only
  std::atomic<long> api_calls{0};
  std::atomic<long> callbacks{0};
  std::atomic<int> async_client_destroys{0};
  std::atomic<int> client_destroyed_callbacks{0};
  std::atomic<int> bad_destroyed_callbacks{0};
  std::atomic<long> progress{0};
  long final_unsettled = 0;  // requests of a living client left without callback
};

World* g_world = nullptr;

// Wakes whoever waits for requests or destroys to settle.
void Wake() {
  std::lock_guard<std::mutex> lock(g_world->mutex);
  g_world->cv.notify_all();
}

void Settle(Request& request, bool notification) {
  ++(notification ? request.notifications : request.results);
  ++g_world->callbacks;
  ++g_world->progress;
  if (!request.settled.exchange(true)) {
    std::lock_guard<std::mutex> lock(g_world->mutex);
    --g_world->open_requests[static_cast<size_t>(request.client)];
    if (!request.long_timeout) --g_world->open_short[static_cast<size_t>(request.client)];
    g_world->cv.notify_all();
  }
}

void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list, hxf_transaction_h,
              hxf_error_e error, void* ud) {
  auto& request = *static_cast<Request*>(ud);
  if (error == HXF_ERROR_TIMED_OUT) ++request.timeouts;
  if (error == HXF_ERROR_NONE && list != nullptr && request.tag == hxf_property_list_get_name(list))
    ++request.answers;
  Settle(request, false);
}

long (*g_ticket)() = nullptr;  // the stress plugin's clock

void OnNotify(hxf_string, hxf_service_session_h session, hxf_property_list_h list,
              hxf_transaction_h, hxf_error_e, void* ud) {
  ++g_world->callbacks;
  if (list == nullptr) return;
  const std::string name = hxf_property_list_get_name(list);
  std::shared_ptr<Request> request;
  {
    std::lock_guard<std::mutex> lock(g_world->mutex);
    auto found = g_world->requests.find(name);
    if (found != g_world->requests.end()) request = found->second;
  }
  // A notification reaches every session of the handler (a client may hold several): only
  // the session the request was sent on can be completed by it.
  if (request != nullptr && request->client == static_cast<Subscriber*>(ud)->client &&
      request->session == session) {
    Settle(*request, true);
  }
}

void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h, void*) {
  ++g_world->callbacks;
}
void OnList(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_list_h, void*) {
  ++g_world->callbacks;
}
void OnClientDestroyed(hxf_client_h client, void* ud) {
  if (client != ud) ++g_world->bad_destroyed_callbacks;
  ++g_world->client_destroyed_callbacks;
  Wake();
}

void ConsumerLoop(int index, unsigned seed, Clock::time_point end,
                  std::vector<std::unique_ptr<Subscriber>>* keep) {
  World& world = *g_world;
  std::mt19937 random(seed);
  hxf_client_h client = nullptr;
  hxf_service_session_h session = nullptr;
  int client_index = -1;
  int service = 0;
  long sequence = 0;
  auto make_client = [&] {
    client = hxf_core_client_create(Str("consumer-" + std::to_string(index)));
    std::lock_guard<std::mutex> lock(world.mutex);
    client_index = static_cast<int>(world.client_destroyed.size());
    world.client_destroyed.push_back(false);
    world.destroy_ticket.push_back(-1);
    world.open_requests.push_back(0);
    world.open_short.push_back(0);
    session = nullptr;
  };
  auto destroy_client = [&] {
    {
      std::lock_guard<std::mutex> lock(world.mutex);
      world.client_destroyed[static_cast<size_t>(client_index)] =
          true;  // before: its requests may go unanswered
      world.destroy_ticket[static_cast<size_t>(client_index)] = g_ticket();
    }
    if (random() % 2 == 0) {
      hxf_core_client_destroy(client);
    } else if (hxf_core_client_destroy_async(client, OnClientDestroyed, client) == HXF_ERROR_NONE) {
      ++world.async_client_destroys;
    }
    client = nullptr;
  };
  make_client();
  while (Clock::now() < end) {
    const int dice = static_cast<int>(random() % 100);
    const std::string name = kServices[random() % 4];
    ++world.api_calls;
    ++world.progress;
    if (dice < 1 && random() % 4 == 0) {
      destroy_client();
      make_client();
    } else if (dice < 10) {
      hxf_core_client_start_active_search(client, Str(name), OnFound, 1 + random() % 50, nullptr);
    } else if (dice < 13) {
      hxf_core_client_stop_active_search(client, Str(name));
    } else if (dice < 17) {
      hxf_core_client_start_passive_search(client, Str(name), OnFound, nullptr);
    } else if (dice < 19) {
      hxf_core_client_stop_passive_search(client, Str(name));
    } else if (dice < 23) {
      hxf_core_client_get_device_list(client, Str(name), OnList, 1 + random() % 50, nullptr);
    } else if (dice < 28 || session == nullptr) {
      service = static_cast<int>(random() % 3);
      auto subscriber = std::make_unique<Subscriber>(Subscriber{client_index});
      session = hxf_core_client_subscribe_service(client, Str(kServices[service]), OnNotify,
                                                  subscriber.get());
      std::lock_guard<std::mutex> lock(world.mutex);
      keep->push_back(std::move(subscriber));
    } else if (dice < 95) {
      {
        // Backpressure: with too many short requests of this client still open (they time out
        // within 80 ms unless the core lags), wait briefly for some to settle. Without it the
        // consumers outrun the pool for good in a long run, and every answer and time-out
        // queues behind minutes of work.
        std::unique_lock<std::mutex> lock(world.mutex);
        const size_t me = static_cast<size_t>(client_index);
        world.cv.wait_for(lock, std::chrono::milliseconds(100),
                          [&] { return world.open_short[me] < kMaxOpenRequests; });
      }
      auto request = std::make_shared<Request>();
      // One in four waits long ("L" tags, whose answers the plugin records): if the provider
      // answers it, the answer must arrive.
      request->long_timeout = random() % 4 == 0;
      request->tag = (request->long_timeout ? "L" : "r") + std::to_string(index) + "." +
                     std::to_string(sequence++);
      request->client = client_index;
      request->session = session;
      const uint32_t timeout =
          request->long_timeout ? kLongTimeoutMs : 1 + static_cast<uint32_t>(random() % 80);
      {
        std::lock_guard<std::mutex> lock(world.mutex);
        world.requests[request->tag] = request;
        ++world.open_requests[static_cast<size_t>(client_index)];
        if (!request->long_timeout) ++world.open_short[static_cast<size_t>(client_index)];
      }
      hxf_property_list_h list = hxf_property_list_create(Str(request->tag));
      hxf_transaction_h transaction = nullptr;
      const hxf_error_e code = hxf_core_client_request_service(
          client, session, list, OnResult, timeout, &transaction, request.get());
      hxf_property_list_destroy(list);
      if (code != HXF_ERROR_NONE) {
        std::lock_guard<std::mutex> lock(world.mutex);
        world.requests.erase(request->tag);  // refused at once: no callback is owed
        --world.open_requests[static_cast<size_t>(client_index)];
        if (!request->long_timeout) --world.open_short[static_cast<size_t>(client_index)];
      }
    } else {
      // Stale and garbage handles: an error code, never a crash.
      void* garbage = reinterpret_cast<void*>(static_cast<uintptr_t>(random()) | 1);
      hxf_core_client_stop_active_search(garbage, Str(name));
      hxf_core_client_add_device(client, garbage, nullptr);
      hxf_core_service_handler_notify(garbage, Str(name), nullptr, garbage, HXF_ERROR_NONE);
    }
  }
  // Before the last destroy, let every request of the living client settle: its longest
  // time-out is kLongTimeoutMs. Whatever is still open then was owed a callback.
  {
    std::unique_lock<std::mutex> lock(world.mutex);
    const size_t me = static_cast<size_t>(client_index);
    world.cv.wait_for(lock, std::chrono::milliseconds(kLongTimeoutMs + 10000),
                      [&] { return world.open_requests[me] == 0; });
    world.final_unsettled += world.open_requests[me];
  }
  destroy_client();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--duration-ms") == 0)
      options.duration_ms = std::atol(argv[i + 1]);
    else if (std::strcmp(argv[i], "--seed") == 0)
      options.seed = static_cast<unsigned>(std::atol(argv[i + 1]));
    else if (std::strcmp(argv[i], "--consumers") == 0)
      options.consumers = std::atoi(argv[i + 1]);
    else if (std::strcmp(argv[i], "--providers") == 0)
      options.providers = std::atoi(argv[i + 1]);
  }
  World world;
  g_world = &world;
  int failures = 0;
  auto check = [&](bool ok, const std::string& what) {
    if (!ok) {
      std::printf("FAILED: %s\n", what.c_str());
      ++failures;
    }
  };

  hxf_core_initialize();
  struct mallinfo2 before = mallinfo2();

  // Watchdog: the whole run must end within its duration plus a generous bound.
  std::mutex finish_mutex;
  std::condition_variable finish_cv;
  bool finished = false;
  std::thread watchdog([&] {
    const auto limit =
        Clock::now() + std::chrono::milliseconds(options.duration_ms) + std::chrono::seconds(90);
    std::unique_lock<std::mutex> lock(finish_mutex);
    if (!finish_cv.wait_until(lock, limit, [&] { return finished; })) {
      std::printf("FAILED: watchdog: no end after %ld ms (progress %ld); deadlock?\n",
                  options.duration_ms, world.progress.load());
      std::fflush(stdout);
      std::abort();
    }
  });

  std::mutex loaded_mutex;
  std::condition_variable loaded_cv;
  int loaded = -1;
  struct LoadWait {
    std::mutex* m;
    std::condition_variable* cv;
    int* result;
  } wait{&loaded_mutex, &loaded_cv, &loaded};
  hxf_core_plugin_load(
      Str("stress"),
      [](hxf_string, hxf_plugin_load_result_e result, void* ud) {
        auto* w = static_cast<LoadWait*>(ud);
        std::lock_guard<std::mutex> lock(*w->m);
        *w->result = result;
        w->cv->notify_all();
      },
      &wait);
  {
    std::unique_lock<std::mutex> lock(loaded_mutex);
    loaded_cv.wait_for(lock, std::chrono::seconds(10), [&] { return loaded >= 0; });
  }
  check(loaded == HXF_PLUGIN_LOAD_RESULT_SUCCESS, "the stress plugin loaded");
  void* lib = dlopen((std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-stress.so").c_str(),
                     RTLD_NOW | RTLD_NOLOAD);
  auto start = reinterpret_cast<void (*)(unsigned, int)>(dlsym(lib, "hxf_stress_start"));
  auto stop = reinterpret_cast<void (*)()>(dlsym(lib, "hxf_stress_stop"));
  auto operations = reinterpret_cast<long (*)()>(dlsym(lib, "hxf_stress_operations"));
  auto async_destroys = reinterpret_cast<int (*)()>(dlsym(lib, "hxf_stress_async_destroys"));
  auto destroyed_callbacks =
      reinterpret_cast<int (*)()>(dlsym(lib, "hxf_stress_destroyed_callbacks"));
  g_ticket = reinterpret_cast<long (*)()>(dlsym(lib, "hxf_stress_ticket"));
  auto answer_ticket =
      reinterpret_cast<long (*)(const char*)>(dlsym(lib, "hxf_stress_answer_ticket"));
  auto forget = reinterpret_cast<void (*)()>(dlsym(lib, "hxf_stress_forget"));
  if (lib == nullptr || start == nullptr || g_ticket == nullptr || answer_ticket == nullptr ||
      forget == nullptr) {
    std::printf("FAILED: stress plugin hooks missing\n");
    return 1;
  }

  const auto begin = Clock::now();
  const auto end = begin + std::chrono::milliseconds(options.duration_ms);
  start(options.seed, options.providers);
  std::vector<std::unique_ptr<Subscriber>> subscribers;
  std::vector<std::thread> consumers;
  for (int i = 0; i < options.consumers; ++i) {
    consumers.emplace_back(ConsumerLoop, i, options.seed * 31u + static_cast<unsigned>(i), end,
                           &subscribers);
  }
  for (std::thread& consumer : consumers) consumer.join();
  stop();
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  const long provider_operations = operations();

  // Every client was destroyed at the end of its consumer; async destroys report once.
  {
    std::unique_lock<std::mutex> lock(world.mutex);
    world.cv.wait_for(lock, std::chrono::seconds(20), [&] {
      return world.client_destroyed_callbacks >= world.async_client_destroys;
    });
  }
  hxf_core_plugin_unload_all();  // the plugin waits for its own destroyed callbacks
  // Our own reference keeps the library mapped until we have read its counters and records.
  const int plugin_async = async_destroys();
  const int plugin_callbacks = destroyed_callbacks();

  hxf_core_finalize();
  {
    std::lock_guard<std::mutex> lock(finish_mutex);
    finished = true;
    finish_cv.notify_all();
  }
  watchdog.join();
  // Read after the run (a long run holds tens of millions of records), and before our own
  // reference to the plugin's library goes.
  for (const auto& [tag, request] : world.requests) {
    if (request->long_timeout) request->answer_ticket = answer_ticket(tag.c_str());
  }
  forget();
  dlclose(lib);

  long settled_live = 0;
  long unsettled_destroyed = 0;
  long answered_alive = 0;
  {
    std::lock_guard<std::mutex> lock(world.mutex);
    for (const auto& [tag, request] : world.requests) {
      // Answered by the provider while its client (and so its session) lived, long before
      // its time-out: delivered as that answer, never as a time-out. (Once a destroy has
      // begun, an answer may find nobody; a time-out is still never right.)
      const long answer = request->answer_ticket;
      const long destroyed_at = world.destroy_ticket[static_cast<size_t>(request->client)];
      if (request->long_timeout && answer >= 0 && (destroyed_at < 0 || answer < destroyed_at)) {
        ++answered_alive;
        check(request->timeouts == 0, tag + ": answered while its client lived, yet timed out");
        check(request->answers + request->notifications == 1 || destroyed_at >= 0,
              tag + ": answered while its client lived, yet the answer never arrived");
      }
      const bool destroyed_first = world.client_destroyed[static_cast<size_t>(request->client)];
      check(request->results <= 1,
            tag + ": at most one result (got " + std::to_string(request->results) + ")");
      check(request->notifications <= 1, tag + ": at most one completing notification");
      if (request->results + request->notifications == 0) {
        check(destroyed_first, tag + ": no callback though its client lived");
        ++unsettled_destroyed;
      } else {
        ++settled_live;
      }
    }
  }
  check(world.client_destroyed_callbacks == world.async_client_destroys,
        "every async client destroy reported once (" +
            std::to_string(world.client_destroyed_callbacks) + "/" +
            std::to_string(world.async_client_destroys) + ")");
  check(world.final_unsettled == 0,
        std::to_string(world.final_unsettled) +
            " request(s) of living clients got no callback within their time-out + 10 s");
  check(world.bad_destroyed_callbacks == 0, "destroyed callbacks carry their own handle");
  check(plugin_callbacks == plugin_async, "every async handler destroy reported once (" +
                                              std::to_string(plugin_callbacks) + "/" +
                                              std::to_string(plugin_async) + ")");

  size_t request_count = 0;
  {
    std::lock_guard<std::mutex> lock(world.mutex);
    request_count = world.requests.size();
    world.requests.clear();  // the test's own records are not the core's memory
  }
  subscribers.clear();
  subscribers.shrink_to_fit();
  malloc_trim(0);
  struct mallinfo2 after = mallinfo2();
  const long growth = static_cast<long>(after.uordblks) - static_cast<long>(before.uordblks);
  std::printf(
      "stress: %.1f s, seed %u, %d consumers, %d providers\n"
      "  consumer calls %ld (%.0f/s), provider operations %ld (%.0f/s), callbacks %ld\n"
      "  requests %zu: %ld settled, %ld unanswered because their client was destroyed first\n"
      "  %ld long-waiting requests answered while their client lived, each delivered as answered\n"
      "  async destroys: clients %d, handlers %d, all reported once\n"
      "  heap in use after teardown: %+ld bytes\n",
      seconds, options.seed, options.consumers, options.providers, world.api_calls.load(),
      static_cast<double>(world.api_calls.load()) / seconds, provider_operations,
      static_cast<double>(provider_operations) / seconds, world.callbacks.load(), request_count,
      settled_live, unsettled_destroyed, answered_alive, world.async_client_destroys.load(),
      plugin_async, growth);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // Retired handle memory is held back (a bounded quarantine) and the allocator keeps
  // arenas; anything beyond that is a leak.
  check(growth < 32L * 1024 * 1024, "heap returns to its start after teardown");
#endif
  std::printf(failures == 0 ? "stress: all invariants hold\n" : "stress: %d invariant(s) broken\n",
              failures);
  return failures == 0 ? 0 : 1;
}
