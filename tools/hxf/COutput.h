// Everything the tool prints: human text by default, one JSON object per event with --json.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CEventQueue.h"

namespace hxf_tool {

class COutput {
 public:
  explicit COutput(bool json) : json_(json) {}

  bool Json() const { return json_; }
  // One line of explanation or status (human mode only).
  void Say(const std::string& line) const;
  void Error(const std::string& line) const;      // stderr, both modes
  void Emit(const nlohmann::json& object) const;  // JSON mode only
  void DeviceTable(const std::vector<Device>& devices) const;
  void Properties(const std::vector<PropertyValue>& properties) const;
  // A live countdown on stderr while stdout is a terminal (human mode only).
  void Countdown(const std::string& what, double seconds_left) const;
  void EndCountdown() const;

  // "error 4: HXF_ERROR_INVALID_PARAMETER": a code as people read it, number and name.
  static std::string Code(int code);

  static nlohmann::json ToJson(const Device& device);
  static nlohmann::json ToJson(const std::vector<PropertyValue>& properties);

 private:
  bool json_;
};

}  // namespace hxf_tool
