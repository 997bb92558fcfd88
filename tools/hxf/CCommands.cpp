#include "CCommands.h"

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <regex>

namespace hxf_tool {

namespace {

using Clock = CEventQueue::Clock;
constexpr auto kSlice = std::chrono::milliseconds(100);
constexpr auto kGrace = std::chrono::milliseconds(2000);  // for the core's own time-out report

hxf_string View(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}
Clock::time_point In(uint32_t ms) {
  return Clock::now() + std::chrono::milliseconds(ms);
}
double SecondsLeft(Clock::time_point deadline) {
  return std::chrono::duration<double>(deadline - Clock::now()).count();
}

bool IsDeparture(const Device& device) {
  return device.ui_meta.find("\"presence\":\"left\"") != std::string::npos;
}
bool IsArrival(const Device& device) {
  return device.ui_meta.find("\"presence\":\"arrived\"") != std::string::npos;
}

const std::regex kAssignment(R"(^([A-Za-z_][A-Za-z0-9_.-]*)=(.*)$)");

hxf_property_h MakeProperty(const std::string& assignment) {
  std::smatch match;
  std::regex_match(assignment, match, kAssignment);
  std::string name = match[1];
  const std::string value = match[2];
  if (name == "device") name = "device_id";
  const hxf_string key = View(name);
  static const std::regex integer(R"(^[-+]?[0-9]+$)");
  static const std::regex decimal(R"(^[-+]?([0-9]+\.[0-9]*|\.[0-9]+)([eE][-+]?[0-9]+)?$)");
  if (name == "device_id") return hxf_property_create_string(key, View(value));
  if (value == "true" || value == "false") return hxf_property_create_bool(key, value == "true");
  if (std::regex_match(value, integer))
    return hxf_property_create_int(key, std::strtoll(value.c_str(), nullptr, 10));
  if (std::regex_match(value, decimal))
    return hxf_property_create_double(key, std::strtod(value.c_str(), nullptr));
  std::string text = value;
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
    text = text.substr(1, text.size() - 2);
  return hxf_property_create_string(key, View(text));
}

std::string ErrorText(const Event& event) {
  for (const PropertyValue& p : event.properties) {
    if (p.name == "error") return p.text;
  }
  return "error " + std::to_string(event.code);
}

}  // namespace

bool CCommands::ValidAssignment(const std::string& assignment) {
  return std::regex_match(assignment, kAssignment);
}

template <typename OnEvent>
bool CCommands::Pump(const std::string& what, Clock::time_point deadline, OnEvent&& on_event) {
  Event event{Event::kInterrupt};
  while (Clock::now() < deadline) {
    out_.Countdown(what, SecondsLeft(deadline));
    if (!runtime_.Events().Next(&event, std::min(deadline, Clock::now() + kSlice))) continue;
    if (event.kind == Event::kInterrupt) {
      out_.EndCountdown();
      return false;
    }
    if (!on_event(event)) break;
  }
  out_.EndCountdown();
  return true;
}

int CCommands::Search(const std::string& service, uint32_t timeout_ms) {
  if (hxf_core_client_start_active_search(runtime_.Client(), View(service), &CToolRuntime::OnFound,
                                          timeout_ms, &runtime_) != HXF_ERROR_NONE) {
    out_.Error("cannot search " + service);
    return kFailed;
  }
  std::vector<Device> found;
  // The tool keeps its own deadline: once a device is found the core reports no time-out.
  const bool completed = Pump("searching " + service, In(timeout_ms), [&](const Event& event) {
    if (event.kind != Event::kFound) return true;
    if (event.code == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) return false;
    for (const Device& device : event.devices) {
      found.push_back(device);
      nlohmann::json line = COutput::ToJson(device);
      line["event"] = "found";
      out_.Emit(line);
    }
    return true;
  });
  hxf_core_client_stop_active_search(runtime_.Client(), View(service));
  out_.DeviceTable(found);
  out_.Emit({{"event", completed ? "search_ended" : "interrupted"},
             {"service", service},
             {"found", found.size()}});
  if (!completed) return kOk;  // stopped by the user
  if (found.empty()) {
    out_.Say("no device offers " + service + " (search timed out after " +
             std::to_string(timeout_ms) + " ms)");
    return kFailed;
  }
  out_.Say(std::to_string(found.size()) + " device(s) offer " + service);
  return kOk;
}

int CCommands::Listen(const std::string& service, uint32_t for_ms) {
  if (hxf_core_client_start_passive_search(runtime_.Client(), View(service), &CToolRuntime::OnFound,
                                           &runtime_) != HXF_ERROR_NONE) {
    out_.Error("cannot listen to " + service);
    return kFailed;
  }
  out_.Say("listening to " + service +
           (for_ms != 0 ? " for " + std::to_string(for_ms) + " ms" : " (Ctrl-C stops)"));
  const auto deadline = for_ms != 0 ? In(for_ms) : Clock::time_point::max();
  const bool completed = Pump("listening to " + service, deadline, [&](const Event& event) {
    if (event.kind != Event::kFound) return true;
    for (const Device& device : event.devices) {
      const char* what = IsDeparture(device) ? "left" : (IsArrival(device) ? "arrived" : "found");
      nlohmann::json line = COutput::ToJson(device);
      line["event"] = what;
      out_.Emit(line);
      out_.Say(std::string(what) + "  " + device.id + "  " + device.name + "  " + device.address);
    }
    return true;
  });
  hxf_core_client_stop_passive_search(runtime_.Client(), View(service));
  out_.Say(completed ? "done" : "stopped");
  out_.Emit({{"event", completed ? "listen_ended" : "interrupted"}, {"service", service}});
  return kOk;
}

int CCommands::Devices(const std::string& service, uint32_t timeout_ms) {
  if (hxf_core_client_get_device_list(runtime_.Client(), View(service), &CToolRuntime::OnList,
                                      timeout_ms, &runtime_) != HXF_ERROR_NONE) {
    out_.Error("cannot list " + service);
    return kFailed;
  }
  int code = kFailed;
  const bool completed =
      Pump("listing " + service, In(timeout_ms) + kGrace, [&](const Event& event) {
        if (event.kind != Event::kList) return true;
        if (event.code == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) {
          out_.Say("no device list for " + service + " within " + std::to_string(timeout_ms) +
                   " ms");
          out_.Emit({{"event", "timeout"}, {"service", service}});
          return false;
        }
        out_.DeviceTable(event.devices);
        for (const Device& device : event.devices) {
          nlohmann::json line = COutput::ToJson(device);
          line["event"] = "device";
          out_.Emit(line);
        }
        code = kOk;
        return false;
      });
  return completed ? code : kOk;
}

hxf_service_session_h CCommands::Subscribe(const std::string& service) {
  hxf_service_session_h session = hxf_core_client_subscribe_service(
      runtime_.Client(), View(service), &CToolRuntime::OnNotification, &runtime_);
  if (session == nullptr) out_.Error("no provider offers the service " + service);
  return session;
}

int CCommands::SendAndWait(hxf_service_session_h session, const std::string& service,
                           const std::string& operation,
                           const std::vector<std::string>& assignments, uint32_t timeout_ms,
                           Event* result) {
  hxf_property_list_h list = hxf_property_list_create(View(operation));
  for (const std::string& assignment : assignments) {
    hxf_property_h property = MakeProperty(assignment);
    hxf_property_list_push_property(list, property, HXF_ERROR_NONE);
    hxf_property_destroy(property);
  }
  hxf_transaction_h transaction = nullptr;
  const hxf_error_e sent =
      hxf_core_client_request_service(runtime_.Client(), session, list, &CToolRuntime::OnResult,
                                      timeout_ms, &transaction, &runtime_);
  hxf_property_list_destroy(list);
  if (sent != HXF_ERROR_NONE) {
    out_.Error("request refused (" + COutput::Code(sent) + ")");
    return sent;
  }
  int code = -1;
  Pump(operation + " on " + service, In(timeout_ms) + kGrace, [&](const Event& event) {
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
                       const std::vector<std::string>& assignments, uint32_t timeout_ms) {
  hxf_service_session_h session = Subscribe(service);
  if (session == nullptr) return kFailed;
  Event result{Event::kResult};
  const int code = SendAndWait(session, service, operation, assignments, timeout_ms, &result);
  if (code == HXF_ERROR_NONE) {
    out_.Say(operation + " on " + service + ": ok");
    out_.Properties(result.properties);
    out_.Emit({{"event", "result"},
               {"error", 0},
               {"list", result.list_name},
               {"properties", COutput::ToJson(result.properties)}});
    return kOk;
  }
  if (code == HXF_ERROR_TIMED_OUT) {
    out_.Say(operation + " on " + service + ": timed out after " + std::to_string(timeout_ms) +
             " ms");
    out_.Emit({{"event", "result"}, {"error", 1}, {"timed_out", true}});
  } else if (code > 0) {
    out_.Say(operation + " on " + service + ": failed: " + ErrorText(result) + " (" +
             COutput::Code(code) + ")");
    out_.Emit({{"event", "result"}, {"error", code}, {"message", ErrorText(result)}});
  } else if (runtime_.Interrupted()) {
    return kOk;
  }
  return kFailed;
}

int CCommands::Watch(const std::string& service, uint32_t for_ms) {
  if (Subscribe(service) == nullptr) return kFailed;
  out_.Say("watching " + service +
           (for_ms != 0 ? " for " + std::to_string(for_ms) + " ms" : " (Ctrl-C stops)"));
  const auto deadline = for_ms != 0 ? In(for_ms) : Clock::time_point::max();
  const bool completed = Pump("watching " + service, deadline, [&](const Event& event) {
    if (event.kind != Event::kNotification) return true;
    out_.Say("notification from " + event.name + " (" + event.list_name + ")");
    out_.Properties(event.properties);
    out_.Emit({{"event", "notification"},
               {"service", event.name},
               {"list", event.list_name},
               {"properties", COutput::ToJson(event.properties)}});
    return true;
  });
  out_.Say(completed ? "done" : "stopped");
  return kOk;
}

int CCommands::Plugins(const COutput& out) {
  std::vector<std::string> names;
  if (DIR* dir = opendir(HXF_TOOL_PLUGIN_DIR)) {
    while (dirent* entry = readdir(dir)) {
      const std::string file = entry->d_name;
      const std::string prefix = "libhxf-plugin-";
      const std::string suffix = ".so";
      if (file.size() > prefix.size() + suffix.size() && file.rfind(prefix, 0) == 0 &&
          file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0) {
        names.push_back(file.substr(prefix.size(), file.size() - prefix.size() - suffix.size()));
      }
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  out.Say("plugins in " + std::string(HXF_TOOL_PLUGIN_DIR) + ":");
  for (const std::string& name : names) {
    out.Say("  " + name);
    out.Emit({{"event", "plugin"}, {"name", name}});
  }
  return names.empty() ? kFailed : kOk;
}

int CCommands::Demo() {
  out_.Say("== 1. The simulator plugin is loaded; it offers lights, audio and climate.");
  out_.Say("== 2. Search for lights for 2 s: devices answer one by one.");
  if (Search("lights", 2000) != kOk || runtime_.Interrupted()) return kFailed;
  out_.Say("== 3. Ask for the list of audio devices in one go.");
  if (Devices("audio", 2000) != kOk || runtime_.Interrupted()) return kFailed;
  out_.Say("== 4. Subscribe to lights: requests and notifications travel over this session.");
  hxf_service_session_h session = Subscribe("lights");
  if (session == nullptr) return kFailed;
  out_.Say("== 5. Get the desk lamp's state.");
  Event result{Event::kResult};
  if (SendAndWait(session, "lights", "get", {"device=lamp-1"}, 2000, &result) != HXF_ERROR_NONE)
    return kFailed;
  out_.Properties(result.properties);
  out_.Say("== 6. Dim it to 30: the lamp answers, then tells every subscriber its new state.");
  if (SendAndWait(session, "lights", "set", {"device=lamp-1", "brightness=30"}, 2000, &result) !=
      HXF_ERROR_NONE) {
    return kFailed;
  }
  out_.Properties(result.properties);
  bool notified = false;
  const auto show = [&](const Event& event) {
    if (event.kind != Event::kNotification) return true;
    out_.Say("   notification (" + event.list_name + "):");
    out_.Properties(event.properties);
    out_.Emit({{"event", "notification"},
               {"list", event.list_name},
               {"properties", COutput::ToJson(event.properties)}});
    notified = true;
    return false;
  };
  for (const Event& early : notifications_) show(early);
  notifications_.clear();
  if (!notified) Pump("waiting for the notification", In(2000), show);
  if (!notified) return kFailed;
  out_.Say("== 7. A bad value is refused and changes nothing: brightness=150.");
  const int refused =
      SendAndWait(session, "lights", "set", {"device=lamp-1", "brightness=150"}, 2000, &result);
  out_.Say("   refused (" + COutput::Code(refused) + "): " + ErrorText(result));
  out_.Say("== 8. The old radio never answers: the request times out after 1.5 s.");
  hxf_service_session_h audio = Subscribe("audio");
  if (audio == nullptr) return kFailed;
  const int timed_out = SendAndWait(audio, "audio", "get", {"device=radio-1"}, 1500, &result);
  out_.Say(timed_out == HXF_ERROR_TIMED_OUT
               ? "   timed out, as expected (" + COutput::Code(timed_out) + ")"
               : "   unexpected answer");
  out_.Say(
      "== Done. Try: hxf search climate, hxf listen lights, hxf request lights set device=lamp-1 "
      "power=false");
  return timed_out == HXF_ERROR_TIMED_OUT && refused == HXF_ERROR_INVALID_PARAMETER ? kOk : kFailed;
}

}  // namespace hxf_tool
