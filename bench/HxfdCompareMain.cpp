// hxfd_compare: what a request through hxfd costs against a plain D-Bus method call, both
// measured in one run through the same private dbus-daemon. The anchor is a plain sd-bus
// service (a child process of this benchmark) whose method takes what Session1.Request takes
// and answers at once the a{sv} that the simulator answers to `get` of lamp-1; the other side
// is hxfd itself (the built binary, with the simulator plugin), asked as a long-lived client
// such as `hxf --bus` asks it: Broker1.Subscribe once per connection, then Session1.Request.
// Broker1.Request (one session per caller and service, made on first use) is timed too, for
// one caller. Blocks of each side alternate, so that the machine's load drifts over all alike:
// only the ratios within one run mean anything.
//
// Usage: hxfd_compare [--quick] [--hxfd PATH]
//   --quick: few calls, to check that everything runs (the goals are printed, not required)
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPlainName = "org.hxf.BenchPlain";
constexpr const char* kPlainPath = "/org/hxf/BenchPlain";
constexpr const char* kPlainInterface = "org.hxf.BenchPlain1";
constexpr const char* kBrokerName = "org.hxf.Broker";
constexpr const char* kBrokerPath = "/org/hxf/Broker";
constexpr const char* kBrokerInterface = "org.hxf.Broker1";
constexpr const char* kSessionInterface = "org.hxf.Session1";
constexpr uint64_t kCallTimeoutUs = 10 * 1000 * 1000;  // every call waits at most this
constexpr uint32_t kRequestTimeoutMs = 5000;           // what the request asks of hxfd
constexpr int kCallers = 8;

struct Sizes {
  int rounds = 5;        // blocks per side, alternating
  int one_caller = 2000;  // calls per block, one caller
  int per_caller = 400;  // calls per caller per block, kCallers callers
} g_sizes;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "hxfd_compare: %s\n", what.c_str());
  std::exit(1);
}

// ---- processes: each started here is stopped by its PID ----

struct Child {
  pid_t pid = -1;
  const char* name = "";
  // SIGTERM, then SIGKILL if it has not ended within 5 s.
  void Stop() {
    if (pid <= 0) return;
    kill(pid, SIGTERM);
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        break;
      }
      // Bounded poll: a child's end cannot be awaited on a descriptor here.
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid = -1;
  }
};

std::vector<Child*> g_children;  // stopped at exit, whatever the way out

void StopChildren() {
  for (auto it = g_children.rbegin(); it != g_children.rend(); ++it) (*it)->Stop();
}

// In a child just forked: it ends with this process, however this one ends (a test's
// time-out kills it without a word).
void DieWithParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(1);  // gone before the line above
}

// Reads from `fd` until `until` appears in what was read or `seconds` pass. What was read.
std::string ReadUntil(int fd, const std::string& until, int seconds) {
  std::string text;
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  while (text.find(until) == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[512];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  return text;
}

// CPU time (user + system) of process `pid` so far, in microseconds.
double CpuUs(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  const size_t end = text.rfind(')');
  if (end == std::string::npos) return 0;
  std::istringstream fields(text.substr(end + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14 || i == 15) ticks += std::stod(field);  // utime, stime
  }
  return ticks * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Context switches (voluntary and not) of every thread of process `pid` so far.
double Switches(pid_t pid) {
  double switches = 0;
  const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
  DIR* dir = opendir(tasks.c_str());
  if (dir == nullptr) return 0;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    std::ifstream status(tasks + "/" + entry->d_name + "/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("voluntary_ctxt_switches:", 0) == 0 ||
          line.rfind("nonvoluntary_ctxt_switches:", 0) == 0)
        switches += std::stod(line.substr(line.find(':') + 1));
    }
  }
  closedir(dir);
  return switches;
}

// ---- the plain service: one sd-bus connection, one method, answered at once ----

int OnPlainRequest(sd_bus_message* m, void*, sd_bus_error*) {
  // Reads all the request carries, as hxfd does, then answers lamp-1's state as the simulator
  // does.
  const char* operation = nullptr;
  int r = sd_bus_message_read(m, "s", &operation);
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "{sv}");
  while (r >= 0) {
    r = sd_bus_message_enter_container(m, 'e', "sv");
    if (r <= 0) break;
    const char* key = nullptr;
    if ((r = sd_bus_message_read(m, "s", &key)) < 0) break;
    if ((r = sd_bus_message_skip(m, "v")) < 0) break;
    r = sd_bus_message_exit_container(m);
  }
  if (r >= 0) r = sd_bus_message_exit_container(m);
  uint32_t timeout_ms = 0;
  if (r >= 0) r = sd_bus_message_read(m, "u", &timeout_ms);
  if (r < 0) return r;
  return sd_bus_reply_method_return(m, "a{sv}", 4, "device_id", "s", "lamp-1", "power", "b", 1,
                                    "brightness", "x", static_cast<int64_t>(70), "color", "s",
                                    "warm");
}

const sd_bus_vtable kPlainVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Request", "sa{sv}u", "a{sv}", OnPlainRequest, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

sd_bus* Connect(const std::string& address) {
  sd_bus* bus = nullptr;
  int r = sd_bus_new(&bus);
  if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
  if (r >= 0) r = sd_bus_start(bus);
  if (r < 0) {
    sd_bus_unref(bus);
    Fail("cannot connect to " + address + ": " + std::strerror(-r));
  }
  return bus;
}

// The child's whole life: serve until SIGTERM (default action) or the bus goes. Writes one
// byte to `ready` once the name is owned.
[[noreturn]] void ServePlain(const std::string& address, int ready) {
  sd_bus* bus = Connect(address);
  int r = sd_bus_add_object_vtable(bus, nullptr, kPlainPath, kPlainInterface, kPlainVtable, nullptr);
  if (r >= 0) r = sd_bus_request_name(bus, kPlainName, 0);
  if (r < 0) {
    std::fprintf(stderr, "hxfd_compare: plain service: %s\n", std::strerror(-r));
    _exit(1);
  }
  if (write(ready, "1", 1) != 1) _exit(1);
  close(ready);
  for (;;) {
    r = sd_bus_process(bus, nullptr);
    if (r < 0) _exit(0);
    if (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0) _exit(0);
  }
}

// ---- the callers ----

enum class Side { kPlain, kSession, kBroker };

// One caller: its own connection, one call outstanding at a time.
class Caller {
 public:
  Caller(const std::string& address, Side side) : bus_(Connect(address)), side_(side) {
    if (side_ != Side::kSession) return;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const char* path = nullptr;
    if (sd_bus_call_method(bus_, kBrokerName, kBrokerPath, kBrokerInterface, "Subscribe", &error,
                           &reply, "s", "lights") < 0 ||
        sd_bus_message_read(reply, "o", &path) < 0)
      Fail(std::string("Broker1.Subscribe failed: ") + (error.message ? error.message : "?"));
    session_ = path;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
  }
  ~Caller() { sd_bus_flush_close_unref(bus_); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  // One request and its answer; the answer's a{sv} as text in `answer` when asked for.
  void Call(std::string* answer = nullptr) {
    sd_bus_message* m = nullptr;
    int r = 0;
    switch (side_) {
      case Side::kPlain:
        r = sd_bus_message_new_method_call(bus_, &m, kPlainName, kPlainPath, kPlainInterface,
                                           "Request");
        break;
      case Side::kSession:
        r = sd_bus_message_new_method_call(bus_, &m, kBrokerName, session_.c_str(),
                                           kSessionInterface, "Request");
        break;
      case Side::kBroker:
        r = sd_bus_message_new_method_call(bus_, &m, kBrokerName, kBrokerPath, kBrokerInterface,
                                           "Request");
        if (r >= 0) r = sd_bus_message_append(m, "s", "lights");
        break;
    }
    if (r >= 0)
      r = sd_bus_message_append(m, "sa{sv}u", "get", 1, "device_id", "s", "lamp-1",
                                kRequestTimeoutMs);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (r >= 0) r = sd_bus_call(bus_, m, kCallTimeoutUs, &error, &reply);
    if (r < 0)
      Fail(std::string("a request failed: ") + (error.message ? error.message : std::strerror(-r)));
    if (answer != nullptr) *answer = Describe(reply);
    sd_bus_message_unref(reply);
    sd_bus_message_unref(m);
    sd_bus_error_free(&error);
  }

 private:
  // "key=type:value;" for each entry of an a{sv} of basic values.
  static std::string Describe(sd_bus_message* reply) {
    std::string text;
    if (sd_bus_message_enter_container(reply, 'a', "{sv}") < 0) return "(not a{sv})";
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
      const char* key = nullptr;
      const char* contents = nullptr;
      char type = 0;
      sd_bus_message_read(reply, "s", &key);
      sd_bus_message_peek_type(reply, &type, &contents);
      sd_bus_message_enter_container(reply, 'v', contents);
      text += std::string(key) + "=" + contents + ":";
      if (*contents == 's') {
        const char* s = nullptr;
        sd_bus_message_read(reply, "s", &s);
        text += s;
      } else if (*contents == 'b') {
        int b = 0;
        sd_bus_message_read(reply, "b", &b);
        text += b ? "true" : "false";
      } else if (*contents == 'x') {
        int64_t x = 0;
        sd_bus_message_read(reply, "x", &x);
        text += std::to_string(x);
      } else {
        sd_bus_message_skip(reply, contents);
        text += "?";
      }
      sd_bus_message_exit_container(reply);
      sd_bus_message_exit_container(reply);
      text += ";";
    }
    sd_bus_message_exit_container(reply);
    return text;
  }

  sd_bus* bus_;
  Side side_;
  std::string session_;
};

// What one side measured, over all its blocks.
struct Figures {
  std::vector<double> latencies_us;  // one caller
  long many_calls = 0;               // kCallers callers
  double many_seconds = 0;
  long calls = 0;  // one caller's, for the CPU and switches per request
  double server_cpu_us = 0, daemon_cpu_us = 0, server_switches = 0;

  double Median() const { return At(50); }
  double P99() const { return At(99); }
  double At(int percent) const {
    if (latencies_us.empty()) return 0;
    std::vector<double> sorted = latencies_us;
    std::sort(sorted.begin(), sorted.end());
    return sorted[std::min(sorted.size() - 1, sorted.size() * percent / 100)];
  }
  double PerSecond() const { return many_seconds > 0 ? many_calls / many_seconds : 0; }
};

struct Servers {
  pid_t server = -1, bus = -1;
  double Server() const { return CpuUs(server); }
  double Daemon() const { return CpuUs(bus); }
  double ServerSwitches() const { return Switches(server); }
};

void OneCallerBlock(Caller& caller, const Servers& servers, Figures* figures) {
  const double server = servers.Server(), bus = servers.Daemon();
  const double switches = servers.ServerSwitches();
  for (int i = 0; i < g_sizes.one_caller; ++i) {
    const auto start = Clock::now();
    caller.Call();
    figures->latencies_us.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  figures->server_cpu_us += servers.Server() - server;
  figures->daemon_cpu_us += servers.Daemon() - bus;
  figures->server_switches += servers.ServerSwitches() - switches;
  figures->calls += g_sizes.one_caller;
}

void ManyCallersBlock(std::vector<Caller*>& callers, Figures* figures) {
  std::atomic<int> ready{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (Caller* caller : callers) {
    threads.emplace_back([&, caller] {
      ++ready;
      while (!go) std::this_thread::yield();
      for (int i = 0; i < g_sizes.per_caller; ++i) caller->Call();
    });
  }
  while (ready < static_cast<int>(callers.size())) std::this_thread::yield();
  const auto start = Clock::now();
  go = true;
  for (std::thread& thread : threads) thread.join();
  figures->many_seconds += std::chrono::duration<double>(Clock::now() - start).count();
  const long calls = static_cast<long>(callers.size()) * g_sizes.per_caller;
  figures->many_calls += calls;
}

std::string DefaultHxfd(const char* argv0) {
#ifdef HXFD_COMPARE_HXFD
  (void)argv0;
  return HXFD_COMPARE_HXFD;
#else
  return std::string(argv0).substr(0, std::string(argv0).rfind('/') + 1) + "../tools/hxfd/hxfd";
#endif
}

}  // namespace

int main(int argc, char** argv) {
  std::string hxfd = DefaultHxfd(argv[0]);
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      g_sizes = Sizes{2, 100, 20};
    } else if (std::strcmp(argv[i], "--hxfd") == 0 && i + 1 < argc) {
      hxfd = argv[++i];
    } else {
      std::fprintf(stderr,
                   "hxfd_compare: unknown argument '%s' (usage: hxfd_compare [--quick] [--hxfd "
                   "PATH])\n",
                   argv[i]);
      return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  char dir_template[] = "/tmp/hxfd_compare.XXXXXX";
  const char* dir_made = mkdtemp(dir_template);
  if (dir_made == nullptr) Fail(std::string("no temporary folder: ") + std::strerror(errno));
  const std::string dir = dir_made;
  std::atexit([] { StopChildren(); });

  // The bus: the stock session configuration, on a socket of our own.
  static Child bus_daemon{-1, "dbus-daemon"};
  int address_pipe[2];
  if (pipe2(address_pipe, O_CLOEXEC) < 0) Fail("no pipe");
  const pid_t self = getpid();
  bus_daemon.pid = fork();
  if (bus_daemon.pid == 0) {
    DieWithParent(self);
    dup2(address_pipe[1], 3);  // dup2 clears close-on-exec
    // What it says (it cannot raise its descriptor limit unprivileged) is read on failure.
    const int err = open((dir + "/dbus-daemon.err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (err >= 0) dup2(err, 2);
    const std::string listen = "--address=unix:path=" + dir + "/bus";
    execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address=3",
           listen.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  g_children.push_back(&bus_daemon);
  close(address_pipe[1]);
  std::string address = ReadUntil(address_pipe[0], "\n", 10);
  close(address_pipe[0]);
  if (address.find('\n') == std::string::npos) {
    std::ifstream said(dir + "/dbus-daemon.err");
    Fail("dbus-daemon gave no address within 10 s:\n" +
         std::string((std::istreambuf_iterator<char>(said)), std::istreambuf_iterator<char>()));
  }
  address.erase(address.find('\n'));

  // The plain service, forked while this process has one thread.
  static Child plain{-1, "plain service"};
  int ready_pipe[2];
  if (pipe2(ready_pipe, O_CLOEXEC) < 0) Fail("no pipe");
  plain.pid = fork();
  if (plain.pid == 0) {
    DieWithParent(self);
    g_children.clear();  // the parent's to stop, not this child's
    close(ready_pipe[0]);
    ServePlain(address, ready_pipe[1]);
  }
  g_children.push_back(&plain);
  close(ready_pipe[1]);
  if (ReadUntil(ready_pipe[0], "1", 10).empty()) Fail("the plain service was not ready in 10 s");
  close(ready_pipe[0]);

  // hxfd with the simulator; it says "serving" once its plugins have loaded.
  const std::string config = dir + "/hxfd.conf";
  std::ofstream(config) << "# hxfd_compare: the command line says it all\n";
  static Child hxfd_daemon{-1, "hxfd"};
  int serving_pipe[2];
  if (pipe2(serving_pipe, O_CLOEXEC) < 0) Fail("no pipe");
  hxfd_daemon.pid = fork();
  if (hxfd_daemon.pid == 0) {
    DieWithParent(self);
    dup2(serving_pipe[1], 2);
    execl(hxfd.c_str(), hxfd.c_str(), "--address", address.c_str(), "--plugin", "sim",
          "--config", config.c_str(), static_cast<char*>(nullptr));
    std::fprintf(stderr, "cannot run %s: %s\n", hxfd.c_str(), std::strerror(errno));
    _exit(127);
  }
  g_children.push_back(&hxfd_daemon);
  close(serving_pipe[1]);
  const std::string said = ReadUntil(serving_pipe[0], "hxfd: serving", 20);
  if (said.find("hxfd: serving") == std::string::npos)
    Fail("hxfd did not serve within 20 s:\n" + said);
  // The rest of what hxfd says is drained (unread, it would block hxfd once the pipe is full).
  std::thread drain([fd = serving_pipe[0]] {
    char buffer[512];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
    close(fd);
  });
  drain.detach();

  const Servers plain_servers{plain.pid, bus_daemon.pid};
  const Servers hxfd_servers{hxfd_daemon.pid, bus_daemon.pid};

  Caller plain_one(address, Side::kPlain), session_one(address, Side::kSession),
      broker_one(address, Side::kBroker);
  // The two sides answer the same.
  std::string plain_answer, hxfd_answer, broker_answer;
  plain_one.Call(&plain_answer);
  session_one.Call(&hxfd_answer);
  broker_one.Call(&broker_answer);
  if (plain_answer != hxfd_answer || plain_answer != broker_answer)
    Fail("the answers differ: plain " + plain_answer + ", hxfd " + hxfd_answer +
         ", Broker1.Request " + broker_answer);
  std::vector<Caller*> plain_many, hxfd_many;
  for (int i = 0; i < kCallers; ++i) {
    plain_many.push_back(new Caller(address, Side::kPlain));
    hxfd_many.push_back(new Caller(address, Side::kSession));
  }
  for (int i = 0; i < 100; ++i) {  // warm up
    plain_one.Call();
    session_one.Call();
    broker_one.Call();
  }

  Figures plain_figures, session_figures, broker_figures;
  for (int round = 0; round < g_sizes.rounds; ++round) {
    // The order turns each round, so that neither side always follows the other.
    if (round % 2 == 0) {
      OneCallerBlock(plain_one, plain_servers, &plain_figures);
      OneCallerBlock(session_one, hxfd_servers, &session_figures);
      OneCallerBlock(broker_one, hxfd_servers, &broker_figures);
      ManyCallersBlock(plain_many, &plain_figures);
      ManyCallersBlock(hxfd_many, &session_figures);
    } else {
      OneCallerBlock(broker_one, hxfd_servers, &broker_figures);
      OneCallerBlock(session_one, hxfd_servers, &session_figures);
      OneCallerBlock(plain_one, plain_servers, &plain_figures);
      ManyCallersBlock(hxfd_many, &session_figures);
      ManyCallersBlock(plain_many, &plain_figures);
    }
  }
  for (Caller* caller : plain_many) delete caller;
  for (Caller* caller : hxfd_many) delete caller;

  std::printf("hxfd_compare: one run on %u cores, one private dbus-daemon; compare within this "
              "run only\n\n",
              std::thread::hardware_concurrency());
  std::printf("%-46s %12s %12s %12s\n", "", "plain sd-bus", "hxfd Session", "hxfd Broker");
  const auto row = [](const char* what, double plain_value, double session, double broker,
                      const char* format) {
    const auto cell = [&](double value) {
      char text[32];
      if (value < 0) return std::string("-");
      std::snprintf(text, sizeof text, format, value);
      return std::string(text);
    };
    std::printf("%-46s %12s %12s %12s\n", what, cell(plain_value).c_str(), cell(session).c_str(),
                cell(broker).c_str());
  };
  row("round trip, one caller, median (us)", plain_figures.Median(), session_figures.Median(),
      broker_figures.Median(), "%.1f");
  row("round trip, one caller, p99 (us)", plain_figures.P99(), session_figures.P99(),
      broker_figures.P99(), "%.1f");
  row("8 callers, one call each at a time (k/s)", plain_figures.PerSecond() / 1e3,
      session_figures.PerSecond() / 1e3, -1, "%.2f");
  const auto per_call = [](const Figures& f, double cpu) { return f.calls ? cpu / f.calls : 0; };
  row("service CPU per request, one caller (us)", per_call(plain_figures, plain_figures.server_cpu_us),
      per_call(session_figures, session_figures.server_cpu_us),
      per_call(broker_figures, broker_figures.server_cpu_us), "%.1f");
  row("service context switches per request, one caller", per_call(plain_figures, plain_figures.server_switches),
      per_call(session_figures, session_figures.server_switches),
      per_call(broker_figures, broker_figures.server_switches), "%.2f");
  row("dbus-daemon CPU per request, one caller (us)", per_call(plain_figures, plain_figures.daemon_cpu_us),
      per_call(session_figures, session_figures.daemon_cpu_us),
      per_call(broker_figures, broker_figures.daemon_cpu_us), "%.1f");

  const double median = session_figures.Median() / plain_figures.Median();
  const double p99 = session_figures.P99() / plain_figures.P99();
  const double throughput = session_figures.PerSecond() / plain_figures.PerSecond();
  std::printf("\nratios, hxfd (Session1.Request) / plain:\n");
  std::printf("  %-60s %6.2f\n", "median round trip, one caller", median);
  std::printf("  %-60s %6.2f\n", "p99 round trip, one caller", p99);
  std::printf("  %-60s %6.2f\n", "requests per second, 8 callers", throughput);
  std::printf("  %-60s %6.2f\n", "median round trip, one caller, Broker1.Request",
              broker_figures.Median() / plain_figures.Median());
  std::printf("\ngoals:\n");
  std::printf("  %-60s %6.2f  %s\n", "median round trip, hxfd / plain (at most 1.3)", median,
              median <= 1.3 ? "met" : "NOT met");
  std::printf("  %-60s %6.2f  %s\n", "requests per second, 8 callers, hxfd / plain (at least 0.8)",
              throughput, throughput >= 0.8 ? "met" : "NOT met");
  std::fflush(stdout);

  StopChildren();
  unlink(config.c_str());
  unlink((dir + "/dbus-daemon.err").c_str());
  unlink((dir + "/bus").c_str());
  rmdir(dir.c_str());
  return 0;
}
