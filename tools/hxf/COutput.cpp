#include "COutput.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace hxf_tool {

std::string COutput::Code(int code) {
  static const char* const kNames[] = {"HXF_ERROR_NONE",
                                       "HXF_ERROR_TIMED_OUT",
                                       "HXF_ERROR_OPERATION_FAILED",
                                       "HXF_ERROR_CREATE_FAILED",
                                       "HXF_ERROR_INVALID_PARAMETER",
                                       "HXF_ERROR_OUT_OF_MEMORY",
                                       "HXF_ERROR_NOT_FOUND",
                                       "HXF_ERROR_TYPE_MISMATCH",
                                       nullptr,
                                       nullptr,
                                       "HXF_ERROR_INVALID_HANDLE",
                                       nullptr,
                                       "HXF_ERROR_INVALID_CLIENT",
                                       "HXF_ERROR_INVALID_TRANSACTION",
                                       "HXF_ERROR_INVALID_SERVICE_NAME"};
  const bool named =
      code >= 0 && code < static_cast<int>(std::size(kNames)) && kNames[code] != nullptr;
  return "error " + std::to_string(code) + (named ? std::string(": ") + kNames[code] : "");
}

void COutput::Say(const std::string& line) const {
  if (!json_) std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void COutput::Error(const std::string& line) const {
  std::fprintf(stderr, "hxf: %s\n", line.c_str());
}

void COutput::Emit(const nlohmann::json& object) const {
  if (!json_) return;
  std::printf("%s\n", object.dump().c_str());
  std::fflush(stdout);
}

nlohmann::json COutput::ToJson(const Device& d) {
  nlohmann::json meta = nlohmann::json::parse(d.ui_meta, nullptr, false);
  return {{"service", d.service},
          {"device_id", d.id},
          {"name", d.name},
          {"interface_name", d.interface_name},
          {"interface_type", d.interface_type},
          {"address", d.address},
          {"ui_meta", meta.is_discarded() ? nlohmann::json(d.ui_meta) : meta}};
}

nlohmann::json COutput::ToJson(const std::vector<PropertyValue>& properties) {
  nlohmann::json object = nlohmann::json::object();
  for (const PropertyValue& p : properties) {
    if (p.type == "bool") {
      object[p.name] = p.text == "true";
    } else if (p.type == "int") {
      object[p.name] = std::stoll(p.text);
    } else if (p.type == "double") {
      object[p.name] = std::stod(p.text);
    } else {
      object[p.name] = p.text;
    }
  }
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
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    std::printf("%s\n", line.c_str());
  }
  std::fflush(stdout);
}

void COutput::Properties(const std::vector<PropertyValue>& properties) const {
  if (json_) return;
  size_t width = 0;
  for (const PropertyValue& p : properties) width = std::max(width, p.name.size());
  for (const PropertyValue& p : properties) {
    std::printf("  %s%s  %s\n", p.name.c_str(), std::string(width - p.name.size(), ' ').c_str(),
                p.text.c_str());
  }
  std::fflush(stdout);
}

void COutput::Countdown(const std::string& what, double seconds_left) const {
  if (json_ || !isatty(STDOUT_FILENO)) return;
  std::fprintf(stderr, "\r%s... %4.1f s left ", what.c_str(), std::max(0.0, seconds_left));
  std::fflush(stderr);
}

void COutput::EndCountdown() const {
  if (json_ || !isatty(STDOUT_FILENO)) return;
  std::fprintf(stderr, "\r%60s\r", "");
  std::fflush(stderr);
}

}  // namespace hxf_tool
