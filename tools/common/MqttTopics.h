// hxf on MQTT (docs/MQTT.md): the broker URL, the topic layout and the payloads, spelt once
// for hxfd's MQTT front and the MQTT import plugin. No MQTT library here: these are the
// readers of untrusted input, fuzzed by tests/fuzz/fuzz_mqtt_payload.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CoreValues.h"

namespace hxf_tool {

// ---- the broker ----

// mqtt://HOST[:PORT] (1883) or mqtts://HOST[:PORT] (8883); HOST may be [IPv6].
struct MqttUrl {
  bool tls = false;
  std::string host;
  int port = 0;
};
// False with what is wrong in *error ("mqtt URL 'x': ...").
bool ParseMqttUrl(const std::string& text, MqttUrl* url, std::string* error);

// ---- topics ----

constexpr const char* kMqttDefaultPrefix = "hxf";
constexpr const char* kMqttOnline = "online";
constexpr const char* kMqttOffline = "offline";
// The leaves under P/N/<service>/<device>/.
constexpr const char* kMqttDeviceLeaf = "device";
constexpr const char* kMqttStateLeaf = "state";
constexpr const char* kMqttCommandLeaf = "command";
// Home Assistant's: the JSON light's state and commands, one property's value.
constexpr const char* kMqttLightLeaf = "ha/light";
constexpr const char* kMqttLightSetLeaf = "ha/light/set";
constexpr const char* kMqttSetLeaf = "ha/set";  // ha/set/<property>
// The provider name of the import plugin: its devices are never exported again.
constexpr const char* kMqttProvider = "mqtt";

// One topic level from a node, service or device id: every byte outside [A-Za-z0-9._-] as %XX
// (upper-case hex). Unescape gives the id back; false for a level that is no escape's output.
std::string EscapeLevel(const std::string& id);
bool UnescapeLevel(const std::string& level, std::string* id);

// P/N/status.
std::string StatusTopic(const std::string& prefix, const std::string& node);
// P/N/<service>/<device>/<leaf>, each id escaped; `leaf` as it is (one of the leaves above, or
// kMqttSetLeaf + "/" + property).
std::string DeviceTopic(const std::string& prefix, const std::string& node,
                        const std::string& service, const std::string& device,
                        const std::string& leaf);

// A topic under P/, read back: the node, the service and the device unescaped and the leaf
// (everything after the device's level). False for a topic of another prefix, too few
// levels or a level that is no escape's output.
struct MqttTopic {
  std::string node, service, device, leaf;
};
bool ParseDeviceTopic(const std::string& prefix, const std::string& topic, MqttTopic* parsed);

// ---- payloads ----

// What a payload from the network may hold (docs/MQTT.md, Requests).
struct MqttLimits {
  size_t payload_bytes = 65536;
  int depth = 8;
  size_t properties = 256;
  size_t name_bytes = 255;
};

// Properties as a JSON object text, in their order: {"power":true,"brightness":70}.
std::string PropertiesJson(const std::vector<PropertyValue>& properties);
// A JSON object's members as properties. False with what is wrong in *error for a value that
// is an array, an object, null or an integer beyond int64, an empty or long name, or too many.
bool ReadPropertiesJson(const nlohmann::json& object, const MqttLimits& limits,
                        std::vector<PropertyValue>* properties, std::string* error);
// Parses `payload` as JSON within the limits (size, depth); false with *error otherwise.
bool ParseJsonPayload(const std::string& payload, const MqttLimits& limits, nlohmann::json* json,
                      std::string* error);

// A device as the `device` topic carries it (DeviceFields.h's names), and back; reading
// skips unknown members and refuses a field that is not text.
std::string DeviceJson(const Device& device);
bool ReadDeviceJson(const std::string& payload, const MqttLimits& limits, Device* device,
                    std::string* error);

// The UI meta data without the arrival or departure mark (Presence.h): a `device` topic holds
// the device, not the event that brought it.
std::string PlainMeta(const std::string& ui_meta);

// A request on a command topic: {"operation": "...", "properties": {...}}.
struct MqttCommand {
  std::string operation;
  std::vector<PropertyValue> properties;
};
bool ParseCommand(const std::string& payload, const MqttLimits& limits, MqttCommand* command,
                  std::string* error);
std::string CommandJson(const MqttCommand& command);

// An answer's error: {"error":"TEXT","error_name":"HXF_ERROR_..."}; a code that is no core code
// is named HXF_ERROR_OPERATION_FAILED.
std::string ErrorJson(int code, const std::string& text);
// Whether `payload` is such an error, and its parts.
bool ReadErrorJson(const std::string& payload, int* code, std::string* text);

}  // namespace hxf_tool
