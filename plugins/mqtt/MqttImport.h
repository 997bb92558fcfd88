// What the MQTT import plugin makes of a message another node published: which topic of the
// layout it is (tools/common/MqttTopics.h spells the layout and reads the payloads), and what
// its payload says. Everything here is untrusted input, bounded and checked; nothing touches
// the core or libmosquitto, so that tests/fuzz/fuzz_mqtt_import.cpp runs it alone.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "CoreValues.h"
#include "MqttTopics.h"

namespace hxf_mqtt {

// What one node and the whole network may make the plugin keep.
constexpr size_t kMaxNodes = 256;
constexpr size_t kMaxDevicesPerNode = 1024;
constexpr size_t kMaxServices = 64;  // one handler each
constexpr size_t kMaxInFlight = 1024;  // requests waiting for their answer

// A message of another node, read. `problem` says why a message of the layout was refused
// (kBad); a topic outside the layout is kIgnored.
struct Message {
  enum class Kind {
    kIgnored,     // not a topic the import reads
    kBad,         // a topic it reads, with a payload it refuses (see problem)
    kStatus,      // P/N/status: online is true for "online", false for "offline"
    kDevice,      // P/N/S/D/device: device read
    kDeparture,   // P/N/S/D/device, empty: the device left
    kState,       // P/N/S/D/state: properties read
    kStateClear,  // P/N/S/D/state, empty: nothing to tell
  };
  Kind kind = Kind::kIgnored;
  std::string node, service, device;  // unescaped ids; device empty for kStatus
  bool online = false;
  hxf_tool::Device fields;  // kDevice
  std::vector<hxf_tool::PropertyValue> properties;  // kState
  std::string problem;
};
Message ReadMessage(const std::string& prefix, const std::string& topic, const std::string& payload);

// An answer on the plugin's response topic: the result's properties, or an error (its code,
// HXF_ERROR_OPERATION_FAILED for a name that is no code, and its text). False with `problem`
// for a payload that is neither.
struct Answer {
  int error = HXF_ERROR_NONE;
  std::string error_text;
  std::vector<hxf_tool::PropertyValue> properties;
};
bool ReadAnswer(const std::string& payload, Answer* answer, std::string* problem);

// The UI meta data an imported device is shown with: the remote `ui_meta` (when it is a JSON
// object within the limits) without its "provider", with "node" added. The plugin kit then
// writes {"provider":"mqtt",...} first.
std::string ImportedMeta(const std::string& remote_ui_meta, const std::string& node);

// The id a device of `node` is offered under: "<node>/<device>".
inline std::string ImportedId(const std::string& node, const std::string& device) {
  return node + "/" + device;
}

}  // namespace hxf_mqtt
