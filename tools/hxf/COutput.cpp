#include "COutput.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "DeviceFields.h"

namespace hxf_tool {

namespace {

// Erases the line the cursor is on and returns to its start.
constexpr char kEraseLine[] = "\r\033[K";

}  // namespace

COutput::COutput(bool json)
    : json_(json), stderr_tty_(isatty(STDERR_FILENO) == 1), countdown_(!json && stderr_tty_) {}

std::string COutput::Code(int code) {
  const char* name = hxf_tool::CodeName(code);
  return "error " + std::to_string(code) + (name != nullptr ? std::string(": ") + name : "");
}

nlohmann::json COutput::CodeName(int code) {
  const char* name = hxf_tool::CodeName(code);
  return name != nullptr ? nlohmann::json(name) : nlohmann::json();
}

std::string COutput::Text(const nlohmann::json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

void COutput::Write(FILE* stream, const std::string& text) const {
  HXFramework::CMutexLock lock(mutex_);
  if (countdown_shown_) {
    std::fputs(kEraseLine, stderr);
    std::fflush(stderr);
    countdown_shown_ = false;
  }
  std::fputs(text.c_str(), stream);
  std::fflush(stream);
}

void COutput::Say(const std::string& line) const {
  if (!json_) Write(stdout, line + "\n");
}

void COutput::Note(const std::string& line) const {
  if (!json_) Write(stderr, line + "\n");
}

void COutput::Fail(const std::string& message, int code, nlohmann::json details) const {
  if (!json_) {
    Write(stderr, "hxf: " + message + (code != kNoCode ? " (" + Code(code) + ")" : "") + "\n");
    return;
  }
  details["error"] = code != kNoCode ? nlohmann::json(code) : nlohmann::json();
  details["error_name"] = CodeName(code);
  details["message"] = message;
  Emit("error", std::move(details));
}

void COutput::Emit(const std::string& event, nlohmann::json object) const {
  if (!json_) return;
  // nlohmann::json keeps keys sorted; "event" is put first by hand so lines read well.
  std::string line = "{\"event\":" + nlohmann::json(event).dump();
  const std::string rest = object.dump();
  if (rest.size() > 2)
    line += "," + rest.substr(1);
  else
    line += "}";
  Write(stdout, line + "\n");
}

void COutput::End(const std::string& command, const std::string& reason, int exit_code) const {
  Emit("end", {{"command", command.empty() ? nlohmann::json() : nlohmann::json(command)},
               {"reason", reason},
               {"exit_code", exit_code}});
}

void COutput::Log(const std::string& line) const {
  Write(stderr, line + "\n");
}

nlohmann::json COutput::ToJson(const Device& d) {
  nlohmann::json device = nlohmann::json::object();
  for (const DeviceField& field : kDeviceFields) device[field.key] = d.*field.member;
  nlohmann::json meta = nlohmann::json::parse(d.ui_meta, nullptr, false);
  if (!meta.is_discarded()) device["ui_meta"] = std::move(meta);
  return device;
}

nlohmann::json COutput::ToJson(const std::vector<PropertyValue>& properties) {
  nlohmann::json object = nlohmann::json::object();
  for (const PropertyValue& p : properties) object[p.name] = p.value;
  return object;
}

void COutput::DeviceTable(const std::vector<Device>& devices) const {
  if (json_ || devices.empty()) return;
  const std::vector<std::string> header = {"DEVICE", "NAME", "SERVICE", "ADDRESS", "INTERFACE"};
  std::vector<std::vector<std::string>> rows = {header};
  for (const Device& d : devices)
    rows.push_back({d.id, d.name, d.service, d.address, d.interface_name + "/" + d.interface_type});
  std::vector<size_t> widths(header.size(), 0);
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string table;
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      table += row[i];
      if (i + 1 < row.size()) table += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    table += "\n";
  }
  Write(stdout, table);
}

void COutput::Properties(const std::vector<PropertyValue>& properties) const {
  if (json_ || properties.empty()) return;
  size_t width = 0;
  for (const PropertyValue& p : properties) width = std::max(width, p.name.size());
  std::string lines;
  for (const PropertyValue& p : properties)
    lines += "  " + p.name + std::string(width - p.name.size(), ' ') + "  " + Text(p.value) + "\n";
  Write(stdout, lines);
}

void COutput::MonitorEvent(const Event& event) const {
  if (json_) {
    Emit("monitor", {{"timestamp_us", event.timestamp_us},
                     {"type", event.type},
                     {"caller", event.caller},
                     {"service", event.name},
                     {"operation", event.list_name},
                     {"transaction", event.transaction},
                     {"payload", ToJson(event.properties)}});
    return;
  }
  const time_t seconds = static_cast<time_t>(event.timestamp_us / 1000000);
  tm local{};
  localtime_r(&seconds, &local);
  char when[64];
  const size_t length = std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(when + length, sizeof when - length, ".%06u",
                static_cast<unsigned>(event.timestamp_us % 1000000));
  std::string block = "\u2023 Type=" + event.type + "  Timestamp=\"" + when + "\"\n";
  std::string line;
  const std::pair<const char*, std::string> fields[] = {
      {"Caller", event.caller},
      {"Service", event.name},
      {"Operation", event.list_name},
      {"Transaction", event.transaction != 0 ? std::to_string(event.transaction) : ""}};
  for (const auto& [field, value] : fields) {
    if (!value.empty()) line += std::string("  ") + field + "=" + value;
  }
  if (!line.empty()) block += line + "\n";
  block += "  PAYLOAD {";
  for (const PropertyValue& p : event.properties)
    block += "\n          " + p.name + " = " +
             (p.value.is_string() ? p.value.dump() : Text(p.value)) + ";";
  block += event.properties.empty() ? " };\n\n" : "\n  };\n\n";
  Write(stdout, block);
}

void COutput::Countdown(const std::string& what, double seconds_left) const {
  if (!countdown_) return;
  char left[32];
  std::snprintf(left, sizeof left, "%.1f", std::max(0.0, seconds_left));
  HXFramework::CMutexLock lock(mutex_);
  std::fprintf(stderr, "%s%s... %s s left", kEraseLine, what.c_str(), left);
  std::fflush(stderr);
  countdown_shown_ = true;
}

void COutput::EndCountdown() const {
  if (countdown_) Write(stderr, "");
}

void COutput::Interrupted() const {
  HXFramework::CMutexLock lock(mutex_);
  if (countdown_shown_) {
    std::fputs(kEraseLine, stderr);  // the "^C" went onto the countdown's line: both go
    countdown_shown_ = false;
  } else if (stderr_tty_) {
    std::fputs("\n", stderr);
  }
  std::fflush(stderr);
}

}  // namespace hxf_tool
