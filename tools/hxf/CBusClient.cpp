#include "CBusClient.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace hxf_tool {

namespace {

// Long calls (device lists, requests) wait this much longer than the time-out they carry, so
// that hxfd's own time-out answer arrives before the D-Bus call gives up.
constexpr uint64_t kGraceMs = 5000;
// Everything else is answered at once; hxfd started by activation loads its plugins first.
constexpr uint64_t kCallTimeoutUs = 10 * 1000 * 1000;

CBusClient* Self(void* user_data) {
  return static_cast<CBusClient*>(user_data);
}

std::string Text(const char* text) {
  return text != nullptr ? text : "";
}

// How hxfd is started on `where`.
std::string StartHint(const std::string& where) {
  if (where == "session") return "hxfd &";
  if (where == "system") return "systemctl start hxfd";
  return "hxfd --address " + where + " &";
}

// A failure of the bus itself (not an answer of hxfd) in words.
std::string BusProblem(int r, const sd_bus_error& error) {
  if (sd_bus_error_has_names(&error, SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
    return "hxfd is not running on the bus";
  if (sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED))
    return "the bus's policy does not let this user call hxfd: " + Text(error.message);
  if (sd_bus_error_is_set(&error) &&
      std::strncmp(error.name, "org.freedesktop.DBus.Error.Spawn.", 33) == 0)
    return "the bus could not start hxfd: " + Text(error.message);
  if (sd_bus_error_has_names(&error, SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_TIMEOUT) ||
      r == -ETIMEDOUT)
    return "hxfd did not answer in time";
  if (r == -ECONNRESET || r == -ENOTCONN ||
      sd_bus_error_has_name(&error, SD_BUS_ERROR_DISCONNECTED))
    return "the bus closed the connection";
  if (sd_bus_error_is_set(&error)) return Text(error.name) + ": " + Text(error.message);
  return std::strerror(-r);
}

// Why hxfd on `where` did not answer its first call, with what to do.
std::string BrokerUnreachable(const std::string& where, int r, const sd_bus_error& error) {
  if (sd_bus_error_has_names(&error, SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
    return "hxfd is not running on the bus " + where + " (start it: " + StartHint(where) + ")";
  return "hxfd on the bus " + where + ": " + BusProblem(r, error);
}

}  // namespace

bool CBusClient::Open(const std::string& where) {
  int r = ConnectBus(where, &bus_);
  if (r < 0) {
    out_.Fail(ConnectFailure(where, r));
    return false;
  }
  sd_bus_set_method_call_timeout(bus_, kCallTimeoutUs);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  r = sd_bus_call_method(bus_, kBusName, kBrokerPath, "org.freedesktop.DBus.Peer", "Ping", &error,
                         nullptr, "");
  if (r < 0) {
    out_.Fail(BrokerUnreachable(where, r, error));
    sd_bus_error_free(&error);
    return false;
  }
  // Signals come only to their owner, so matching the interface is enough. hxfd leaving the
  // bus, or the bus going away, ends what is waiting for it.
  const std::string gone = std::string(
                               "type='signal',sender='org.freedesktop.DBus',"
                               "path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
                               "member='NameOwnerChanged',arg0='") +
                           kBusName + "'";
  const auto left = [](sd_bus_message* m, void* self, sd_bus_error*) {
    const char* name = nullptr;
    const char* old_owner = nullptr;
    const char* new_owner = nullptr;
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected") ||
        (sd_bus_message_read(m, "sss", &name, &old_owner, &new_owner) >= 0 && *new_owner == '\0'))
      Self(self)->events_.Push(Event{Event::kBrokerGone});
    return 0;
  };
  r = sd_event_new(&event_);
  if (r >= 0) r = sd_bus_attach_event(bus_, event_, SD_EVENT_PRIORITY_NORMAL);
  if (r >= 0) r = tasks_.Start(event_);
  if (r >= 0)
    r = sd_bus_match_signal(bus_, nullptr, nullptr, nullptr, kSearchInterface, nullptr,
                            &CBusClient::OnSearchSignal, this);
  if (r >= 0)
    r = sd_bus_match_signal(bus_, nullptr, nullptr, nullptr, kSessionInterface, "Notification",
                            &CBusClient::OnNotification, this);
  if (r >= 0)
    r = sd_bus_match_signal(bus_, nullptr, nullptr, nullptr, kMonitorInterface, "Event",
                            &CBusClient::OnMonitorEvent, this);
  if (r >= 0) r = sd_bus_add_match(bus_, nullptr, gone.c_str(), left, this);
  if (r >= 0)
    r = sd_bus_match_signal(bus_, nullptr, nullptr, "/org/freedesktop/DBus/Local",
                            "org.freedesktop.DBus.Local", "Disconnected", left, this);
  if (r < 0) {
    out_.Fail(std::string("cannot follow hxfd on the bus: ") + std::strerror(-r));
    return false;
  }
  // From here on the bus thread owns the connection; starting it orders everything above
  // before its first access.
  thread_ = std::thread([this] {
    sd_event_loop(event_);
    loop_ended_ = true;
    events_.Push(Event{Event::kBrokerGone});
  });
  return true;
}

CBusClient::~CBusClient() {
  if (thread_.joinable()) {
    tasks_.Post([this] { sd_event_exit(event_, 0); });
    thread_.join();  // the connection is this thread's again
  }
  tasks_.Stop();
  if (bus_ != nullptr) sd_bus_flush_close_unref(bus_);  // pending calls free their Pending
  if (event_ != nullptr) sd_event_unref(event_);
}

int CBusClient::OnBusThread(const std::function<int()>& call) {
  int answer = HXF_ERROR_OPERATION_FAILED;
  std::atomic<bool> answered{false};
  tasks_.Post([&] {
    answer = call();
    answered = true;  // orders `answer` before the main thread's look at it
    events_.Wake();
  });
  // The loop runs until this object goes, unless the connection broke it: then the task
  // never runs (and is dropped unrun), and the thread's kBrokerGone wakes this wait.
  events_.Until([&] { return answered.load() || loop_ended_.load(); });
  return answered ? answer : HXF_ERROR_OPERATION_FAILED;
}

int CBusClient::CodeOf(int r, const sd_bus_error* error) const {
  const sd_bus_error none = SD_BUS_ERROR_NULL;
  const sd_bus_error& e = error != nullptr ? *error : none;
  if (sd_bus_error_is_set(&e) && std::strncmp(e.name, "org.hxf.Error.", 14) == 0)
    return ErrorCode(e.name);
  // hxfd left with the call unanswered: the broker-gone event says so, once.
  if (sd_bus_error_has_name(&e, SD_BUS_ERROR_NO_REPLY) && e.message != nullptr &&
      std::strstr(e.message, "disconnected") != nullptr) {
    events_.Push(Event{Event::kBrokerGone});
    return HXF_ERROR_OPERATION_FAILED;
  }
  out_.Log("hxf: D-Bus: " + BusProblem(r, e));
  return HXF_ERROR_OPERATION_FAILED;
}

int CBusClient::CallBroker(const char* method, const std::function<int(sd_bus_message*)>& fill,
                           std::string* path) {
  sd_bus_message* m = nullptr;
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int r = sd_bus_message_new_method_call(bus_, &m, kBusName, kBrokerPath, kBrokerInterface, method);
  if (r >= 0) r = fill(m);
  if (r >= 0) r = sd_bus_call(bus_, m, 0, &error, &reply);
  const char* object = nullptr;
  if (r >= 0 && path != nullptr && (r = sd_bus_message_read(reply, "o", &object)) >= 0)
    *path = object;
  const int code = r < 0 ? CodeOf(r, &error) : HXF_ERROR_NONE;
  sd_bus_error_free(&error);
  sd_bus_message_unref(reply);
  sd_bus_message_unref(m);
  return code;
}

int CBusClient::CallLater(const std::string& path, const char* interface, const char* method,
                          uint64_t timeout_ms, const std::function<int(sd_bus_message*)>& fill,
                          sd_bus_message_handler_t on_reply, Pending pending) {
  sd_bus_message* m = nullptr;
  sd_bus_slot* slot = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &m, kBusName, path.c_str(), interface, method);
  if (r >= 0) r = fill(m);
  auto* data = new Pending(std::move(pending));
  if (r >= 0) r = sd_bus_call_async(bus_, &slot, m, on_reply, data, (timeout_ms + kGraceMs) * 1000);
  sd_bus_message_unref(m);
  if (r < 0) {
    delete data;
    return CodeOf(r, nullptr);
  }
  // The slot frees `data` once answered, or when the connection closes first; the bus keeps
  // the slot until then.
  sd_bus_slot_set_destroy_callback(slot, [](void* p) { delete static_cast<Pending*>(p); });
  sd_bus_slot_set_floating(slot, 1);
  sd_bus_slot_unref(slot);
  return HXF_ERROR_NONE;
}

// ---- the commands' calls ----

int CBusClient::Search(const std::string& service, uint32_t timeout_ms) {
  return StartWatch("Search", service, [&](sd_bus_message* m) {
    return sd_bus_message_append(m, "su", service.c_str(), timeout_ms);
  });
}

int CBusClient::Listen(const std::string& service) {
  return StartWatch("Listen", service, [&](sd_bus_message* m) {
    return sd_bus_message_append(m, "s", service.c_str());
  });
}

int CBusClient::StartWatch(const char* method, const std::string& service,
                           const std::function<int(sd_bus_message*)>& fill) {
  return OnBusThread([&] {
    std::string path;
    const int code = CallBroker(method, fill, &path);
    if (code == HXF_ERROR_NONE) watches_[path] = service;
    return code;
  });
}

void CBusClient::StopSearch(const std::string& service) {
  StopWatch(service);
}

void CBusClient::StopListen(const std::string& service) {
  StopWatch(service);
}

void CBusClient::StopWatch(const std::string& service) {
  OnBusThread([&] {
    for (auto it = watches_.begin(); it != watches_.end(); ++it) {
      if (it->second != service) continue;
      // A search that already finished is gone from hxfd too: nothing to stop then.
      sd_bus_call_method(bus_, kBusName, it->first.c_str(), kSearchInterface, "Stop", nullptr,
                         nullptr, "");
      watches_.erase(it);
      break;
    }
    return 0;
  });
}

int CBusClient::AskDevices(const std::string& service, uint32_t timeout_ms) {
  return OnBusThread([&] {
    return CallLater(
        kBrokerPath, kBrokerInterface, "GetDevices", timeout_ms,
        [&](sd_bus_message* m) {
          return sd_bus_message_append(m, "su", service.c_str(), timeout_ms);
        },
        &CBusClient::OnDevices, Pending{this, service, "", 0});
  });
}

int CBusClient::Subscribe(const std::string& service, uint64_t* session) {
  return OnBusThread([&] {
    std::string path;
    const int code = CallBroker(
        "Subscribe",
        [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", service.c_str()); }, &path);
    if (code != HXF_ERROR_NONE) return code;
    *session = next_id_++;
    sessions_[path] = service;
    session_paths_[*session] = path;
    return code;
  });
}

int CBusClient::Request(uint64_t session, const std::string& operation,
                        const std::vector<PropertyValue>& properties, uint32_t timeout_ms,
                        uint64_t* transaction) {
  return OnBusThread([&] {
    auto path = session_paths_.find(session);
    if (path == session_paths_.end()) return static_cast<int>(HXF_ERROR_INVALID_HANDLE);
    *transaction = next_id_++;
    return CallLater(
        path->second, kSessionInterface, "Request", timeout_ms,
        [&](sd_bus_message* m) {
          int r = sd_bus_message_append(m, "s", operation.c_str());
          if (r >= 0) r = AppendProperties(m, properties);
          return r < 0 ? r : sd_bus_message_append(m, "u", timeout_ms);
        },
        &CBusClient::OnResult, Pending{this, sessions_.at(path->second), operation, *transaction});
  });
}

int CBusClient::Monitor() {
  return OnBusThread([&] {
    return CallBroker(
        "Monitor", [](sd_bus_message*) { return 0; }, nullptr);
  });
}

bool CBusClient::OfferedServices(std::vector<std::string>* services) {
  return OnBusThread([&] {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    int known = 0;
    char** list = nullptr;
    int r = sd_bus_get_property_trivial(bus_, kBusName, kBrokerPath, kBrokerInterface,
                                        "ServicesKnown", &error, 'b', &known);
    if (r >= 0 && known != 0)
      r = sd_bus_get_property_strv(bus_, kBusName, kBrokerPath, kBrokerInterface, "Services",
                                   &error, &list);
    sd_bus_error_free(&error);
    services->clear();
    for (char** service = list; service != nullptr && *service != nullptr; ++service) {
      services->push_back(*service);
      std::free(*service);
    }
    std::free(list);
    return r >= 0 && known != 0 ? HXF_ERROR_NONE : HXF_ERROR_NOT_FOUND;
  }) == HXF_ERROR_NONE;
}

bool CBusClient::LoadedPlugins(std::vector<LoadedPlugin>* plugins) {
  return OnBusThread([&] {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_get_property(bus_, kBusName, kBrokerPath, kBrokerInterface, "Plugins", &error,
                                &reply, "a(ssss)");
    if (r >= 0) r = sd_bus_message_enter_container(reply, 'a', "(ssss)");
    while (r > 0) {
      const char* name = nullptr;
      const char* description = nullptr;
      const char* state = nullptr;
      const char* reason = nullptr;
      r = sd_bus_message_read(reply, "(ssss)", &name, &description, &state, &reason);
      if (r > 0) plugins->push_back({name, description, state, reason});
    }
    if (r >= 0) r = sd_bus_message_exit_container(reply);
    const int code = r < 0 ? CodeOf(r, &error) : HXF_ERROR_NONE;
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    return code;
  }) == HXF_ERROR_NONE;
}

// ---- answers and signals, on the bus thread ----

int CBusClient::OnDevices(sd_bus_message* m, void* data, sd_bus_error*) {
  const auto* pending = static_cast<Pending*>(data);
  CBusClient* self = pending->client;
  Event event{Event::kList};
  event.name = pending->service;
  if (const sd_bus_error* error = sd_bus_message_get_error(m)) {
    event.code = self->CodeOf(0, error);
    if (event.code == HXF_ERROR_TIMED_OUT) {
      event.code = HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT;
    } else {
      event.kind = Event::kRefused;
    }
    self->events_.Push(std::move(event));
    return 0;
  }
  event.code = HXF_ENDPOINT_DISCOVERY_RESULT_FOUND;
  int r = sd_bus_message_enter_container(m, 'a', "a{sv}");
  while (r >= 0 && sd_bus_message_at_end(m, 0) == 0) {
    Device device;
    r = ReadDevice(m, &device);
    if (r >= 0) event.devices.push_back(std::move(device));
  }
  if (r < 0) {
    event.kind = Event::kRefused;
    event.code = self->CodeOf(r, nullptr);
  }
  self->events_.Push(std::move(event));
  return 0;
}

int CBusClient::OnResult(sd_bus_message* m, void* data, sd_bus_error*) {
  const auto* pending = static_cast<Pending*>(data);
  CBusClient* self = pending->client;
  Event event{Event::kResult};
  event.name = pending->service;
  event.transaction = pending->transaction;
  if (const sd_bus_error* error = sd_bus_message_get_error(m)) {
    event.code = self->CodeOf(0, error);
    // A time-out has no result list; a refusal's message is the provider's "error" text.
    if (event.code != HXF_ERROR_TIMED_OUT) {
      event.list_name = pending->operation;
      event.properties.push_back({"error", Text(error->message)});
    }
    self->events_.Push(std::move(event));
    return 0;
  }
  event.list_name = pending->operation;
  std::string problem;
  const int r = ReadProperties(m, &event.properties, &problem);
  if (r < 0) {
    event.code = self->CodeOf(r, nullptr);
    event.properties = {{"error", problem.empty() ? "unreadable result" : problem}};
  }
  self->events_.Push(std::move(event));
  return 0;
}

int CBusClient::OnSearchSignal(sd_bus_message* m, void* self, sd_bus_error*) {
  CBusClient* client = Self(self);
  auto watch = client->watches_.find(Text(sd_bus_message_get_path(m)));
  if (watch == client->watches_.end()) return 0;
  Event event{Event::kFound};
  event.name = watch->second;
  if (sd_bus_message_is_signal(m, kSearchInterface, "Finished")) {
    const char* reason = nullptr;
    if (sd_bus_message_read(m, "s", &reason) < 0) return 0;
    client->watches_.erase(watch);
    if (std::strcmp(reason, "stopped") == 0) return 0;
    event.code = HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT;  // the search ended
  } else {
    Device device;
    if (ReadDevice(m, &device) < 0) return 0;
    event.code = HXF_ENDPOINT_DISCOVERY_RESULT_FOUND;  // a departure is marked in its UI meta
    event.devices.push_back(std::move(device));
  }
  client->events_.Push(std::move(event));
  return 0;
}

int CBusClient::OnNotification(sd_bus_message* m, void* self, sd_bus_error*) {
  CBusClient* client = Self(self);
  auto session = client->sessions_.find(Text(sd_bus_message_get_path(m)));
  if (session == client->sessions_.end()) return 0;
  Event event{Event::kNotification};
  event.name = session->second;
  const char* operation = nullptr;
  uint32_t error = 0;
  std::string problem;
  if (sd_bus_message_read(m, "s", &operation) < 0 ||
      ReadProperties(m, &event.properties, &problem) < 0 || sd_bus_message_read(m, "u", &error) < 0)
    return 0;
  event.list_name = operation;
  event.code = static_cast<int>(error);
  client->events_.Push(std::move(event));
  return 0;
}

int CBusClient::OnMonitorEvent(sd_bus_message* m, void* self, sd_bus_error*) {
  Event event{Event::kMonitor};
  const char* type = nullptr;
  const char* caller = nullptr;
  const char* service = nullptr;
  const char* operation = nullptr;
  std::string problem;
  if (sd_bus_message_read(m, "tssss", &event.timestamp_us, &type, &caller, &service, &operation) <
          0 ||
      sd_bus_message_read(m, "t", &event.transaction) < 0 ||
      ReadProperties(m, &event.properties, &problem) < 0)
    return 0;
  event.type = type;
  event.caller = caller;
  event.name = service;
  event.list_name = operation;
  Self(self)->events_.Push(std::move(event));
  return 0;
}

}  // namespace hxf_tool
