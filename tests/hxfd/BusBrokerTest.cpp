// hxfd's objects in process: the broker serves one end of a socketpair (a direct connection,
// no bus daemon) on its own bus thread, with the simulator loaded into the core; the test is
// the client on the other end. Every call names its caller itself (there is no daemon to set
// the sender), and a caller's departure is the daemon's NameOwnerChanged, sent by the test.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "BusValues.h"
#include "CBusBroker.h"
#include "CCoreRoutes.h"
#include "SdBusHolders.h"
#include "hxf_core.h"

namespace {

using hxf_tool::BusMessage;
using hxf_tool::Out;
using Clock = std::chrono::steady_clock;

// The core with the simulator, once for every test.
class CoreWithSimulator : public ::testing::Environment {
 public:
  void SetUp() override {
    unsetenv("HXF_SIM_CONFIG");
    hxf_core_initialize();
    ASSERT_EQ(hxf_core_plugin_load(hxf_string{"sim", 3}, &CoreWithSimulator::OnLoaded, this),
              HXF_ERROR_NONE);
    std::unique_lock<std::mutex> lock(mutex_);
    ASSERT_TRUE(done_.wait_for(lock, std::chrono::seconds(10), [&] { return loaded_ != 0; }));
    ASSERT_EQ(loaded_, 1) << "the simulator did not load";
  }
  void TearDown() override {
    hxf_core_plugin_unload_all();
    hxf_core_finalize();
  }

 private:
  static void OnLoaded(hxf_string, hxf_plugin_load_result_e result, void* self) {
    auto* env = static_cast<CoreWithSimulator*>(self);
    std::lock_guard<std::mutex> lock(env->mutex_);
    env->loaded_ = result == HXF_PLUGIN_LOAD_RESULT_SUCCESS ? 1 : -1;
    env->done_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable done_;
  int loaded_ = 0;
};
const auto* const g_core = ::testing::AddGlobalTestEnvironment(new CoreWithSimulator);

// A signal the client received.
struct Signal {
  std::string destination, path, member, device_id, service, reason;
};

class DbusBroker : public ::testing::Test {
 protected:
  void SetUp() override {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    bus_thread_ = std::thread([this, fd = fds[0]] { RunBroker(fd); });
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ASSERT_TRUE(ready_.wait_for(lock, std::chrono::seconds(10), [&] { return started_ != 0; }));
      ASSERT_EQ(started_, 1) << "the broker did not start";
    }
    ASSERT_GE(sd_bus_new(&client_), 0);
    ASSERT_GE(sd_bus_set_fd(client_, fds[1], fds[1]), 0);
    ASSERT_GE(sd_bus_set_anonymous(client_, 1), 0);
    ASSERT_GE(sd_bus_start(client_), 0);
    ASSERT_GE(sd_bus_add_filter(client_, nullptr, &DbusBroker::OnMessage, this), 0);
  }

  void TearDown() override {
    if (client_ != nullptr) sd_bus_flush_close_unref(client_);
    if (broker_ != nullptr) broker_->Post([this] { sd_event_exit(event_, 0); });
    if (bus_thread_.joinable()) bus_thread_.join();
  }

  // The bus thread: the broker's whole life.
  void RunBroker(int fd) {
    sd_event* event = nullptr;
    sd_bus* server = nullptr;
    sd_id128_t id;
    int r = sd_event_new(&event);
    if (r >= 0) r = sd_id128_randomize(&id);
    if (r >= 0) r = sd_bus_new(&server);
    if (r >= 0) r = sd_bus_set_fd(server, fd, fd);
    if (r >= 0) r = sd_bus_set_server(server, 1, id);
    if (r >= 0) r = sd_bus_set_anonymous(server, 1);
    if (r >= 0) r = sd_bus_attach_event(server, event, SD_EVENT_PRIORITY_NORMAL);
    if (r >= 0) r = sd_bus_start(server);
    std::unique_ptr<hxfd::CBusBroker> broker;
    if (r >= 0) {
      broker = std::make_unique<hxfd::CBusBroker>(server, event);
      r = broker->Start(false);  // no daemon: no name to own
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      event_ = event;
      broker_ = broker.get();
      started_ = r >= 0 ? 1 : -1;
      ready_.notify_all();
    }
    if (r >= 0) sd_event_loop(event);
    broker.reset();
    sd_bus_flush_close_unref(server);
    sd_event_unref(event);
  }

  static int OnMessage(sd_bus_message* m, void* self, sd_bus_error*) {
    if (sd_bus_message_is_signal(m, nullptr, nullptr) <= 0) return 0;
    Signal s;
    const char* destination = sd_bus_message_get_destination(m);
    s.destination = destination != nullptr ? destination : "";
    s.path = sd_bus_message_get_path(m);
    s.member = sd_bus_message_get_member(m);
    if (s.member == "DeviceFound" || s.member == "DeviceLost") {
      hxf_tool::Device device;
      if (hxf_tool::ReadDevice(m, &device) >= 0) {
        s.device_id = device.id;
        s.service = device.service;
      }
    } else if (s.member == "Finished") {
      const char* reason = nullptr;
      if (sd_bus_message_read(m, "s", &reason) >= 0) s.reason = reason;
    }
    static_cast<DbusBroker*>(self)->signals_.push_back(s);
    return 0;
  }

  // A method call of the broker object as `caller`; the reply, or null with `error` set.
  BusMessage Call(const std::string& caller, const std::string& path, const char* interface,
                  const char* member, const std::function<int(sd_bus_message*)>& fill,
                  std::string* error = nullptr) {
    BusMessage call;
    EXPECT_GE(sd_bus_message_new_method_call(client_, Out(call), nullptr, path.c_str(), interface,
                                             member),
              0);
    EXPECT_GE(sd_bus_message_set_sender(call.get(), caller.c_str()), 0);
    EXPECT_GE(fill(call.get()), 0);
    sd_bus_error e = SD_BUS_ERROR_NULL;
    BusMessage reply;
    const int r = sd_bus_call(client_, call.get(), 10 * 1000 * 1000, &e, Out(reply));
    if (r < 0 && error != nullptr)
      *error = std::string(e.name != nullptr ? e.name : "") + ": " +
               (e.message != nullptr ? e.message : "");
    sd_bus_error_free(&e);
    return r < 0 ? nullptr : std::move(reply);
  }
  BusMessage Broker(const std::string& caller, const char* member,
                    const std::function<int(sd_bus_message*)>& fill, std::string* error = nullptr) {
    return Call(caller, hxf_tool::kBrokerPath, hxf_tool::kBrokerInterface, member, fill, error);
  }
  // Broker1.Search or .Listen: the watch's object path.
  std::string Watch(const std::string& caller, const std::string& service, uint32_t timeout_ms) {
    BusMessage reply = timeout_ms == 0
                           ? Broker(caller, "Listen",
                                    [&](sd_bus_message* m) {
                                      return sd_bus_message_append(m, "s", service.c_str());
                                    })
                           : Broker(caller, "Search", [&](sd_bus_message* m) {
                               return sd_bus_message_append(m, "su", service.c_str(), timeout_ms);
                             });
    const char* path = nullptr;
    if (reply == nullptr || sd_bus_message_read(reply.get(), "o", &path) < 0) return "";
    return path;
  }
  // What bus daemon says when `caller` has left the bus.
  void Leave(const std::string& caller) {
    BusMessage m;
    ASSERT_GE(sd_bus_message_new_signal(client_, Out(m), "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "NameOwnerChanged"),
              0);
    ASSERT_GE(sd_bus_message_set_sender(m.get(), "org.freedesktop.DBus"), 0);
    ASSERT_GE(sd_bus_message_append(m.get(), "sss", caller.c_str(), caller.c_str(), ""), 0);
    ASSERT_GE(sd_bus_send(client_, m.get(), nullptr), 0);
  }
  uint32_t Callers() {
    sd_bus_error e = SD_BUS_ERROR_NULL;
    uint32_t callers = 0;
    // Read as a caller of its own: a property read makes none.
    const int r =
        sd_bus_get_property_trivial(client_, nullptr, hxf_tool::kBrokerPath,
                                    hxf_tool::kBrokerInterface, "Callers", &e, 'u', &callers);
    sd_bus_error_free(&e);
    EXPECT_GE(r, 0);
    return callers;
  }
  // Processes what arrives until `done` holds; false after 10 s.
  bool Await(const std::function<bool()>& done) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!done()) {
      if (Clock::now() > deadline) return false;
      const int r = sd_bus_process(client_, nullptr);
      if (r < 0) return false;
      if (r == 0) sd_bus_wait(client_, 100 * 1000);
    }
    return true;
  }
  // The ids of the devices found by the watch at `path`, and how it finished ("" if not yet).
  std::set<std::string> Found(const std::string& path) const {
    std::set<std::string> ids;
    for (const Signal& s : signals_) {
      if (s.path == path && s.member == "DeviceFound") ids.insert(s.device_id);
    }
    return ids;
  }
  std::string Finished(const std::string& path) const {
    for (const Signal& s : signals_) {
      if (s.path == path && s.member == "Finished") return s.reason;
    }
    return "";
  }

  sd_bus* client_ = nullptr;
  std::vector<Signal> signals_;  // test thread
  std::thread bus_thread_;
  std::mutex mutex_;
  std::condition_variable ready_;
  int started_ = 0;
  sd_event* event_ = nullptr;
  hxfd::CBusBroker* broker_ = nullptr;
};

const std::set<std::string> kLights{"lamp-1", "ceiling-1"};

TEST_F(DbusBroker, AListenAndASearchOfOneCallerEachGetTheirDevices) {
  const std::string listen = Watch(":1.1", "lights", 0);
  const std::string search = Watch(":1.1", "lights", 800);
  ASSERT_FALSE(listen.empty());
  ASSERT_FALSE(search.empty());
  ASSERT_TRUE(Await([&] { return !Finished(search).empty() && Found(listen).size() >= 2; }));
  EXPECT_EQ(Found(search), kLights);
  EXPECT_EQ(Finished(search), "done");
  for (const std::string& id : kLights) EXPECT_EQ(Found(listen).count(id), 1u) << id;
  EXPECT_EQ(Finished(listen), "");
  for (const Signal& s : signals_) EXPECT_EQ(s.destination, ":1.1") << s.member;
}

TEST_F(DbusBroker, TwoSearchesOfOneCallerOnTwoServicesEachGetTheirDevices) {
  const std::string lights = Watch(":1.1", "lights", 800);
  const std::string audio = Watch(":1.1", "audio", 800);
  ASSERT_TRUE(Await([&] { return !Finished(lights).empty() && !Finished(audio).empty(); }));
  EXPECT_EQ(Finished(lights), "done");
  EXPECT_EQ(Finished(audio), "done");
  EXPECT_EQ(Found(lights), kLights);
  EXPECT_EQ(Found(audio), (std::set<std::string>{"speaker-1", "soundbar-1", "radio-1"}));
  for (const Signal& s : signals_) {
    if (s.member == "DeviceFound") {
      EXPECT_EQ(s.service, s.path == lights ? "lights" : "audio");
    }
  }
}

TEST_F(DbusBroker, AListenEndedByItsCallersDepartureStopsTheProvidersListen) {
  // porch-1 arrives only while someone listens: the stop must reach the provider although the
  // watch's core client is destroyed right after it.
  // The search outlasts the time porch-1 takes to arrive after the listen began (1.5 s).
  for (int round = 0; round < 2; ++round) {
    const std::string caller = ":1." + std::to_string(20 + round);
    ASSERT_FALSE(Watch(caller, "lights", 0).empty());
    const std::string first = Watch(caller, "lights", 300);
    ASSERT_TRUE(Await([&] { return !Finished(first).empty(); }));
    Leave(caller);
    ASSERT_TRUE(Await([&] { return Callers() == (round == 0 ? 0u : 1u); }));  // :1.1 stays
    const std::string search = Watch(":1.1", "lights", 1700);
    ASSERT_TRUE(Await([&] { return !Finished(search).empty(); }));
    EXPECT_EQ(Found(search), kLights) << "round " << round;
  }
}

TEST_F(DbusBroker, ADeviceListBesideAListenAndASearchOfOneCallerGetsItsDevices) {
  const std::string listen = Watch(":1.1", "lights", 0);
  const std::string search = Watch(":1.1", "lights", 800);
  std::string error;
  BusMessage reply = Broker(
      ":1.1", "GetDevices",
      [](sd_bus_message* m) { return sd_bus_message_append(m, "su", "lights", 2000u); }, &error);
  ASSERT_NE(reply, nullptr) << error;
  std::set<std::string> listed;
  ASSERT_GE(sd_bus_message_enter_container(reply.get(), 'a', "a{sv}"), 0);
  hxf_tool::Device device;
  while (sd_bus_message_at_end(reply.get(), 0) == 0 &&
         hxf_tool::ReadDevice(reply.get(), &device) >= 0)
    listed.insert(device.id);
  EXPECT_EQ(listed, kLights);
  ASSERT_TRUE(Await([&] { return !Finished(search).empty() && Found(listen).size() >= 2; }));
  EXPECT_EQ(Finished(search), "done");
  EXPECT_EQ(Found(search), kLights);
}

TEST_F(DbusBroker, AWatchOfAnotherCallerCannotBeStopped) {
  const std::string listen = Watch(":1.1", "lights", 0);
  std::string error;
  EXPECT_EQ(Call(
                ":1.2", listen, hxf_tool::kSearchInterface, "Stop",
                [](sd_bus_message*) { return 0; }, &error),
            nullptr);
  // To another caller the object is not there at all.
  EXPECT_EQ(error.rfind("org.freedesktop.DBus.Error.UnknownObject", 0), 0u) << error;
  EXPECT_NE(
      Call(":1.1", listen, hxf_tool::kSearchInterface, "Stop", [](sd_bus_message*) { return 0; }),
      nullptr);
  ASSERT_TRUE(Await([&] { return !Finished(listen).empty(); }));
  EXPECT_EQ(Finished(listen), "stopped");
}

TEST_F(DbusBroker, IntrospectionShowsACallerItsOwnObjectsOnly) {
  const std::string listen = Watch(":1.1", "lights", 0);
  const std::string search = Watch(":1.1", "lights", 5000);
  BusMessage subscribed = Broker(
      ":1.1", "Subscribe", [](sd_bus_message* m) { return sd_bus_message_append(m, "s", "lights"); });
  ASSERT_NE(subscribed, nullptr);
  const char* session_path = nullptr;
  ASSERT_GE(sd_bus_message_read(subscribed.get(), "o", &session_path), 0);
  const std::string session = session_path;
  const auto introspect = [&](const std::string& caller, const std::string& path) {
    BusMessage reply = Call(caller, path, "org.freedesktop.DBus.Introspectable", "Introspect",
                            [](sd_bus_message*) { return 0; });
    const char* xml = nullptr;
    if (reply == nullptr || sd_bus_message_read(reply.get(), "s", &xml) < 0) return std::string();
    return std::string(xml);
  };
  const auto leaf = [](const std::string& path) { return path.substr(path.rfind('/') + 1); };
  const std::string broker = hxf_tool::kBrokerPath;
  for (const std::string& path : {listen, search, session}) {
    const std::string folder = path.substr(0, path.rfind('/'));
    // The owner sees it, so that its absence below means something.
    EXPECT_NE(introspect(":1.1", folder).find("\"" + leaf(path) + "\""), std::string::npos)
        << folder;
    for (const std::string& at : {broker, folder, path}) {
      EXPECT_EQ(introspect(":1.2", at).find(leaf(path)), std::string::npos) << at;
    }
  }
  // Nor can another caller call them, even knowing the paths.
  std::string error;
  EXPECT_EQ(Call(
                ":1.2", session, hxf_tool::kSessionInterface, "Close",
                [](sd_bus_message*) { return 0; }, &error),
            nullptr);
  EXPECT_EQ(error.rfind("org.freedesktop.DBus.Error.UnknownObject", 0), 0u) << error;
  EXPECT_EQ(Call(
                ":1.2", search, hxf_tool::kSearchInterface, "Stop",
                [](sd_bus_message*) { return 0; }, &error),
            nullptr);
  EXPECT_EQ(error.rfind("org.freedesktop.DBus.Error.UnknownObject", 0), 0u) << error;
  EXPECT_NE(Call(":1.1", session, hxf_tool::kSessionInterface, "Close",
                 [](sd_bus_message*) { return 0; }),
            nullptr);
}

TEST_F(DbusBroker, ACallerThatLeftBeforeItsFirstCallWasHandledIsForgotten) {
  // The call and the departure are both queued before the broker handles either.
  BusMessage call;
  ASSERT_GE(sd_bus_message_new_method_call(client_, Out(call), nullptr, hxf_tool::kBrokerPath,
                                           hxf_tool::kBrokerInterface, "Subscribe"),
            0);
  ASSERT_GE(sd_bus_message_set_sender(call.get(), ":1.9"), 0);
  ASSERT_GE(sd_bus_message_append(call.get(), "s", "lights"), 0);
  ASSERT_GE(sd_bus_send(client_, call.get(), nullptr), 0);
  Leave(":1.9");
  EXPECT_EQ(Callers(), 0u);
}

TEST_F(DbusBroker, TwoThousandHitAndRunCallersLeaveNoCallerBehind) {
  for (int i = 0; i < 2000; ++i) {
    const std::string caller = ":1." + std::to_string(100 + i);
    BusMessage call;
    ASSERT_GE(sd_bus_message_new_method_call(client_, Out(call), nullptr, hxf_tool::kBrokerPath,
                                             hxf_tool::kBrokerInterface,
                                             i % 2 == 0 ? "Subscribe" : "Listen"),
              0);
    ASSERT_GE(sd_bus_message_set_sender(call.get(), caller.c_str()), 0);
    ASSERT_GE(sd_bus_message_append(call.get(), "s", "lights"), 0);
    ASSERT_GE(sd_bus_send(client_, call.get(), nullptr), 0);
    Leave(caller);
  }
  EXPECT_EQ(Callers(), 0u);
}

TEST_F(DbusBroker, ACallerIsKeptWhileOnTheBusAndForgottenWhenItLeaves) {
  ASSERT_NE(Broker(":1.1", "Subscribe",
                   [](sd_bus_message* m) { return sd_bus_message_append(m, "s", "lights"); }),
            nullptr);
  ASSERT_FALSE(Watch(":1.2", "lights", 0).empty());
  EXPECT_EQ(Callers(), 2u);
  Leave(":1.1");
  EXPECT_EQ(Callers(), 1u);
  Leave(":1.2");
  EXPECT_EQ(Callers(), 0u);
}

// A device list's reply, read: the ids, or the error's name and message.
std::set<std::string> Listed(sd_bus_message* reply) {
  std::set<std::string> ids;
  if (reply == nullptr || sd_bus_message_enter_container(reply, 'a', "a{sv}") < 0) return ids;
  hxf_tool::Device device;
  while (sd_bus_message_at_end(reply, 0) == 0 && hxf_tool::ReadDevice(reply, &device) >= 0)
    ids.insert(device.id);
  return ids;
}

TEST_F(DbusBroker, AnotherCallersShorterDeviceListTimeOutLeavesNoListUnanswered) {
  // Nobody offers "ghost": only time-outs end its lists. The core keeps one list timer per
  // service, and the first caller's expiry stopped the second's: it was never answered, and
  // its next list was refused as in progress until it reconnected.
  BusMessage first;
  ASSERT_GE(sd_bus_message_new_method_call(client_, Out(first), nullptr, hxf_tool::kBrokerPath,
                                           hxf_tool::kBrokerInterface, "GetDevices"),
            0);
  ASSERT_GE(sd_bus_message_set_sender(first.get(), ":1.1"), 0);
  ASSERT_GE(sd_bus_message_append(first.get(), "su", "ghost", 100u), 0);
  ASSERT_GE(sd_bus_send(client_, first.get(), nullptr), 0);
  const auto list = [&](uint32_t timeout_ms, std::string* error) {
    return Broker(
        ":1.2", "GetDevices",
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "su", "ghost", timeout_ms); },
        error);
  };
  for (int round = 0; round < 2; ++round) {
    std::string error;
    const auto start = Clock::now();
    EXPECT_EQ(list(600, &error), nullptr);
    EXPECT_EQ(error, "org.hxf.Error.TimedOut: no device list for ghost in time") << round;
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(550));
  }
}

TEST_F(DbusBroker, ADeviceListAnsweredItsTimeOutIsAnsweredOnceAndTheNextOneServed) {
  std::string error;
  EXPECT_EQ(Listed(Broker(
                       ":1.1", "GetDevices",
                       [](sd_bus_message* m) { return sd_bus_message_append(m, "su", "lights", 2000u); },
                       &error)
                       .get()),
            kLights)
      << error;
  EXPECT_EQ(Listed(Broker(
                       ":1.1", "GetDevices",
                       [](sd_bus_message* m) { return sd_bus_message_append(m, "su", "lights", 2000u); },
                       &error)
                       .get()),
            kLights)
      << error;
}

TEST_F(DbusBroker, OneCallersStopDoesNotEndAnotherCallersSearch) {
  // climate: no other test searches it, whose late stop could reach the simulator now.
  const std::set<std::string> climate{"thermostat-1", "fan-1"};
  const std::string a = Watch(":1.1", "climate", 3000);
  const std::string b = Watch(":1.2", "climate", 3000);
  ASSERT_FALSE(a.empty());
  ASSERT_FALSE(b.empty());
  ASSERT_NE(Call(":1.2", b, hxf_tool::kSearchInterface, "Stop", [](sd_bus_message*) { return 0; }),
            nullptr);
  ASSERT_TRUE(Await([&] { return Found(a) == climate; })) << Found(a).size();
  EXPECT_EQ(Finished(b), "stopped");
}

TEST_F(DbusBroker, OneCallersStopDoesNotEndAnotherCallersListen) {
  const std::string a = Watch(":1.1", "lights", 0);
  const std::string b = Watch(":1.2", "lights", 0);
  ASSERT_NE(Call(":1.2", b, hxf_tool::kSearchInterface, "Stop", [](sd_bus_message*) { return 0; }),
            nullptr);
  ASSERT_TRUE(Await([&] { return Found(a).size() >= kLights.size(); }));
  for (const std::string& id : kLights) EXPECT_EQ(Found(a).count(id), 1u) << id;
}

TEST_F(DbusBroker, ASearchThatFoundDevicesEndsDoneAtItsOwnDeadlineWhateverTheCoresTimer) {
  // Another caller's search moves the core's one timer of the service.
  const std::string a = Watch(":1.1", "lights", 1500);
  const std::string b = Watch(":1.2", "lights", 300);
  ASSERT_TRUE(Await([&] { return !Finished(a).empty() && !Finished(b).empty(); }));
  EXPECT_EQ(Finished(a), "done");
  for (const std::string& id : kLights) EXPECT_EQ(Found(a).count(id), 1u) << id;
}

// Runs `task` on the broker's thread and waits for it.
void OnBusThread(hxfd::CBusBroker* broker, std::function<void()> task) {
  std::promise<void> done;
  broker->Post([&] {
    task();
    done.set_value();
  });
  done.get_future().wait();
}

TEST_F(DbusBroker, MonitorIsRefusedToACallerNeitherAllowedNorInTheMonitorGroup) {
  OnBusThread(broker_, [&] { broker_->SetMonitorAccess({}, "no-such-group-of-hxfd-tests"); });
  std::string error;
  EXPECT_EQ(Broker(":1.1", "Monitor", [](sd_bus_message*) { return 0; }, &error), nullptr);
  EXPECT_EQ(error.rfind("org.freedesktop.DBus.Error.AccessDenied: the monitor shows every "
                        "caller's traffic: user ",
                        0),
            0u)
      << error;
  EXPECT_NE(error.find("no-such-group-of-hxfd-tests (no such group)"), std::string::npos) << error;
}

TEST_F(DbusBroker, MonitorIsServedToHxfdsOwnUser) {
  std::string error;
  EXPECT_NE(Broker(":1.1", "Monitor", [](sd_bus_message*) { return 0; }, &error), nullptr)
      << error;
}

TEST_F(DbusBroker, ObjectPathsAreRandomNotSequential) {
  const std::string a = Watch(":1.1", "lights", 0);
  const std::string b = Watch(":1.1", "audio", 0);
  ASSERT_EQ(a.size(), std::string("/org/hxf/Broker/listen/").size() + 16) << a;
  EXPECT_NE(a.substr(0, a.size() - 4), b.substr(0, b.size() - 4)) << a << " " << b;
}

TEST_F(DbusBroker, SessionsWatchesAndWaitingCallsPerCallerAreLimited) {
  hxfd::Limits limits;
  limits.sessions = 2;
  limits.watches = 1;
  limits.pending = 1;
  OnBusThread(broker_, [&] { broker_->SetLimits(limits); });
  const auto subscribe = [&](const char* caller, std::string* error) {
    return Broker(
        caller, "Subscribe", [](sd_bus_message* m) { return sd_bus_message_append(m, "s", "lights"); },
        error);
  };
  std::string error;
  ASSERT_NE(subscribe(":1.1", &error), nullptr) << error;
  ASSERT_NE(subscribe(":1.1", &error), nullptr) << error;
  EXPECT_EQ(subscribe(":1.1", &error), nullptr);
  EXPECT_EQ(error,
            "org.hxf.Error.LimitsExceeded: this caller already has 2 sessions (limit "
            "max-sessions-per-caller in hxfd.conf)");
  EXPECT_NE(subscribe(":1.2", &error), nullptr) << "another caller's quota: " << error;
  ASSERT_FALSE(Watch(":1.1", "lights", 0).empty());
  EXPECT_TRUE(Watch(":1.1", "audio", 0).empty());
  BusMessage waiting;
  ASSERT_GE(sd_bus_message_new_method_call(client_, Out(waiting), nullptr, hxf_tool::kBrokerPath,
                                           hxf_tool::kBrokerInterface, "GetDevices"),
            0);
  ASSERT_GE(sd_bus_message_set_sender(waiting.get(), ":1.3"), 0);
  ASSERT_GE(sd_bus_message_append(waiting.get(), "su", "ghost", 2000u), 0);
  ASSERT_GE(sd_bus_send(client_, waiting.get(), nullptr), 0);
  EXPECT_EQ(Broker(
                ":1.3", "GetDevices",
                [](sd_bus_message* m) { return sd_bus_message_append(m, "su", "lights", 2000u); },
                &error),
            nullptr);
  EXPECT_EQ(error,
            "org.hxf.Error.LimitsExceeded: this caller already waits for 1 answers (limit "
            "max-pending-per-caller in hxfd.conf)");
}

TEST_F(DbusBroker, OverlongNamesAndValuesAreRefusedQuotingOnlyTheirStart) {
  const std::string huge(1 << 20, 'x');
  std::string error;
  EXPECT_EQ(Broker(
                ":1.1", "GetDevices",
                [&](sd_bus_message* m) { return sd_bus_message_append(m, "su", huge.c_str(), 500u); },
                &error),
            nullptr);
  EXPECT_EQ(error, "org.hxf.Error.LimitsExceeded: the service name \"" + huge.substr(0, 32) +
                       "\"... (1048576 bytes) is longer than 255 bytes (limit max-name-bytes in "
                       "hxfd.conf)");
  EXPECT_EQ(Broker(
                ":1.1", "Request",
                [&](sd_bus_message* m) {
                  return sd_bus_message_append(m, "ssa{sv}u", "lights", huge.c_str(), 0, 500u);
                },
                &error),
            nullptr);
  EXPECT_EQ(error.rfind("org.hxf.Error.LimitsExceeded: the operation \"xxx", 0), 0u) << error;
  EXPECT_LT(error.size(), 200u);
  EXPECT_EQ(Broker(
                ":1.1", "Request",
                [&](sd_bus_message* m) {
                  return sd_bus_message_append(m, "ssa{sv}u", "lights", "set", 2, "device_id", "s",
                                               "lamp-1", "name", "s", huge.c_str(), 500u);
                },
                &error),
            nullptr);
  EXPECT_EQ(error,
            "org.hxf.Error.LimitsExceeded: the value of \"name\" is longer than 65536 bytes "
            "(limit max-text-bytes in hxfd.conf)");
  EXPECT_TRUE(Watch(":1.1", "lights", 0xFFFFFFF0u).empty());
  EXPECT_EQ(Broker(
                ":1.1", "Search",
                [](sd_bus_message* m) { return sd_bus_message_append(m, "su", "lights", 0xFFFFFFF0u); },
                &error),
            nullptr);
  EXPECT_EQ(error,
            "org.hxf.Error.LimitsExceeded: timeout_ms 4294967280 is above 3600000 ms (limit "
            "max-search-timeout-ms in hxfd.conf)");
}

TEST_F(DbusBroker, AMonitorThatDoesNotReadIsDroppedAndOthersAreServed) {
  hxfd::Limits limits;
  limits.monitor_unread = 100;
  OnBusThread(broker_, [&] { broker_->SetLimits(limits); });
  ASSERT_NE(Broker(":1.5", "Monitor", [](sd_bus_message*) { return 0; }), nullptr);
  // sd_bus_call reads only its reply: the monitor's pings wait unanswered meanwhile.
  for (int i = 0; i < 200; ++i) {
    std::string error;
    ASSERT_NE(Broker(
                  ":1.1", "Request",
                  [](sd_bus_message* m) {
                    return sd_bus_message_append(m, "ssa{sv}u", "lights", "get", 1, "device_id",
                                                 "s", "lamp-1", 2000u);
                  },
                  &error),
              nullptr)
        << error;
  }
  ASSERT_TRUE(Await([&] { return sd_bus_process(client_, nullptr) == 0; }));
  size_t events = 0;
  for (const Signal& signal : signals_) events += signal.member == "Event" ? 1 : 0;
  EXPECT_EQ(events, 100u);
}

TEST(DbusBrokerThreads, BusThreadCodeCalledFromAnotherThreadAborts) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        sd_event* event = nullptr;
        sd_event_new(&event);
        hxfd::CCoreRoutes routes;
        routes.Start(event);
        std::thread other([&] { routes.Add(static_cast<hxfd::CWatch*>(nullptr)); });
        other.join();
      },
      "bus-thread code called from another thread");
}

}  // namespace
