// hxf_compare: what a request costs through the core, against two anchors measured in the
// same run: the same two hand-offs on standalone Asio (an io_context run by four threads,
// the consumer posting to one strand whose handler posts to a second strand whose handler
// answers), and a peer-to-peer sd-bus method call over a socketpair. The machine is noisy:
// only the ratios within one run mean anything.
//
// Usage: hxf_compare [--quick] [--core]
//   --quick: few iterations, to check that it runs
//   --core:  this core only, no anchors (for profiling; the goals are not printed)
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "hxf_core.h"

// Every C++ allocation of the process, the libraries' included, is counted here while
// g_counting is set (only during the one-at-a-time run: a counter shared by all threads
// would slow the concurrent runs down).
std::atomic<bool> g_counting{false};
std::atomic<long> g_allocations{0};

void* operator new(std::size_t size) {
  if (g_counting.load(std::memory_order_relaxed))
    g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
// Not inlined: inlined into a caller, GCC's -O2 sees new paired with free and warns
// (-Wmismatched-new-delete), although this operator new allocates with malloc.
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using Clock = std::chrono::steady_clock;

struct Sizes {
  int round_trips = 20000;
  int pipelined = 100000;
  int per_consumer = 20000;
  int clients = 1000;
  int outstanding = 1000;
} g_sizes;

constexpr int kInFlight = 64;
constexpr int kConsumers = 4;

// What one way of sending requests costs.
struct Figures {
  double median_us = 0, p99_us = 0, cpu_us = 0, switches = 0;  // one request at a time
  double allocations = 0;                                      // C++ allocations, likewise
  double pipelined_per_s = 0;                                  // kInFlight in flight
  double pipelined_cpu_us = 0, pipelined_switches = 0;         // per request, likewise
};

// Process CPU time (all threads) and context switches (all threads), to take differences.
struct Usage {
  double cpu_us;
  long switches;
  static Usage Now() {
    timespec cpu{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {cpu.tv_sec * 1e6 + cpu.tv_nsec / 1e3, usage.ru_nvcsw + usage.ru_nivcsw};
  }
};

// Counts answers and lets the sender wait for them.
struct Answers {
  std::mutex mutex;
  std::condition_variable cv;
  long count = 0;
  void Add() {
    {
      std::lock_guard<std::mutex> lock(mutex);
      ++count;
    }
    // After the unlock: notified under the lock, the woken sender would at once block on
    // the mutex still held here (a second sleep and wake-up per answer).
    cv.notify_one();
  }
  void WaitFor(long at_least) {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [&] { return count >= at_least; });
  }
};

// Runs `one` (a request sent and its answer awaited) many times, then `pipelined` (the
// pipelined run: g_sizes.pipelined requests, kInFlight at a time), and fills `figures`.
void Measure(const std::function<void()>& one, const std::function<void()>& pipelined,
             Figures* figures) {
  for (int i = 0; i < 200; ++i) one();  // warm up
  std::vector<double> latencies;
  latencies.reserve(g_sizes.round_trips);
  const Usage before = Usage::Now();
  const long allocations = g_allocations.load();
  g_counting = true;
  for (int i = 0; i < g_sizes.round_trips; ++i) {
    const auto start = Clock::now();
    one();
    latencies.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  g_counting = false;
  const Usage after = Usage::Now();
  figures->allocations =
      static_cast<double>(g_allocations.load() - allocations) / g_sizes.round_trips;
  std::sort(latencies.begin(), latencies.end());
  figures->median_us = latencies[latencies.size() / 2];
  figures->p99_us = latencies[latencies.size() * 99 / 100];
  figures->cpu_us = (after.cpu_us - before.cpu_us) / g_sizes.round_trips;
  figures->switches = static_cast<double>(after.switches - before.switches) / g_sizes.round_trips;
  const Usage pipelined_before = Usage::Now();
  const auto start = Clock::now();
  pipelined();
  figures->pipelined_per_s =
      g_sizes.pipelined / std::chrono::duration<double>(Clock::now() - start).count();
  const Usage pipelined_after = Usage::Now();
  figures->pipelined_cpu_us = (pipelined_after.cpu_us - pipelined_before.cpu_us) / g_sizes.pipelined;
  figures->pipelined_switches =
      static_cast<double>(pipelined_after.switches - pipelined_before.switches) / g_sizes.pipelined;
}

// A sender whose answers arrive on other threads, counted in `answers`.
struct Windowed {
  std::function<void()> send;
  Answers answers;
  long sent = 0;
  void One() {
    send();
    answers.WaitFor(++sent);
  }
  void Pipelined() {
    const long first = sent;
    for (int i = 0; i < g_sizes.pipelined; ++i) {
      if (sent - first >= kInFlight) answers.WaitFor(sent - kInFlight + 1);
      send();
      ++sent;
    }
    answers.WaitFor(sent);
  }
  void MeasureInto(Figures* figures) {
    Measure([this] { One(); }, [this] { Pipelined(); }, figures);
  }
};

// ---- this core: consumer -> client -> session -> handler -> provider, which answers at
// once from its callback -> session -> client -> the consumer's result callback ----

void Answer(hxf_service_handler_h handler, hxf_transaction_h transaction, hxf_property_list_h list,
            void*) {
  hxf_core_service_handler_send_request_result(handler, hxf_string_from_cstr("bench"), list,
                                               transaction, HXF_ERROR_NONE);
}
void Ignore(hxf_service_handler_h, hxf_transaction_h, hxf_property_list_h, void*) {}
void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
              hxf_error_e, void* answers) {
  static_cast<Answers*>(answers)->Add();
}
void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
              hxf_error_e, void*) {}

struct Consumer {
  hxf_client_h client;
  hxf_service_session_h session;
  hxf_property_list_h list;
  explicit Consumer(const char* service) {
    client = hxf_core_client_create(hxf_string_from_cstr("bench-client"));
    session =
        hxf_core_client_subscribe_service(client, hxf_string_from_cstr(service), OnNotify, nullptr);
    list = hxf_property_list_create(hxf_string_from_cstr("get"));
  }
  ~Consumer() {
    hxf_property_list_destroy(list);
    hxf_core_client_destroy(client);
  }
  void Send(Answers* answers) const {
    hxf_transaction_h transaction = nullptr;
    hxf_core_client_request_service(client, session, list, OnResult, 60000, &transaction, answers);
  }
};

// A provider of `service` whose requests go to `on_request`.
hxf_service_handler_h Provider(const char* service,
                               hxf_service_handler_set_request_service_cb on_request) {
  hxf_service_handler_h handler =
      hxf_core_service_handler_create(hxf_string_from_cstr("bench-provider"), nullptr);
  hxf_core_service_handler_set_request_service_callback(handler, on_request, nullptr);
  hxf_core_service_handler_subscribe_service(handler, hxf_string_from_cstr(service));
  return handler;
}

size_t HeapInUse() {
  return mallinfo2().uordblks;
}

struct CoreFigures : Figures {
  double consumers_per_s = 0;
  double bytes_per_client = 0, bytes_per_request = 0;
};

CoreFigures MeasureCore() {
  CoreFigures figures;
  hxf_core_initialize();
  hxf_service_handler_h handler = Provider("bench", Answer);
  {
    Consumer consumer("bench");
    Windowed windowed;
    windowed.send = [&] { consumer.Send(&windowed.answers); };
    windowed.MeasureInto(&figures);
  }
  {
    // Each consumer thread has its own client and session, one request at a time.
    std::vector<std::thread> threads;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    for (int t = 0; t < kConsumers; ++t) {
      threads.emplace_back([&] {
        Consumer consumer("bench");
        Answers answers;
        ++ready;
        while (!go) std::this_thread::yield();
        for (long i = 1; i <= g_sizes.per_consumer; ++i) {
          consumer.Send(&answers);
          answers.WaitFor(i);
        }
      });
    }
    while (ready < kConsumers) std::this_thread::yield();
    const auto begin = Clock::now();
    go = true;
    for (std::thread& thread : threads) thread.join();
    figures.consumers_per_s = kConsumers * g_sizes.per_consumer /
                              std::chrono::duration<double>(Clock::now() - begin).count();
  }
  {
    const size_t before = HeapInUse();
    std::vector<Consumer*> clients;
    for (int i = 0; i < g_sizes.clients; ++i) clients.push_back(new Consumer("bench"));
    figures.bytes_per_client = static_cast<double>(HeapInUse() - before) / g_sizes.clients;
    for (Consumer* c : clients) delete c;
  }
  {
    // A provider that never answers: the requests stay outstanding until their time-out.
    hxf_service_handler_h silent = Provider("silent", Ignore);
    Consumer consumer("silent");
    Answers answers;
    const size_t before = HeapInUse();
    for (int i = 0; i < g_sizes.outstanding; ++i) consumer.Send(&answers);
    figures.bytes_per_request = static_cast<double>(HeapInUse() - before) / g_sizes.outstanding;
    hxf_core_service_handler_destroy(silent);
  }
  hxf_core_service_handler_destroy(handler);
  hxf_core_finalize();
  return figures;
}

// ---- Asio: two strands on an io_context run by four threads ----

Figures MeasureAsio() {
  Figures figures;
  asio::io_context io;
  auto work = asio::make_work_guard(io);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { io.run(); });
  asio::strand<asio::io_context::executor_type> client(io.get_executor());
  asio::strand<asio::io_context::executor_type> provider(io.get_executor());
  Windowed windowed;
  windowed.send = [&] {
    asio::post(client, [&] { asio::post(provider, [&] { windowed.answers.Add(); }); });
  };
  windowed.MeasureInto(&figures);
  work.reset();
  io.stop();
  for (std::thread& thread : threads) thread.join();
  return figures;
}

// ---- sd-bus peer to peer over a socketpair: a server thread answers "Get" ----

int OnGet(sd_bus_message* m, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(m, "s", "answer");
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Get", "s", "s", OnGet, 0),
    SD_BUS_VTABLE_END,
};

int OnReply(sd_bus_message*, void* answered, sd_bus_error*) {
  ++*static_cast<long*>(answered);
  return 0;
}

Figures MeasureSdBus() {
  Figures figures;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) < 0) return figures;
  std::thread server([fd = fds[1]] {
    sd_bus* bus = nullptr;
    sd_id128_t id{};
    sd_id128_randomize(&id);
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, fd, fd);
    sd_bus_set_server(bus, 1, id);
    sd_bus_start(bus);
    sd_bus_add_object_vtable(bus, nullptr, "/bench", "org.hxf.Bench", kVtable, nullptr);
    for (;;) {  // until the client hangs up
      const int r = sd_bus_process(bus, nullptr);
      if (r < 0) break;
      if (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) break;
    }
    sd_bus_flush_close_unref(bus);
  });
  // The consumer's thread owns its connection, as an sd-bus client does: a call is sent and
  // its reply read on this thread.
  sd_bus* bus = nullptr;
  sd_bus_new(&bus);
  sd_bus_set_fd(bus, fds[0], fds[0]);
  sd_bus_start(bus);
  Measure(
      [&] {
        sd_bus_message* reply = nullptr;
        sd_bus_call_method(bus, nullptr, "/bench", "org.hxf.Bench", "Get", nullptr, &reply, "s",
                           "question");
        sd_bus_message_unref(reply);
      },
      [&] {
        long answered = 0;
        long sent = 0;
        while (answered < g_sizes.pipelined) {
          while (sent < g_sizes.pipelined && sent - answered < kInFlight) {
            sd_bus_call_method_async(bus, nullptr, nullptr, "/bench", "org.hxf.Bench", "Get",
                                     OnReply, &answered, "s", "question");
            ++sent;
          }
          if (sd_bus_process(bus, nullptr) == 0) sd_bus_wait(bus, UINT64_MAX);
        }
      },
      &figures);
  sd_bus_flush_close_unref(bus);  // the server sees the hang-up and ends
  server.join();
  return figures;
}

void Row(const char* what, double core, double asio, double sdbus, const char* format) {
  const auto cell = [&](double value) {
    char text[32];
    if (value < 0) return std::string("-");
    std::snprintf(text, sizeof text, format, value);
    return std::string(text);
  };
  std::printf("%-44s %12s %14s %14s\n", what, cell(core).c_str(), cell(asio).c_str(),
              cell(sdbus).c_str());
}

void Goal(const char* what, double value, bool met) {
  std::printf("  %-66s %6.2f  %s\n", what, value, met ? "met" : "NOT met");
}

}  // namespace

int main(int argc, char** argv) {
  bool core_only = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      g_sizes = Sizes{500, 2000, 500, 50, 50};
    } else if (std::strcmp(argv[i], "--core") == 0) {
      core_only = true;
    } else {
      std::fprintf(stderr, "hxf_compare: unknown argument '%s' (usage: hxf_compare [--quick] [--core])\n",
                   argv[i]);
      return 2;
    }
  }
  const CoreFigures core = MeasureCore();
  const Figures absent{-1, -1, -1, -1, -1, -1, -1, -1};  // printed as "-"
  const Figures asio = core_only ? absent : MeasureAsio();
  const Figures sdbus = core_only ? absent : MeasureSdBus();
  std::printf("hxf_compare: one run on %u cores; compare within this run only\n\n",
              std::thread::hardware_concurrency());
  std::printf("%-44s %12s %14s %14s\n", "", "this core", "Asio 2 strands", "sd-bus p2p");
  Row("round trip, one at a time, median (us)", core.median_us, asio.median_us, sdbus.median_us,
      "%.1f");
  Row("round trip, one at a time, p99 (us)", core.p99_us, asio.p99_us, sdbus.p99_us, "%.1f");
  Row("CPU per round trip, all threads (us)", core.cpu_us, asio.cpu_us, sdbus.cpu_us, "%.1f");
  Row("context switches per round trip", core.switches, asio.switches, sdbus.switches, "%.2f");
  // sd-bus allocates with malloc, which operator new does not see: not counted.
  Row("C++ allocations per round trip", core.allocations, asio.allocations, -1, "%.1f");
  Row("pipelined, 64 in flight (k/s)", core.pipelined_per_s / 1e3, asio.pipelined_per_s / 1e3,
      sdbus.pipelined_per_s / 1e3, "%.0f");
  Row("  CPU per request, all threads (us)", core.pipelined_cpu_us, asio.pipelined_cpu_us,
      sdbus.pipelined_cpu_us, "%.1f");
  Row("  context switches per request", core.pipelined_switches, asio.pipelined_switches,
      sdbus.pipelined_switches, "%.2f");
  Row("4 consumers, one request each at a time (k/s)", core.consumers_per_s / 1e3, -1, -1, "%.0f");
  Row("memory per client with one session (B)", core.bytes_per_client, -1, -1, "%.0f");
  Row("memory per outstanding request (B)", core.bytes_per_request, -1, -1, "%.0f");
  if (core_only) return 0;
  std::printf("\ngoals (ratios of this run):\n");
  const double pipelined = core.pipelined_per_s / sdbus.pipelined_per_s;
  Goal("pipelined, this core / sd-bus (at least 2)", pipelined, pipelined >= 2);
  const double cpu = core.cpu_us / asio.cpu_us;
  Goal("CPU per round trip, this core / Asio (at most 0.5)", cpu, cpu <= 0.5);
  Goal("context switches per round trip, this core (at most 2)", core.switches, core.switches <= 2);
  const double median = core.median_us / asio.median_us;
  Goal("median round trip, this core / Asio (at most 0.5)", median, median <= 0.5);
  const double consumers = core.consumers_per_s / sdbus.pipelined_per_s;
  Goal("4 consumers, this core / sd-bus pipelined (at least 1.5)", consumers, consumers >= 1.5);
  Goal("memory per client with one session, KB (at most 1.5)", core.bytes_per_client / 1024,
       core.bytes_per_client <= 1.5 * 1024);
  Goal("memory per outstanding request, KB (at most 1)", core.bytes_per_request / 1024,
       core.bytes_per_request <= 1024);
  return 0;
}
