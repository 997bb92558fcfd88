#include "CBusBroker.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "CPluginInfo.h"
#include "PluginFiles.h"
#include "hxf_core_version.h"

namespace hxfd {

namespace {

using hxf_tool::AppendDevice;
using hxf_tool::AppendProperties;
using hxf_tool::Device;
using hxf_tool::ErrorName;
using hxf_tool::kBrokerInterface;
using hxf_tool::kBrokerPath;
using hxf_tool::kBusName;
using hxf_tool::kMonitorInterface;
using hxf_tool::kSearchInterface;
using hxf_tool::kSessionInterface;
using hxf_tool::PropertyValue;

CBusBroker* Self(void* user_data) {
  return static_cast<CBusBroker*>(user_data);
}
hxf_string View(const std::string& text) {
  return hxf_string{text.c_str(), static_cast<uint32_t>(text.size())};
}

int Refuse(sd_bus_error* error, const char* name, const std::string& message) {
  return sd_bus_error_set(error, name, message.c_str());
}

uint64_t NowUs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

// A method answered only when the core answers must be answered before the caller gives up.
bool CallTimeoutFits(uint32_t timeout_ms, sd_bus_error* error) {
  if (timeout_ms > 0 && timeout_ms < kCallTimeoutMs) return true;
  Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER),
         "timeout_ms " + std::to_string(timeout_ms) + " must be above 0 and below " +
             std::to_string(kCallTimeoutMs) + " (the D-Bus call would time out first)");
  return false;
}

std::string ErrorText(const std::vector<PropertyValue>& properties, int code) {
  for (const PropertyValue& p : properties) {
    if (p.name == "error" && p.value.is_string()) return p.value.get<std::string>();
  }
  return std::string("the request failed with ") + ErrorName(code);
}

}  // namespace

// ---- vtables: introspection names every argument ----

namespace {

const sd_bus_vtable kBrokerVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Search", "su", SD_BUS_PARAM(service) SD_BUS_PARAM(timeout_ms), "o",
                             SD_BUS_PARAM(search), &CBusBroker::OnSearch,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Listen", "s", SD_BUS_PARAM(service), "o", SD_BUS_PARAM(listen),
                             &CBusBroker::OnListen, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("GetDevices", "su", SD_BUS_PARAM(service) SD_BUS_PARAM(timeout_ms),
                             "aa{sv}", SD_BUS_PARAM(devices), &CBusBroker::OnGetDevices,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Subscribe", "s", SD_BUS_PARAM(service), "o", SD_BUS_PARAM(session),
                             &CBusBroker::OnSubscribe, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Request", "ssa{sv}u",
                             SD_BUS_PARAM(service) SD_BUS_PARAM(operation) SD_BUS_PARAM(properties)
                                 SD_BUS_PARAM(timeout_ms),
                             "a{sv}", SD_BUS_PARAM(result), &CBusBroker::OnDirectRequest,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Monitor", "", "", &CBusBroker::OnMonitor, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Version", "s", &CBusBroker::GetVersion, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    // name, description, load state (loaded or failed), why it failed
    SD_BUS_PROPERTY("Plugins", "a(ssss)", &CBusBroker::GetPlugins, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Services", "as", &CBusBroker::GetServices, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("ServicesKnown", "b", &CBusBroker::GetServicesKnown, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kMonitorVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_SIGNAL_WITH_NAMES("Event", "tssssta{sv}",
                             SD_BUS_PARAM(timestamp_us) SD_BUS_PARAM(type) SD_BUS_PARAM(caller)
                                 SD_BUS_PARAM(service) SD_BUS_PARAM(operation)
                                     SD_BUS_PARAM(transaction) SD_BUS_PARAM(payload),
                             0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kSearchVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Stop", "", "", &CBusBroker::OnStop, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("DeviceFound", "a{sv}", SD_BUS_PARAM(device), 0),
    SD_BUS_SIGNAL_WITH_NAMES("DeviceLost", "a{sv}", SD_BUS_PARAM(device), 0),
    SD_BUS_SIGNAL_WITH_NAMES("Finished", "s", SD_BUS_PARAM(reason), 0),
    SD_BUS_VTABLE_END};

const sd_bus_vtable kSessionVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES(
        "Request", "sa{sv}u",
        SD_BUS_PARAM(operation) SD_BUS_PARAM(properties) SD_BUS_PARAM(timeout_ms), "a{sv}",
        SD_BUS_PARAM(result), &CBusBroker::OnRequest, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Close", "", "", &CBusBroker::OnClose, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Notification", "sa{sv}u",
                             SD_BUS_PARAM(operation) SD_BUS_PARAM(properties) SD_BUS_PARAM(error),
                             0),
    SD_BUS_VTABLE_END};

}  // namespace

// ---- life ----

CBusBroker::CBusBroker(sd_bus* bus, sd_event* event) : bus_(bus), event_(event) {}

CBusBroker::~CBusBroker() {
  Stop();
}

int CBusBroker::Start() {
  int r = tasks_.Start(event_);
  if (r < 0) return r;
  r = sd_bus_add_object_vtable(bus_, &broker_slot_, kBrokerPath, kBrokerInterface, kBrokerVtable,
                               this);
  if (r < 0) return r;
  r = sd_bus_add_object_vtable(bus_, nullptr, kBrokerPath, kMonitorInterface, kMonitorVtable, this);
  if (r < 0) return r;
  return sd_bus_request_name(bus_, kBusName, 0);
}

void CBusBroker::Stop() {
  while (!callers_.empty()) ForgetCaller(callers_.begin()->first);
  if (broker_slot_ != nullptr) broker_slot_ = sd_bus_slot_unref(broker_slot_);
  tasks_.Stop();
}

void CBusBroker::PluginLoaded(const std::string& name, bool ok, const std::string& reason) {
  hxf_tool::PluginInfo info;
  info.path = hxf_tool::PluginPath(name);
  hxf_tool::ReadPluginInfo(info.path, &info.info);
  Plugin plugin;
  plugin.name = name;
  const auto description = info.info.find("description");
  if (description != info.info.end()) plugin.description = description->second;
  plugin.loaded = ok;
  plugin.reason = ok ? "" : reason;
  plugin.services = info.Services();
  plugins_.push_back(std::move(plugin));
  const int r = sd_bus_emit_properties_changed(bus_, kBrokerPath, kBrokerInterface, "Plugins",
                                               "Services", "ServicesKnown", nullptr);
  if (r < 0)
    std::fprintf(stderr, "hxfd: cannot announce the plugins' change: %s\n", std::strerror(-r));
  Monitor("plugin", "", "", "", 0, [&](sd_bus_message* m) {
    return sd_bus_message_append(m, "a{sv}", 2, "name", "s", name.c_str(), "loaded", "b",
                                 static_cast<int>(ok));
  });
}

// ---- Broker1's properties ----

int CBusBroker::GetVersion(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                           void*, sd_bus_error*) {
  return sd_bus_message_append(reply, "s", HXF_CORE_VERSION_STRING);
}

int CBusBroker::GetPlugins(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                           void* self, sd_bus_error*) {
  int r = sd_bus_message_open_container(reply, 'a', "(ssss)");
  for (const Plugin& plugin : Self(self)->plugins_) {
    if (r >= 0)
      r = sd_bus_message_append(reply, "(ssss)", plugin.name.c_str(), plugin.description.c_str(),
                                plugin.loaded ? "loaded" : "failed", plugin.reason.c_str());
  }
  return r < 0 ? r : sd_bus_message_close_container(reply);
}

int CBusBroker::GetServices(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                            void* self, sd_bus_error*) {
  // The declared services of the plugins that are loaded, each once, in load order.
  std::vector<std::string> services;
  for (const Plugin& plugin : Self(self)->plugins_) {
    if (!plugin.loaded) continue;
    for (const std::string& service : plugin.services) {
      if (std::find(services.begin(), services.end(), service) == services.end())
        services.push_back(service);
    }
  }
  int r = sd_bus_message_open_container(reply, 'a', "s");
  for (const std::string& service : services) {
    if (r >= 0) r = sd_bus_message_append(reply, "s", service.c_str());
  }
  return r < 0 ? r : sd_bus_message_close_container(reply);
}

int CBusBroker::GetServicesKnown(sd_bus*, const char*, const char*, const char*,
                                 sd_bus_message* reply, void* self, sd_bus_error*) {
  const std::vector<Plugin>& plugins = Self(self)->plugins_;
  const bool known = std::all_of(plugins.begin(), plugins.end(), [](const Plugin& plugin) {
    return !plugin.loaded || !plugin.services.empty();
  });
  return sd_bus_message_append(reply, "b", static_cast<int>(known));
}

// ---- callers ----

CBusBroker::Caller* CBusBroker::CallerOf(sd_bus_message* message, sd_bus_error* error) {
  const char* sender = sd_bus_message_get_sender(message);
  if (sender == nullptr) {
    Refuse(error, ErrorName(HXF_ERROR_INVALID_CLIENT), "the call has no sender");
    return nullptr;
  }
  auto found = callers_.find(sender);
  if (found != callers_.end()) return &found->second;
  Caller caller;
  caller.client = hxf_core_client_create(View(sender));
  if (caller.client == nullptr) {
    Refuse(error, ErrorName(HXF_ERROR_CREATE_FAILED), std::string("no client for ") + sender);
    return nullptr;
  }
  // The client lives as long as the caller's name: when it leaves the bus, the client goes.
  const std::string rule = std::string(
                               "type='signal',sender='org.freedesktop.DBus',"
                               "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                               "arg0='") +
                           sender + "'";
  const int r =
      sd_bus_add_match(bus_, &caller.gone, rule.c_str(), &CBusBroker::OnNameOwnerChanged, this);
  if (r < 0) {
    hxf_core_client_destroy(caller.client);
    Refuse(error, ErrorName(HXF_ERROR_OPERATION_FAILED),
           std::string("cannot follow ") + sender + ": " + std::strerror(-r));
    return nullptr;
  }
  return &callers_.emplace(sender, std::move(caller)).first->second;
}

int CBusBroker::OnNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*) {
  const char* name = nullptr;
  const char* old_owner = nullptr;
  const char* new_owner = nullptr;
  if (sd_bus_message_read(m, "sss", &name, &old_owner, &new_owner) < 0) return 0;
  if (new_owner != nullptr && *new_owner != '\0') return 0;
  CBusBroker* broker = Self(self);
  if (broker->callers_.count(name) == 0) return 0;
  broker->Monitor("client-gone", name, "", "", 0,
                  [](sd_bus_message* mm) { return sd_bus_message_append(mm, "a{sv}", 0); });
  broker->ForgetCaller(name);
  return 0;
}

void CBusBroker::ForgetCaller(const std::string& name) {
  auto found = callers_.find(name);
  if (found == callers_.end()) return;
  Caller caller = std::move(found->second);
  callers_.erase(found);
  monitors_.erase(name);
  for (const std::string& path : caller.objects) RemoveObject(path);
  // Calls still waiting get no answer: their caller is gone.
  for (auto it = lists_.begin(); it != lists_.end();) {
    if (it->first.first != name) {
      ++it;
      continue;
    }
    sd_bus_message_unref(it->second.message);
    it = lists_.erase(it);
  }
  for (auto it = requests_.begin(); it != requests_.end();) {
    if (it->second.owner != name) {
      ++it;
      continue;
    }
    sd_bus_message_unref(it->second.message);
    it = requests_.erase(it);
  }
  hxf_core_client_destroy(caller.client);  // its searches and sessions end with it
  sd_bus_slot_unref(caller.gone);
}

std::string CBusBroker::NewPath(const char* kind) {
  return std::string(kBrokerPath) + "/" + kind + "/" + std::to_string(next_object_++);
}

template <typename Object>
Object* CBusBroker::Owned(std::map<std::string, std::unique_ptr<Object>>& objects,
                          sd_bus_message* message, void* userdata, sd_bus_error* error) {
  auto* object = static_cast<Object*>(userdata);
  const char* sender = sd_bus_message_get_sender(message);
  if (sender == nullptr || object->owner != sender) {
    Refuse(error, SD_BUS_ERROR_ACCESS_DENIED,
           std::string(sd_bus_message_get_path(message)) + " belongs to another caller");
    return nullptr;
  }
  return objects.count(object->path) != 0 ? object : nullptr;
}

void CBusBroker::RemoveObject(const std::string& path) {
  if (auto w = watches_.find(path); w != watches_.end()) {
    Watch& watch = *w->second;
    auto caller = callers_.find(watch.owner);
    if (caller != callers_.end()) {
      if (watch.listen) {
        hxf_core_client_stop_passive_search(caller->second.client, View(watch.service));
      } else {
        hxf_core_client_stop_active_search(caller->second.client, View(watch.service));
      }
      caller->second.objects.erase(path);
    }
    if (watch.timer != nullptr) sd_event_source_disable_unref(watch.timer);
    sd_bus_slot_unref(watch.slot);
    watches_.erase(w);
  }
  if (auto s = sessions_.find(path); s != sessions_.end()) {
    auto caller = callers_.find(s->second->owner);
    if (caller != callers_.end()) caller->second.objects.erase(path);
    sd_bus_slot_unref(s->second->slot);
    sessions_.erase(s);
  }
}

// ---- signals ----

void CBusBroker::SendTo(const std::string& owner, const std::string& path, const char* interface,
                        const char* member, const std::function<int(sd_bus_message*)>& fill) {
  sd_bus_message* m = nullptr;
  int r = sd_bus_message_new_signal(bus_, &m, path.c_str(), interface, member);
  // To its owner only: a signal with a destination reaches no other connection.
  if (r >= 0) r = sd_bus_message_set_destination(m, owner.c_str());
  if (r >= 0) r = fill(m);
  if (r >= 0) r = sd_bus_send(bus_, m, nullptr);
  if (r < 0)
    std::fprintf(stderr, "hxfd: cannot send %s to %s: %s\n", member, owner.c_str(),
                 std::strerror(-r));
  sd_bus_message_unref(m);
}

void CBusBroker::Monitor(const std::string& type, const std::string& caller,
                         const std::string& service, const std::string& operation,
                         uint64_t transaction, const std::function<int(sd_bus_message*)>& payload) {
  const uint64_t now = NowUs();
  for (const std::string& monitor : monitors_) {
    SendTo(monitor, kBrokerPath, kMonitorInterface, "Event", [&](sd_bus_message* m) {
      const int r = sd_bus_message_append(m, "tsssst", now, type.c_str(), caller.c_str(),
                                          service.c_str(), operation.c_str(), transaction);
      return r < 0 ? r : payload(m);
    });
  }
}

// ---- Broker1 ----

int CBusBroker::OnSearch(sd_bus_message* m, void* self, sd_bus_error* error) {
  return Self(self)->StartWatch(m, false, error);
}

int CBusBroker::OnListen(sd_bus_message* m, void* self, sd_bus_error* error) {
  return Self(self)->StartWatch(m, true, error);
}

int CBusBroker::StartWatch(sd_bus_message* m, bool listen, sd_bus_error* error) {
  const char* service = nullptr;
  uint32_t timeout_ms = 0;
  int r = listen ? sd_bus_message_read(m, "s", &service)
                 : sd_bus_message_read(m, "su", &service, &timeout_ms);
  if (r < 0) return r;
  if (*service == '\0')
    return Refuse(error, ErrorName(HXF_ERROR_INVALID_SERVICE_NAME), "the service name is empty");
  if (!listen && timeout_ms == 0)
    return Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER), "timeout_ms must be above 0");
  Caller* caller = CallerOf(m, error);
  if (caller == nullptr) return -EINVAL;
  const std::string owner = sd_bus_message_get_sender(m);
  for (const auto& [path, watch] : watches_) {
    if (watch->owner == owner && watch->service == service && watch->listen == listen)
      return Refuse(error, hxf_tool::kErrorInProgress,
                    std::string(listen ? "already listening to " : "already searching ") + service +
                        " (" + path + ")");
  }
  auto watch = std::make_unique<Watch>();
  watch->path = NewPath(listen ? "listen" : "search");
  watch->owner = owner;
  watch->service = service;
  watch->listen = listen;
  watch->broker = this;
  r = sd_bus_add_object_vtable(bus_, &watch->slot, watch->path.c_str(), kSearchInterface,
                               kSearchVtable, watch.get());
  if (r < 0) return r;
  const hxf_error_e started =
      listen ? hxf_core_client_start_passive_search(caller->client, View(watch->service),
                                                    &CBusBroker::OnFound, this)
             : hxf_core_client_start_active_search(caller->client, View(watch->service),
                                                   &CBusBroker::OnFound, timeout_ms, this);
  if (started != HXF_ERROR_NONE) {
    sd_bus_slot_unref(watch->slot);
    return Refuse(error, ErrorName(started), std::string("cannot search ") + service);
  }
  if (!listen) {
    // The core reports no time-out once a device is found: the search keeps its own deadline.
    uint64_t now = 0;
    sd_event_now(event_, CLOCK_MONOTONIC, &now);
    sd_event_add_time(event_, &watch->timer, CLOCK_MONOTONIC, now + timeout_ms * 1000ULL, 0,
                      &CBusBroker::OnWatchTimer, watch.get());
  }
  Monitor("search", owner, service, "", 0, [&](sd_bus_message* mm) {
    return listen ? sd_bus_message_append(mm, "a{sv}", 1, "passive", "b", 1)
                  : sd_bus_message_append(mm, "a{sv}", 1, "timeout_ms", "u", timeout_ms);
  });
  const std::string path = watch->path;
  caller->objects.insert(path);
  watches_.emplace(path, std::move(watch));
  return sd_bus_reply_method_return(m, "o", path.c_str());
}

int CBusBroker::OnWatchTimer(sd_event_source*, uint64_t, void* data) {
  auto* watch = static_cast<Watch*>(data);
  watch->broker->FinishWatch(watch, watch->found_any ? "done" : "timed_out");
  return 0;
}

void CBusBroker::FinishWatch(Watch* watch, const char* reason) {
  const std::string path = watch->path;
  SendTo(watch->owner, path, kSearchInterface, "Finished",
         [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", reason); });
  RemoveObject(path);
}

int CBusBroker::OnGetDevices(sd_bus_message* m, void* self, sd_bus_error* error) {
  CBusBroker* broker = Self(self);
  const char* service = nullptr;
  uint32_t timeout_ms = 0;
  int r = sd_bus_message_read(m, "su", &service, &timeout_ms);
  if (r < 0) return r;
  if (!CallTimeoutFits(timeout_ms, error)) return -EINVAL;
  Caller* caller = broker->CallerOf(m, error);
  if (caller == nullptr) return -EINVAL;
  const std::pair<std::string, std::string> key{sd_bus_message_get_sender(m), service};
  if (broker->lists_.count(key) != 0)
    return Refuse(error, hxf_tool::kErrorInProgress,
                  std::string("a device list of ") + service + " is already on its way");
  const hxf_error_e asked = hxf_core_client_get_device_list(caller->client, View(key.second),
                                                            &CBusBroker::OnList, timeout_ms, self);
  if (asked != HXF_ERROR_NONE)
    return Refuse(error, ErrorName(asked), std::string("cannot list ") + service);
  broker->lists_[key] = Call{sd_bus_message_ref(m), key.first, key.second, ""};
  broker->Monitor("search", key.first, key.second, "", 0, [&](sd_bus_message* mm) {
    return sd_bus_message_append(mm, "a{sv}", 1, "device_list_timeout_ms", "u", timeout_ms);
  });
  return 1;  // answered by Listed
}

CBusBroker::Caller* CBusBroker::ReadService(sd_bus_message* m, std::string* service,
                                            sd_bus_error* error) {
  const char* name = nullptr;
  if (sd_bus_message_read(m, "s", &name) < 0) {
    Refuse(error, SD_BUS_ERROR_INVALID_ARGS, "the service name cannot be read");
    return nullptr;
  }
  if (*name == '\0') {
    Refuse(error, ErrorName(HXF_ERROR_INVALID_SERVICE_NAME), "the service name is empty");
    return nullptr;
  }
  *service = name;
  return CallerOf(m, error);
}

std::unique_ptr<CBusBroker::Session> CBusBroker::MakeSession(const Caller& caller,
                                                             sd_bus_message* m,
                                                             const std::string& service,
                                                             sd_bus_error* error) {
  auto session = std::make_unique<Session>();
  session->owner = sd_bus_message_get_sender(m);
  session->service = service;
  session->broker = this;
  session->handle = hxf_core_client_subscribe_service(caller.client, View(session->service),
                                                      &CBusBroker::OnNotification, this);
  if (session->handle != nullptr) return session;
  Refuse(error, ErrorName(HXF_ERROR_NOT_FOUND),
         "no provider offers " + service + " (is its plugin loaded?)");
  return nullptr;
}

int CBusBroker::OnSubscribe(sd_bus_message* m, void* self, sd_bus_error* error) {
  CBusBroker* broker = Self(self);
  std::string service;
  Caller* caller = broker->ReadService(m, &service, error);
  if (caller == nullptr) return -EINVAL;
  std::unique_ptr<Session> session = broker->MakeSession(*caller, m, service, error);
  if (session == nullptr) return -ENOENT;
  session->path = broker->NewPath("session");
  const int r = sd_bus_add_object_vtable(broker->bus_, &session->slot, session->path.c_str(),
                                         kSessionInterface, kSessionVtable, session.get());
  if (r < 0) return r;
  const std::string path = session->path;
  caller->objects.insert(path);
  broker->sessions_.emplace(path, std::move(session));
  return sd_bus_reply_method_return(m, "o", path.c_str());
}

int CBusBroker::OnMonitor(sd_bus_message* m, void* self, sd_bus_error* error) {
  CBusBroker* broker = Self(self);
  if (broker->CallerOf(m, error) == nullptr) return -EINVAL;
  broker->monitors_.insert(sd_bus_message_get_sender(m));
  return sd_bus_reply_method_return(m, "");
}

// ---- Search1 and Session1 ----

int CBusBroker::OnStop(sd_bus_message* m, void* userdata, sd_bus_error* error) {
  auto* watch = static_cast<Watch*>(userdata);
  CBusBroker* broker = watch->broker;
  if (broker->Owned(broker->watches_, m, userdata, error) == nullptr) return -EACCES;
  const int r = sd_bus_reply_method_return(m, "");
  broker->FinishWatch(watch, "stopped");
  return r;
}

int CBusBroker::OnRequest(sd_bus_message* m, void* userdata, sd_bus_error* error) {
  auto* session = static_cast<Session*>(userdata);
  CBusBroker* broker = session->broker;
  if (broker->Owned(broker->sessions_, m, userdata, error) == nullptr) return -EACCES;
  return broker->SendRequest(m, *session, error);
}

int CBusBroker::OnDirectRequest(sd_bus_message* m, void* self, sd_bus_error* error) {
  CBusBroker* broker = Self(self);
  std::string service;
  Caller* caller = broker->ReadService(m, &service, error);
  if (caller == nullptr) return -EINVAL;
  // One session per caller and service, made on first use and kept while the caller is on
  // the bus; it has no object, so its notifications go nowhere.
  std::unique_ptr<Session>& session = caller->direct[service];
  if (session == nullptr) session = broker->MakeSession(*caller, m, service, error);
  if (session == nullptr) {
    caller->direct.erase(service);
    return -ENOENT;
  }
  return broker->SendRequest(m, *session, error);
}

int CBusBroker::SendRequest(sd_bus_message* m, const Session& session, sd_bus_error* error) {
  const char* operation = nullptr;
  int r = sd_bus_message_read(m, "s", &operation);
  if (r < 0) return r;
  if (*operation == '\0')
    return Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER), "the operation is empty");
  std::vector<PropertyValue> properties;
  std::string problem;
  if ((r = hxf_tool::ReadProperties(m, &properties, &problem)) < 0)
    return problem.empty() ? r : Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER), problem);
  std::unique_ptr<void, void (*)(hxf_property_list_h)> list(
      hxf_tool::MakeList(operation, properties), &hxf_property_list_destroy);
  uint32_t timeout_ms = 0;
  if ((r = sd_bus_message_read(m, "u", &timeout_ms)) < 0) return r;
  if (!CallTimeoutFits(timeout_ms, error)) return -EINVAL;
  auto caller = callers_.find(session.owner);
  if (caller == callers_.end()) return -ENOENT;
  hxf_transaction_h transaction = nullptr;
  const hxf_error_e sent =
      hxf_core_client_request_service(caller->second.client, session.handle, list.get(),
                                      &CBusBroker::OnResult, timeout_ms, &transaction, this);
  if (sent != HXF_ERROR_NONE)
    return Refuse(error, ErrorName(sent), std::string("cannot send ") + operation);
  // The answer is posted to this thread, so it is handled after this entry exists.
  requests_[transaction] = Call{sd_bus_message_ref(m), session.owner, session.service, operation};
  Monitor("request", session.owner, session.service, operation,
          reinterpret_cast<uintptr_t>(transaction),
          [&](sd_bus_message* mm) { return AppendProperties(mm, properties); });
  return 1;  // answered by Answered
}

int CBusBroker::OnClose(sd_bus_message* m, void* userdata, sd_bus_error* error) {
  auto* session = static_cast<Session*>(userdata);
  CBusBroker* broker = session->broker;
  if (broker->Owned(broker->sessions_, m, userdata, error) == nullptr) return -EACCES;
  const int r = sd_bus_reply_method_return(m, "");
  broker->RemoveObject(session->path);
  return r;
}

// ---- the core's answers, on the bus thread ----

void CBusBroker::Found(hxf_client_h client, const std::string& service, int result,
                       const Device* device) {
  std::string owner;
  for (const auto& [name, caller] : callers_) {
    if (caller.client == client) owner = name;
  }
  for (auto& [path, watch] : watches_) {
    if (watch->owner != owner || watch->service != service) continue;
    if (device == nullptr) {  // a search that found nothing ended
      if (result == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT && !watch->listen)
        FinishWatch(watch.get(), "timed_out");
      return;
    }
    const bool lost = hxf_tool::IsDeparture(*device);
    if (!watch->listen) watch->found_any = true;
    SendTo(owner, path, kSearchInterface, lost ? "DeviceLost" : "DeviceFound",
           [&](sd_bus_message* m) { return AppendDevice(m, *device); });
    Monitor(lost ? "lost" : "found", owner, service, "", 0,
            [&](sd_bus_message* m) { return AppendDevice(m, *device); });
    return;
  }
}

void CBusBroker::Listed(hxf_client_h client, const std::string& service, int result,
                        std::vector<Device> devices) {
  for (auto it = lists_.begin(); it != lists_.end(); ++it) {
    auto caller = callers_.find(it->first.first);
    if (it->first.second != service || caller == callers_.end() || caller->second.client != client)
      continue;
    sd_bus_message* call = it->second.message;
    lists_.erase(it);
    if (result == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) {
      sd_bus_reply_method_errorf(call, ErrorName(HXF_ERROR_TIMED_OUT),
                                 "no device list for %s in time", service.c_str());
    } else {
      sd_bus_message* reply = nullptr;
      int r = sd_bus_message_new_method_return(call, &reply);
      if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "a{sv}");
      for (const Device& device : devices) {
        if (r >= 0) r = AppendDevice(reply, device);
      }
      if (r >= 0) r = sd_bus_message_close_container(reply);
      if (r >= 0) r = sd_bus_send(bus_, reply, nullptr);
      if (r < 0) sd_bus_reply_method_errno(call, r, nullptr);
      sd_bus_message_unref(reply);
    }
    sd_bus_message_unref(call);
    return;
  }
}

void CBusBroker::Answered(hxf_service_session_h session, hxf_transaction_h transaction,
                          const std::string& operation,
                          const std::vector<PropertyValue>& properties, int error,
                          bool notification) {
  auto request = transaction != nullptr ? requests_.find(transaction) : requests_.end();
  if (request != requests_.end()) {
    Call call = request->second;
    requests_.erase(request);
    Monitor("result", call.owner, call.service, call.operation,
            reinterpret_cast<uintptr_t>(transaction),
            [&](sd_bus_message* m) { return AppendProperties(m, properties); });
    if (error != HXF_ERROR_NONE) {
      // The message only: D-Bus clients show an error's message when it is its one argument.
      const std::string text = error == HXF_ERROR_TIMED_OUT
                                   ? "no answer to " + call.operation + " in time"
                                   : ErrorText(properties, error);
      sd_bus_reply_method_errorf(call.message, ErrorName(error), "%s", text.c_str());
    } else {
      sd_bus_message* reply = nullptr;
      int r = sd_bus_message_new_method_return(call.message, &reply);
      if (r >= 0) r = AppendProperties(reply, properties);
      if (r >= 0) r = sd_bus_send(bus_, reply, nullptr);
      if (r < 0) sd_bus_reply_method_errno(call.message, r, nullptr);
      sd_bus_message_unref(reply);
    }
    sd_bus_message_unref(call.message);
    return;
  }
  if (!notification) return;  // a result for a caller that has gone
  for (auto& [path, s] : sessions_) {
    if (s->handle != session) continue;
    SendTo(s->owner, path, kSessionInterface, "Notification", [&](sd_bus_message* m) {
      int r = sd_bus_message_append(m, "s", operation.c_str());
      if (r >= 0) r = AppendProperties(m, properties);
      return r < 0 ? r : sd_bus_message_append(m, "u", static_cast<uint32_t>(error));
    });
    Monitor("notification", s->owner, s->service, operation,
            reinterpret_cast<uintptr_t>(transaction),
            [&](sd_bus_message* m) { return AppendProperties(m, properties); });
  }
}

// ---- the core's callbacks (pool threads): copy, post, return ----

void CBusBroker::OnFound(hxf_client_h client, hxf_string service,
                         hxf_endpoint_discovery_result_e result, hxf_endpoint_h endpoint,
                         void* self) {
  std::shared_ptr<Device> device;
  if (endpoint != nullptr) device = std::make_shared<Device>(hxf_tool::ReadDevice(endpoint));
  Self(self)->tasks_.Post([broker = Self(self), client, name = hxf_tool::Copy(service), result,
                           device] { broker->Found(client, name, result, device.get()); });
}

void CBusBroker::OnList(hxf_client_h client, hxf_string service,
                        hxf_endpoint_discovery_result_e result, hxf_endpoint_list_h list,
                        void* self) {
  std::vector<Device> devices;
  if (list != nullptr) {
    for (hxf_endpoint_h e = hxf_endpoint_list_get_first(list); e != nullptr;
         e = hxf_endpoint_list_get_next(list, e))
      devices.push_back(hxf_tool::ReadDevice(e));
  }
  Self(self)->tasks_.Post([broker = Self(self), client, name = hxf_tool::Copy(service), result,
                           devices = std::move(devices)]() mutable {
    broker->Listed(client, name, result, std::move(devices));
  });
}

void CBusBroker::PostAnswer(hxf_service_session_h session, hxf_property_list_h list,
                            hxf_transaction_h transaction, int error, bool notification) {
  std::string operation = list != nullptr ? hxf_property_list_get_name(list) : "";
  std::vector<PropertyValue> properties;
  if (list != nullptr) properties = hxf_tool::ReadProperties(list);
  tasks_.Post([this, session, transaction, operation = std::move(operation),
               properties = std::move(properties), error, notification] {
    Answered(session, transaction, operation, properties, error, notification);
  });
}

void CBusBroker::OnResult(hxf_client_h, hxf_service_session_h session, hxf_property_list_h list,
                          hxf_transaction_h transaction, hxf_error_e error, void* self) {
  Self(self)->PostAnswer(session, list, transaction, error, false);
}

void CBusBroker::OnNotification(hxf_string, hxf_service_session_h session, hxf_property_list_h list,
                                hxf_transaction_h transaction, hxf_error_e error, void* self) {
  Self(self)->PostAnswer(session, list, transaction, error, true);
}

}  // namespace hxfd
