#include "CCommands.h"

#include <algorithm>
#include <chrono>
#include <set>

#include "DeviceOwners.h"
#include "Presence.h"
#include "Provider.h"

namespace hxf_tool {

namespace {

using Clock = CEventQueue::Clock;
// How often a countdown on a terminal is redrawn; without one a wait sleeps to its end.
constexpr auto kTick = std::chrono::milliseconds(100);
constexpr auto kGrace = std::chrono::milliseconds(2000);  // for the core's own time-out report
constexpr Clock::time_point kForever = Clock::time_point::max();
// How long a request waits for the device lists that tell which provider has its device.
constexpr uint32_t kProviderListMs = 1000;

Clock::time_point In(uint32_t ms) {
  return Clock::now() + std::chrono::milliseconds(ms);
}
std::string Ms(uint32_t ms) {
  return std::to_string(ms) + " ms";
}

std::string ErrorText(const Event& event) {
  for (const PropertyValue& p : event.properties) {
    if (p.name == "error") return COutput::Text(p.value);
  }
  return COutput::Code(event.code);
}

nlohmann::json Payload(const Event& event) {
  return {{"list", event.list_name},
          {"error", event.code},
          {"error_name", COutput::CodeName(event.code)},
          {"properties", COutput::ToJson(event.properties)}};
}

}  // namespace

std::string CCommands::EndReason(int exit_code) const {
  switch (exit_code) {
    case kOk:
      return "done";
    case kUsage:
      return "usage";
    case kInterrupted:
      return "interrupted";
    default:
      return timed_out_ ? "timed_out" : "failed";
  }
}

int CCommands::Fail(const std::string& message, int code, nlohmann::json details) {
  if (code == HXF_ERROR_TIMED_OUT) timed_out_ = true;
  out_.Fail(message, code, std::move(details));
  return kFailed;
}

template <typename OnEvent>
bool CCommands::Pump(const Wait& wait, OnEvent&& on_event) {
  const Clock::time_point end = wait.deadline == kForever ? kForever : wait.deadline + wait.grace;
  Event event{Event::kInterrupt};
  bool completed = true;
  const bool live = out_.ShowsCountdown() && wait.deadline != kForever;
  while (Clock::now() < end) {
    const Clock::time_point now = Clock::now();
    Clock::time_point until = end;  // the next event, or the end: no polling in between
    if (live && now < wait.deadline) {
      out_.Countdown(wait.what, std::chrono::duration<double>(wait.deadline - now).count());
      until = std::min(wait.deadline, now + kTick);
    } else if (live) {
      out_.EndCountdown();  // the time is up: what remains is the grace for the core's report
    }
    if (!runtime_.Events().Next(&event, until)) continue;
    if (event.kind == Event::kInterrupt) {
      completed = false;
      out_.Interrupted();
      break;
    }
    if (event.kind == Event::kBrokerGone) {
      completed = false;
      Fail("the broker left the bus", HXF_ERROR_OPERATION_FAILED);
      broker_gone_ = true;
      break;
    }
    if (!on_event(event)) break;
  }
  out_.EndCountdown();
  return completed;
}

bool CCommands::Offered(const std::string& service) {
  std::vector<std::string> services;
  if (service == "*" || !runtime_.Broker().OfferedServices(&services)) return true;
  if (std::find(services.begin(), services.end(), service) != services.end()) return true;
  std::sort(services.begin(), services.end());
  std::string offered;
  for (const std::string& name : services) offered += (offered.empty() ? "" : ", ") + name;
  Fail("no loaded plugin offers the service " + service + " (offered: " +
           (offered.empty() ? "none" : offered) + ")",
       HXF_ERROR_NOT_FOUND, {{"service", service}, {"offered", services}});
  return false;
}

int CCommands::Search(const std::string& service, uint32_t timeout_ms) {
  if (!Offered(service)) return kFailed;
  const int started = runtime_.Broker().Search(service, timeout_ms);
  if (started != HXF_ERROR_NONE) return Fail("cannot search " + service, started);
  std::vector<Device> found;
  // The tool keeps its own deadline: once a device is found the core reports no time-out.
  const bool completed = Pump({"searching " + service, In(timeout_ms)}, [&](const Event& event) {
    if (event.kind != Event::kFound) return true;
    if (event.code == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) return false;
    for (const Device& device : event.devices) {
      found.push_back(device);
      out_.Emit("found", COutput::ToJson(device));
    }
    return true;
  });
  runtime_.Broker().StopSearch(service);
  out_.DeviceTable(found);
  if (!completed) return Stopped();
  if (found.empty())
    return Fail("no device offers " + service + " within " + Ms(timeout_ms), HXF_ERROR_TIMED_OUT,
                {{"service", service}});
  out_.Note(std::to_string(found.size()) + " device(s) offer " + service);
  return kOk;
}

int CCommands::Listen(const std::string& service, uint32_t for_ms) {
  if (!Offered(service)) return kFailed;
  const int started = runtime_.Broker().Listen(service);
  if (started != HXF_ERROR_NONE) return Fail("cannot listen to " + service, started);
  out_.Note("listening to " + service + (for_ms != 0 ? " for " + Ms(for_ms) : " (Ctrl-C stops)"));
  const Wait wait{"listening to " + service, for_ms != 0 ? In(for_ms) : kForever};
  const bool completed = Pump(wait, [&](const Event& event) {
    if (event.kind != Event::kFound) return true;
    for (const Device& device : event.devices) {
      const char* what = IsDeparture(device)  ? kPresenceLeft
                         : IsArrival(device) ? kPresenceArrived
                                             : "found";
      out_.Emit(what, COutput::ToJson(device));
      out_.Say(std::string(what) + "  " + device.id + "  " + device.name + "  " + device.address);
    }
    return true;
  });
  runtime_.Broker().StopListen(service);
  out_.Note(completed ? "done" : "stopped");
  return completed ? kOk : Stopped();
}

int CCommands::Devices(const std::string& service, uint32_t timeout_ms) {
  if (!Offered(service)) return kFailed;
  const int asked = runtime_.Broker().AskDevices(service, timeout_ms);
  if (asked != HXF_ERROR_NONE) return Fail("cannot list " + service, asked);
  // In process each provider answers with a list of its own: they are merged until every
  // provider has answered or the time is up. hxfd merges them itself and answers once.
  std::vector<std::string> expected;
  if (!runtime_.Broker().Providers(service, &expected)) expected.clear();
  CProviderLists lists(expected);
  int code = -1;
  bool ended = false;  // refused, complete, or the core's time-out came
  const auto on_event = [&](const Event& event) {
    if (event.kind == Event::kRefused && event.name == service) {
      code = Fail("cannot list " + service, event.code);
      return !(ended = true);
    }
    if (event.kind != Event::kList) return true;
    if (event.code == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) return !(ended = true);
    lists.Add(event.devices);
    ended = lists.Complete();
    return !ended;
  };
  // Until the time-out; without any list by then, a grace for the core's own time-out report.
  bool completed = Pump({"listing " + service, In(timeout_ms)}, on_event);
  if (completed && !ended && lists.Devices().empty())
    completed = Pump({"listing " + service, Clock::now(), kGrace}, on_event);
  if (!completed) return Stopped();
  if (code >= 0) return code;
  const std::vector<Device> devices = lists.Devices();
  if (devices.empty() && ended)
    return Fail("no device list for " + service + " within " + Ms(timeout_ms),
                HXF_ERROR_TIMED_OUT, {{"service", service}});
  if (devices.empty())
    return Fail("the core reported nothing for " + service + " within " + Ms(timeout_ms),
                HXF_ERROR_TIMED_OUT, {{"service", service}});
  out_.DeviceTable(devices);
  for (const Device& device : devices) out_.Emit("device", COutput::ToJson(device));
  return kOk;
}

uint64_t CCommands::Subscribe(const std::string& service) {
  uint64_t session = 0;
  const int code = runtime_.Broker().Subscribe(service, &session);
  if (code == HXF_ERROR_NOT_FOUND)
    Fail("no provider offers the service " + service, code, {{"service", service}});
  else if (code != HXF_ERROR_NONE)
    Fail("cannot subscribe to " + service, code, {{"service", service}});
  return code == HXF_ERROR_NONE ? session : 0;
}

std::string CCommands::RequestTarget(const std::string& service, const std::string& device_id) {
  std::vector<std::string> expected;
  // One provider or none known: the service's one handler is the provider.
  if (device_id.empty() || !runtime_.Broker().Providers(service, &expected) ||
      expected.size() < 2)
    return service;
  if (runtime_.Broker().AskDevices(service, kProviderListMs) != HXF_ERROR_NONE) return service;
  // Each provider answers with a list of its own: collect them until every expected provider
  // has answered (one with no device never does) or the wait ends.
  CProviderLists lists(expected);
  const bool completed = Pump(
      {"looking for the provider of " + device_id, In(kProviderListMs)}, [&](const Event& event) {
        if (event.kind != Event::kList) return true;
        if (event.code == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) return false;
        lists.Add(event.devices);
        return !lists.Complete();
      });
  if (!completed) return "";
  const std::set<std::string>& owners = lists.Owners().OwnersOf(device_id);
  std::string conflict;
  const std::string target = hxf_tool::RequestTarget(service, device_id, owners, &conflict);
  if (target.empty())
    Fail(conflict, HXF_ERROR_INVALID_PARAMETER,
         {{"service", service},
          {"device_id", device_id},
          {"providers", std::vector<std::string>(owners.begin(), owners.end())}});
  return target;
}

int CCommands::SendAndWait(uint64_t session, const std::string& service,
                           const std::string& operation,
                           const std::vector<PropertyValue>& properties, uint32_t timeout_ms,
                           Event* result) {
  uint64_t transaction = 0;
  const int sent =
      runtime_.Broker().Request(session, operation, properties, timeout_ms, &transaction);
  if (sent != HXF_ERROR_NONE) {
    Fail("request refused", sent, {{"service", service}, {"operation", operation}});
    return sent;
  }
  int code = -1;
  Pump({operation + " on " + service, In(timeout_ms), kGrace}, [&](const Event& event) {
    if (event.kind == Event::kNotification) {
      notifications_.push_back(event);
      return true;
    }
    if (event.kind != Event::kResult || event.transaction != transaction) return true;
    *result = event;
    code = event.code;
    return false;
  });
  return code;
}

int CCommands::Request(const std::string& service, const std::string& operation,
                       const std::vector<Assignment>& properties, uint32_t timeout_ms) {
  if (!Offered(service)) return kFailed;
  std::string device_id;
  for (const Assignment& property : properties) {
    if (property.name == "device_id" && property.value.is_string())
      device_id = property.value.get<std::string>();
  }
  const std::string target = RequestTarget(service, device_id);
  if (target.empty()) return runtime_.Interrupted() || broker_gone_ ? Stopped() : kFailed;
  uint64_t session = 0;
  if (target == service || runtime_.Broker().Subscribe(target, &session) != HXF_ERROR_NONE)
    session = Subscribe(service);  // a provider without "S@PROVIDER": the service's own pick
  if (session == 0) return kFailed;
  std::vector<PropertyValue> values;
  for (const Assignment& property : properties) values.push_back({property.name, property.value});
  Event result{Event::kResult};
  const int code = SendAndWait(session, service, operation, values, timeout_ms, &result);
  nlohmann::json details = Payload(result);
  details["service"] = service;
  details["operation"] = operation;
  if (code == HXF_ERROR_NONE) {
    out_.Say(operation + " on " + service + ": ok");
    out_.Properties(result.properties);
    out_.Emit("result", std::move(details));
    return kOk;
  }
  if (runtime_.Interrupted() || broker_gone_) return Stopped();
  if (code < 0)  // no answer at all, not even the core's time-out
    return Fail(operation + " on " + service + ": no result within " + Ms(timeout_ms),
                HXF_ERROR_TIMED_OUT, {{"service", service}, {"operation", operation}});
  if (code == HXF_ERROR_TIMED_OUT)
    return Fail(operation + " on " + service + ": timed out after " + Ms(timeout_ms), code,
                std::move(details));
  return Fail(operation + " on " + service + " failed: " + ErrorText(result), code,
              std::move(details));
}

int CCommands::Watch(const std::string& service, uint32_t for_ms) {
  if (!Offered(service)) return kFailed;
  // A session reaches one provider: with several, one session each ("S@PROVIDER").
  std::vector<std::string> providers;
  size_t sessions = 0;
  if (runtime_.Broker().Providers(service, &providers) && providers.size() > 1) {
    for (const std::string& provider : providers) {
      uint64_t session = 0;
      if (runtime_.Broker().Subscribe(ProviderService(service, provider), &session) ==
          HXF_ERROR_NONE)
        ++sessions;
    }
  }
  if (sessions == 0 && Subscribe(service) == 0) return kFailed;
  out_.Note("watching " + service + (for_ms != 0 ? " for " + Ms(for_ms) : " (Ctrl-C stops)"));
  const Wait wait{"watching " + service, for_ms != 0 ? In(for_ms) : kForever};
  const bool completed = Pump(wait, [&](const Event& event) {
    if (event.kind != Event::kNotification) return true;
    const std::string from = BaseService(event.name);  // the service, not "S@PROVIDER"
    out_.Say("notification from " + from + " (" + event.list_name + ")");
    out_.Properties(event.properties);
    nlohmann::json details = Payload(event);
    details["service"] = from;
    out_.Emit("notification", std::move(details));
    return true;
  });
  out_.Note(completed ? "done" : "stopped");
  return completed ? kOk : Stopped();
}

int CCommands::Monitor(const std::string& service, const std::string& type, uint32_t for_ms) {
  const int asked = runtime_.Broker().Monitor();
  if (asked != HXF_ERROR_NONE) return Fail("cannot monitor the broker", asked);
  std::string what = "monitoring the broker";
  if (!service.empty()) what += ", service " + service;
  if (!type.empty()) what += ", type " + type;
  out_.Note(what + (for_ms != 0 ? " for " + Ms(for_ms) : " (Ctrl-C stops)"));
  const bool completed = Pump({what, for_ms != 0 ? In(for_ms) : kForever}, [&](const Event& event) {
    if (event.kind != Event::kMonitor) return true;
    if ((service.empty() || event.name == service) && (type.empty() || event.type == type))
      out_.MonitorEvent(event);
    return true;
  });
  out_.Note(completed ? "done" : "stopped");
  return completed ? kOk : Stopped();
}

int CCommands::Plugins(const COutput& out, bool all, CBroker* broker) {
  if (broker != nullptr) {  // what hxfd loaded, fixtures too: they are loaded
    std::vector<CBroker::LoadedPlugin> loaded;
    if (!broker->LoadedPlugins(&loaded)) {
      out.Fail("hxfd does not say which plugins it loaded", HXF_ERROR_OPERATION_FAILED);
      return kFailed;
    }
    if (loaded.empty()) {
      out.Fail("hxfd loaded no plugin", HXF_ERROR_NOT_FOUND);
      return kFailed;
    }
    size_t width = 0;
    for (const CBroker::LoadedPlugin& plugin : loaded) width = std::max(width, plugin.name.size());
    out.Note("plugins loaded by hxfd:");
    for (const CBroker::LoadedPlugin& plugin : loaded) {
      std::string line = plugin.name + std::string(width - plugin.name.size() + 2, ' ') +
                         (plugin.description.empty() ? "(no description)" : plugin.description);
      if (plugin.state != "loaded") line += " [" + plugin.state + ": " + plugin.reason + "]";
      out.Say(line);
      const auto text = [](const std::string& value) {
        return value.empty() ? nlohmann::json() : nlohmann::json(value);
      };
      out.Emit("plugin", {{"name", plugin.name},
                          {"description", text(plugin.description)},
                          {"state", plugin.state},
                          {"reason", text(plugin.reason)}});
    }
    return kOk;
  }
  const std::string folder = HXF_TOOL_PLUGIN_DIR;
  std::vector<PluginInfo> shown;
  for (PluginInfo& plugin : ListPlugins(folder)) {
    if (all || !plugin.Hidden()) shown.push_back(std::move(plugin));
  }
  if (shown.empty()) {
    out.Fail("no plugin in " + folder, HXF_ERROR_NOT_FOUND);
    return kFailed;
  }
  size_t width = 0;
  for (const PluginInfo& plugin : shown) width = std::max(width, plugin.name.size());
  out.Note("plugins in " + folder + ":");
  for (const PluginInfo& plugin : shown) {
    std::string line =
        plugin.name + std::string(width - plugin.name.size() + 2, ' ') + plugin.Description();
    if (plugin.Hidden()) line += " [hidden: " + plugin.info.at("hidden") + "]";
    out.Say(line);
    out.Emit("plugin", {{"name", plugin.name},
                        {"description", plugin.info.count("description") != 0
                                            ? nlohmann::json(plugin.info.at("description"))
                                            : nlohmann::json()},
                        {"hidden", plugin.Hidden()},
                        {"path", plugin.path}});
  }
  return kOk;
}

int CCommands::Demo() {
  out_.Say("== 1. The simulator plugin is loaded; it offers lights, audio and climate.");
  out_.Say("== 2. Search for lights for 2 s: devices answer one by one.");
  if (Search("lights", 2000) != kOk || runtime_.Interrupted()) return kFailed;
  out_.Say("== 3. Ask for the list of audio devices in one go.");
  if (Devices("audio", 2000) != kOk || runtime_.Interrupted()) return kFailed;
  out_.Say("== 4. Subscribe to lights: requests and notifications travel over this session.");
  const uint64_t session = Subscribe("lights");
  if (session == 0) return kFailed;
  out_.Say("== 5. Get the desk lamp's state.");
  Event result{Event::kResult};
  if (SendAndWait(session, "lights", "get", {{"device_id", "lamp-1"}}, 2000, &result) != HXF_ERROR_NONE)
    return kFailed;
  out_.Properties(result.properties);
  out_.Say("== 6. Dim it to 30: the lamp answers, then tells every subscriber its new state.");
  if (SendAndWait(session, "lights", "set", {{"device_id", "lamp-1"}, {"brightness", 30}}, 2000,
                  &result) !=
      HXF_ERROR_NONE) {
    return kFailed;
  }
  out_.Properties(result.properties);
  bool notified = false;
  const auto show = [&](const Event& event) {
    if (event.kind != Event::kNotification) return true;
    out_.Say("   notification (" + event.list_name + "):");
    out_.Properties(event.properties);
    nlohmann::json details = Payload(event);
    details["service"] = event.name;
    out_.Emit("notification", std::move(details));
    notified = true;
    return false;
  };
  for (const Event& early : notifications_) show(early);
  notifications_.clear();
  if (!notified) Pump({"waiting for the notification", In(2000)}, show);
  if (!notified) return kFailed;
  out_.Say("== 7. A bad value is refused and changes nothing: brightness=150.");
  const int refused =
      SendAndWait(session, "lights", "set", {{"device_id", "lamp-1"}, {"brightness", 150}}, 2000, &result);
  out_.Say("   refused (" + COutput::Code(refused) + "): " + ErrorText(result));
  out_.Say("== 8. The old radio never answers: the request times out after 1.5 s.");
  const uint64_t audio = Subscribe("audio");
  if (audio == 0) return kFailed;
  const int timed_out = SendAndWait(audio, "audio", "get", {{"device_id", "radio-1"}}, 1500, &result);
  out_.Say(timed_out == HXF_ERROR_TIMED_OUT
               ? "   timed out, as expected (" + COutput::Code(timed_out) + ")"
               : "   unexpected answer");
  out_.Say(
      "== Done. Try: hxf search climate, hxf watch climate, hxf request lights set "
      "device=lamp-1 power=false");
  return timed_out == HXF_ERROR_TIMED_OUT && refused == HXF_ERROR_INVALID_PARAMETER ? kOk : kFailed;
}

}  // namespace hxf_tool
