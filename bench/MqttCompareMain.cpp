// mqtt_compare: what a request through hxfd's MQTT front costs against the floor of the same
// Mosquitto, both measured in one run. The broker (a child process on a loopback port of its
// own) carries both sides; the floor is a responder (a libmosquitto client of this process)
// that answers each command at once with the payload the simulator answers to `get` of lamp-1,
// on the caller's response topic with its correlation data; the other side is hxfd itself
// (the built binary, MQTT alone, with the simulator), asked `get` of lamp-1 on its command
// topic. Every publish is QoS 1, like hxfd's answers. Blocks of each side alternate, so that
// the machine's load drifts over both alike: only the ratios within one run mean anything.
//
// Usage: mqtt_compare [--quick] [--hxfd PATH] [--mosquitto PATH]
//   --quick: few requests, to check that everything runs (the figures are printed, not judged)
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kClients = 8;
constexpr const char* kFloorCommand = "bench/floor/command";
constexpr const char* kHxfdCommand = "hxf/bench/lights/lamp-1/command";
constexpr const char* kGet = R"({"operation":"get"})";
// What the simulator answers to get of lamp-1, as hxfd writes it.
constexpr const char* kLampAnswer =
    R"({"device_id":"lamp-1","power":true,"brightness":70,"color":"warm"})";

struct Sizes {
  int rounds = 5;       // blocks per side, alternating
  int one_client = 1000;  // requests per block, one client
  int per_client = 200;  // requests per client per block, kClients clients
} g_sizes;

int g_port = 0;
// The children, stopped on every way out: the parent-death signal does not reach one that
// changed its user.
std::vector<pid_t> g_children;

void StopChildren() {
  // The last started first: hxfd, then the broker.
  for (auto pid = g_children.rbegin(); pid != g_children.rend(); ++pid) {
    kill(*pid, SIGTERM);
    waitpid(*pid, nullptr, 0);
  }
  g_children.clear();
}

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "mqtt_compare: %s\n", what.c_str());
  StopChildren();
  std::exit(1);
}

int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
    Fail(std::string("no free port: ") + std::strerror(errno));
  close(fd);
  return ntohs(address.sin_port);
}

// A child that dies with this process.
pid_t Spawn(const std::vector<std::string>& argv, const std::string& log) {
  const pid_t pid = fork();
  if (pid < 0) Fail("fork failed");
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");  // hxfd serves MQTT alone
    if (freopen(log.c_str(), "w", stderr) == nullptr || freopen("/dev/null", "w", stdout) == nullptr)
      _exit(127);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  g_children.push_back(pid);
  return pid;
}

// An MQTT 5 client on its own libmosquitto thread (this is a benchmark, not hxfd): requests
// with a response topic of its own, one at a time, each waited for.
class Client {
 public:
  explicit Client(const std::string& name) : reply_("bench/reply/" + name) {
    mosq_ = mosquitto_new(name.c_str(), true, this);
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(mosq_, [](mosquitto*, void* self, int rc, int,
                                                const mosquitto_property*) {
      auto* client = static_cast<Client*>(self);
      if (rc != 0) Fail("the broker refused a client");
      mosquitto_subscribe_v5(client->mosq_, nullptr, client->reply_.c_str(), 1, 0, nullptr);
    });
    mosquitto_subscribe_v5_callback_set(
        mosq_, [](mosquitto*, void* self, int, int, const int*, const mosquitto_property*) {
          static_cast<Client*>(self)->Signal();
        });
    mosquitto_message_v5_callback_set(mosq_, &Client::OnMessage);
    if (mosquitto_connect(mosq_, "127.0.0.1", g_port, 60) != MOSQ_ERR_SUCCESS)
      Fail("cannot connect to the broker");
    mosquitto_loop_start(mosq_);
    Wait(std::chrono::seconds(10));
  }
  ~Client() {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
  }

  // One request; the answer's payload. Without one within `limit`: a failure, or empty when
  // the answer is only hoped for.
  std::string Request(const char* topic, const char* payload,
                      std::chrono::milliseconds limit = std::chrono::seconds(10),
                      bool must = true) {
    mosquitto_property* properties = nullptr;
    mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, reply_.c_str());
    const uint32_t correlation = ++sent_;
    mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, &correlation,
                                  sizeof correlation);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = false;
    }
    mosquitto_publish_v5(mosq_, nullptr, topic, static_cast<int>(std::strlen(payload)), payload, 1,
                         false, properties);
    mosquitto_property_free_all(&properties);
    if (!Wait(limit)) {
      if (must) Fail(std::string("no answer from ") + topic);
      return "";
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (answered_ != correlation) Fail("an answer with another correlation");
    return answer_;
  }

 private:
  static void OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                        const mosquitto_property* properties) {
    auto* client = static_cast<Client*>(self);
    void* data = nullptr;
    uint16_t length = 0;
    uint32_t correlation = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &length,
                                       false) != nullptr) {
      if (length == sizeof correlation) std::memcpy(&correlation, data, sizeof correlation);
      free(data);
    }
    {
      std::lock_guard<std::mutex> lock(client->mutex_);
      client->answered_ = correlation;
      client->answer_.assign(static_cast<const char*>(message->payload),
                             static_cast<size_t>(message->payloadlen));
    }
    client->Signal();
  }
  void Signal() {
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    cv_.notify_all();
  }
  template <typename Duration>
  bool Wait(Duration limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, limit, [this] { return done_; });
  }

  const std::string reply_;
  mosquitto* mosq_ = nullptr;
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;
  uint32_t sent_ = 0;
  uint32_t answered_ = 0;
  std::string answer_;
};

// The floor: answers every command on kFloorCommand at once.
class Responder {
 public:
  Responder() {
    mosq_ = mosquitto_new("bench-floor", true, this);
    mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(
        mosq_, [](mosquitto* m, void*, int, int, const mosquitto_property*) {
          mosquitto_subscribe_v5(m, nullptr, kFloorCommand, 1, 0, nullptr);
        });
    mosquitto_subscribe_v5_callback_set(
        mosq_, [](mosquitto*, void* self, int, int, const int*, const mosquitto_property*) {
          static_cast<Responder*>(self)->ready_ = true;
        });
    mosquitto_message_v5_callback_set(mosq_, &Responder::OnMessage);
    if (mosquitto_connect(mosq_, "127.0.0.1", g_port, 60) != MOSQ_ERR_SUCCESS)
      Fail("the responder cannot connect");
    mosquitto_loop_start(mosq_);
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!ready_ && Clock::now() < deadline) std::this_thread::yield();
    if (!ready_) Fail("the responder did not subscribe");
  }
  ~Responder() {
    mosquitto_disconnect(mosq_);
    mosquitto_loop_stop(mosq_, false);
    mosquitto_destroy(mosq_);
  }

 private:
  static void OnMessage(mosquitto* m, void*, const mosquitto_message*,
                        const mosquitto_property* properties) {
    char* topic = nullptr;
    void* correlation = nullptr;
    uint16_t length = 0;
    mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false);
    mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &length,
                                   false);
    if (topic != nullptr) {
      mosquitto_property* answer = nullptr;
      if (correlation != nullptr)
        mosquitto_property_add_binary(&answer, MQTT_PROP_CORRELATION_DATA, correlation, length);
      mosquitto_publish_v5(m, nullptr, topic, static_cast<int>(std::strlen(kLampAnswer)),
                           kLampAnswer, 1, false, answer);
      mosquitto_property_free_all(&answer);
    }
    free(topic);
    free(correlation);
  }

  mosquitto* mosq_ = nullptr;
  std::atomic<bool> ready_{false};
};

double Percentile(std::vector<double> values, double p) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, static_cast<size_t>(p * values.size()))];
}

struct Side {
  const char* topic;
  std::vector<double> round_trip_us;
  std::vector<double> per_second;  // kClients clients, one block each
};

void OneClient(Client& client, Side& side) {
  for (int i = 0; i < g_sizes.one_client; ++i) {
    const auto start = Clock::now();
    const std::string answer = client.Request(side.topic, kGet);
    side.round_trip_us.push_back(
        std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    if (answer != kLampAnswer) Fail("unexpected answer: " + answer);
  }
}

void ManyClients(std::vector<std::unique_ptr<Client>>& clients, Side& side) {
  const auto start = Clock::now();
  std::vector<std::thread> threads;
  for (auto& client : clients) {
    threads.emplace_back([&client, &side] {
      for (int i = 0; i < g_sizes.per_client; ++i) client->Request(side.topic, kGet);
    });
  }
  for (std::thread& thread : threads) thread.join();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  side.per_second.push_back(kClients * g_sizes.per_client / seconds);
}

double Median(std::vector<double> values) { return Percentile(std::move(values), 0.5); }

}  // namespace

int main(int argc, char** argv) {
  std::string hxfd = MQTT_COMPARE_HXFD;
  std::string mosquitto_path = "mosquitto";
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--quick") {
      g_sizes = Sizes{2, 100, 25};
    } else if (arg == "--hxfd" && i + 1 < argc) {
      hxfd = argv[++i];
    } else if (arg == "--mosquitto" && i + 1 < argc) {
      mosquitto_path = argv[++i];
    } else {
      Fail("usage: mqtt_compare [--quick] [--hxfd PATH] [--mosquitto PATH]");
    }
  }
  char folder[] = "/tmp/mqtt_compare.XXXXXX";
  if (mkdtemp(folder) == nullptr) Fail("no temporary folder");
  const std::string work = folder;
  g_port = FreePort();
  std::ofstream(work + "/broker.conf") << "listener " << g_port << " 127.0.0.1\n"
                                       << "allow_anonymous true\npersistence false\nset_tcp_nodelay true\n"
                                       // Run as root, Mosquitto would change its user.
                                       << (getuid() == 0 ? "user root\n" : "");
  mosquitto_lib_init();
  Spawn({mosquitto_path, "-c", work + "/broker.conf"}, work + "/broker.log");
  // The broker is up once a client gets in.
  {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    mosquitto* probe = mosquitto_new(nullptr, true, nullptr);
    while (mosquitto_connect(probe, "127.0.0.1", g_port, 60) != MOSQ_ERR_SUCCESS) {
      if (Clock::now() > deadline) Fail("the broker did not start (" + work + "/broker.log)");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    mosquitto_disconnect(probe);
    mosquitto_destroy(probe);
  }
  Spawn({hxfd, "--config", "/dev/null", "--node", "bench", "--mqtt",
             "mqtt://127.0.0.1:" + std::to_string(g_port)},
            work + "/hxfd.log");
  {
    // hxfd serves lamp-1 once its state is retained.
    Client probe("bench-probe");
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    std::string answer;
    // Until hxfd has connected and found the lamp, a command goes unanswered or is refused.
    while ((answer = probe.Request(kHxfdCommand, kGet, std::chrono::milliseconds(200), false)) !=
           kLampAnswer) {
      if (Clock::now() > deadline) Fail("hxfd does not answer (" + work + "/hxfd.log): " + answer);
    }
  }
  Responder responder;
  Side floor{kFloorCommand, {}, {}};
  Side front{kHxfdCommand, {}, {}};
  {
    Client one("bench-one");
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < kClients; ++i)
      clients.push_back(std::make_unique<Client>("bench-" + std::to_string(i)));
    OneClient(one, floor);  // warm-up of both, not counted
    OneClient(one, front);
    floor.round_trip_us.clear();
    front.round_trip_us.clear();
    for (int round = 0; round < g_sizes.rounds; ++round) {
      for (Side* side : {&floor, &front}) {
        OneClient(one, *side);
        ManyClients(clients, *side);
      }
    }
  }
  StopChildren();
  std::system(("rm -rf " + work).c_str());

  const double floor_median = Median(floor.round_trip_us), front_median = Median(front.round_trip_us);
  const double floor_p99 = Percentile(floor.round_trip_us, 0.99);
  const double front_p99 = Percentile(front.round_trip_us, 0.99);
  const double floor_rate = Median(floor.per_second), front_rate = Median(front.per_second);
  std::printf("%-52s %12s %12s\n", "", "floor", "hxfd MQTT");
  std::printf("%-52s %12.1f %12.1f\n", "round trip, one client, median (us)", floor_median,
              front_median);
  std::printf("%-52s %12.1f %12.1f\n", "round trip, one client, p99 (us)", floor_p99, front_p99);
  std::printf("%-52s %12.2f %12.2f\n", "8 clients, one request each at a time (k/s)",
              floor_rate / 1000, front_rate / 1000);
  std::printf("%-52s %12.2f\n", "round trip median, hxfd MQTT / floor", front_median / floor_median);
  std::printf("%-52s %12.2f\n", "requests per second, 8 clients, hxfd MQTT / floor",
              front_rate / floor_rate);
  mosquitto_lib_cleanup();
  return 0;
}
