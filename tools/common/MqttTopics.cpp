#include "MqttTopics.h"

#include <cstdint>
#include <limits>

#include "DeviceFields.h"
#include "Presence.h"

namespace hxf_tool {

namespace {

using Ordered = nlohmann::ordered_json;

bool Plain(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;  // lower case is no escape's output: one id, one spelling
}

// The deepest nesting of arrays and objects in `text`, strings skipped; counted before parsing
// so that no deep input reaches the parser.
int Depth(const std::string& text) {
  int depth = 0, deepest = 0;
  bool in_string = false, escaped = false;
  for (const char c : text) {
    if (in_string) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > deepest) deepest = depth;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

template <typename Json>
const char* TypeName(const Json& value) {
  if (value.is_array()) return "an array";
  if (value.is_object()) return "an object";
  if (value.is_null()) return "null";
  return "a value of no property type";
}

// An object's members as properties, in the object's order (json or ordered_json).
template <typename Json>
bool ReadMembers(const Json& object, const MqttLimits& limits,
                 std::vector<PropertyValue>* properties, std::string* error) {
  if (!object.is_object()) {
    *error = "properties must be a JSON object";
    return false;
  }
  if (object.size() > limits.properties) {
    *error = "more than " + std::to_string(limits.properties) + " properties";
    return false;
  }
  properties->clear();
  for (const auto& [name, value] : object.items()) {
    if (name.empty() || name.size() > limits.name_bytes) {
      *error = "a property name must have 1 to " + std::to_string(limits.name_bytes) + " bytes";
      return false;
    }
    PropertyValue property{name, nullptr};
    if (value.is_boolean()) {
      property.value = value.template get<bool>();
    } else if (value.is_number_float()) {
      property.value = value.template get<double>();
    } else if (value.is_string()) {
      property.value = value.template get<std::string>();
    } else if (value.is_number_unsigned()) {
      if (value.template get<uint64_t>() >
          static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        *error = name + " is above the signed 64-bit range";
        return false;
      }
      property.value = value.template get<int64_t>();
    } else if (value.is_number_integer()) {
      property.value = value.template get<int64_t>();
    } else {
      *error = name + " is " + TypeName(value) + ", not a boolean, number or text";
      return false;
    }
    properties->push_back(std::move(property));
  }
  return true;
}

// The payload's size and nesting within the limits, checked before any parsing.
bool WithinBounds(const std::string& payload, const MqttLimits& limits, std::string* error) {
  if (payload.size() > limits.payload_bytes) {
    *error = "the payload has " + std::to_string(payload.size()) + " bytes, more than " +
             std::to_string(limits.payload_bytes);
    return false;
  }
  if (Depth(payload) > limits.depth) {
    *error = "the payload nests deeper than " + std::to_string(limits.depth) + " levels";
    return false;
  }
  return true;
}

}  // namespace

bool ParseMqttUrl(const std::string& text, MqttUrl* url, std::string* error) {
  const auto fail = [&](const std::string& what) {
    *error = "mqtt URL '" + text + "': " + what;
    return false;
  };
  std::string rest;
  if (text.rfind("mqtt://", 0) == 0) {
    url->tls = false;
    rest = text.substr(7);
  } else if (text.rfind("mqtts://", 0) == 0) {
    url->tls = true;
    rest = text.substr(8);
  } else {
    return fail("it must start with mqtt:// or mqtts://");
  }
  if (!rest.empty() && rest.back() == '/') rest.pop_back();
  if (rest.find_first_of("/?#@") != std::string::npos)
    return fail("only HOST[:PORT] may follow the scheme (a user goes in --mqtt-user)");
  std::string port;
  if (!rest.empty() && rest[0] == '[') {
    const size_t close = rest.find(']');
    if (close == std::string::npos) return fail("an IPv6 address needs its closing ]");
    url->host = rest.substr(1, close - 1);
    const std::string after = rest.substr(close + 1);
    if (!after.empty()) {
      if (after[0] != ':') return fail("a port follows the host after a colon");
      port = after.substr(1);
      if (port.empty()) return fail("the port is empty");
    }
  } else {
    const size_t colon = rest.find(':');
    url->host = rest.substr(0, colon);
    if (colon != std::string::npos) {
      port = rest.substr(colon + 1);
      if (port.empty()) return fail("the port is empty");
    }
  }
  if (url->host.empty()) return fail("the host is missing");
  url->port = url->tls ? 8883 : 1883;
  if (!port.empty()) {
    if (port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
      return fail("the port must be a number from 1 to 65535");
    url->port = std::stoi(port);
    if (url->port < 1 || url->port > 65535) return fail("the port must be a number from 1 to 65535");
  }
  return true;
}

std::string EscapeLevel(const std::string& id) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string level;
  level.reserve(id.size());
  for (const char c : id) {
    const auto byte = static_cast<unsigned char>(c);
    if (Plain(byte)) {
      level += c;
    } else {
      level += '%';
      level += kHex[byte >> 4];
      level += kHex[byte & 0xF];
    }
  }
  return level;
}

bool UnescapeLevel(const std::string& level, std::string* id) {
  id->clear();
  for (size_t i = 0; i < level.size(); ++i) {
    const auto byte = static_cast<unsigned char>(level[i]);
    if (Plain(byte)) {
      *id += level[i];
      continue;
    }
    if (level[i] != '%' || i + 2 >= level.size()) return false;
    const int high = HexDigit(level[i + 1]), low = HexDigit(level[i + 2]);
    if (high < 0 || low < 0) return false;
    const auto decoded = static_cast<unsigned char>(high * 16 + low);
    if (Plain(decoded)) return false;  // would have been written plain
    *id += static_cast<char>(decoded);
    i += 2;
  }
  return true;
}

std::string StatusTopic(const std::string& prefix, const std::string& node) {
  return prefix + "/" + EscapeLevel(node) + "/status";
}

std::string DeviceTopic(const std::string& prefix, const std::string& node,
                        const std::string& service, const std::string& device,
                        const std::string& leaf) {
  return prefix + "/" + EscapeLevel(node) + "/" + EscapeLevel(service) + "/" +
         EscapeLevel(device) + "/" + leaf;
}

bool ParseDeviceTopic(const std::string& prefix, const std::string& topic, MqttTopic* parsed) {
  if (topic.size() <= prefix.size() + 1 || topic.compare(0, prefix.size(), prefix) != 0 ||
      topic[prefix.size()] != '/')
    return false;
  std::string levels[3];
  size_t at = prefix.size() + 1;
  for (std::string& level : levels) {
    const size_t slash = topic.find('/', at);
    if (slash == std::string::npos) return false;
    level = topic.substr(at, slash - at);
    at = slash + 1;
  }
  parsed->leaf = topic.substr(at);
  if (parsed->leaf.empty()) return false;
  return UnescapeLevel(levels[0], &parsed->node) && UnescapeLevel(levels[1], &parsed->service) &&
         UnescapeLevel(levels[2], &parsed->device) && !parsed->node.empty() &&
         !parsed->service.empty() && !parsed->device.empty();
}

std::string PropertiesJson(const std::vector<PropertyValue>& properties) {
  Ordered object = Ordered::object();
  for (const PropertyValue& p : properties) object[p.name] = p.value;
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool ReadPropertiesJson(const nlohmann::json& object, const MqttLimits& limits,
                        std::vector<PropertyValue>* properties, std::string* error) {
  return ReadMembers(object, limits, properties, error);
}

bool ParseJsonPayload(const std::string& payload, const MqttLimits& limits, nlohmann::json* json,
                      std::string* error) {
  if (!WithinBounds(payload, limits, error)) return false;
  *json = nlohmann::json::parse(payload, nullptr, false);
  if (json->is_discarded()) {
    *error = "the payload is not JSON";
    return false;
  }
  return true;
}

std::string DeviceJson(const Device& device) {
  Ordered object = Ordered::object();
  for (const DeviceField& field : kDeviceFields) object[field.key] = device.*field.member;
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool ReadDeviceJson(const std::string& payload, const MqttLimits& limits, Device* device,
                    std::string* error) {
  nlohmann::json json;
  if (!ParseJsonPayload(payload, limits, &json, error)) return false;
  if (!json.is_object()) {
    *error = "a device must be a JSON object";
    return false;
  }
  *device = Device{};
  for (const DeviceField& field : kDeviceFields) {
    const auto found = json.find(field.key);
    if (found == json.end()) continue;
    if (!found->is_string()) {
      *error = std::string(field.key) + " must be text";
      return false;
    }
    device->*field.member = found->get<std::string>();
  }
  if (device->id.empty()) {
    *error = "the device has no device_id";
    return false;
  }
  return true;
}

std::string PlainMeta(const std::string& ui_meta) {
  for (const char* presence : {kPresenceArrived, kPresenceLeft}) {
    if (!HasPresence(ui_meta, presence)) continue;
    const std::string wrapper =
        std::string("{\"") + kPresenceKey + "\":\"" + presence + "\",\"device\":";
    if (ui_meta.size() < wrapper.size() + 1 || ui_meta.back() != '}') return ui_meta;
    return ui_meta.substr(wrapper.size(), ui_meta.size() - wrapper.size() - 1);
  }
  return ui_meta;
}

bool ParseCommand(const std::string& payload, const MqttLimits& limits, MqttCommand* command,
                  std::string* error) {
  if (!WithinBounds(payload, limits, error)) return false;
  const Ordered json = Ordered::parse(payload, nullptr, false);
  if (json.is_discarded()) {
    *error = "the payload is not JSON";
    return false;
  }
  if (!json.is_object()) {
    *error = "a command must be a JSON object";
    return false;
  }
  const auto operation = json.find("operation");
  if (operation == json.end() || !operation->is_string()) {
    *error = "operation (text) is required";
    return false;
  }
  command->operation = operation->get<std::string>();
  if (command->operation.empty() || command->operation.size() > limits.name_bytes) {
    *error = "operation must have 1 to " + std::to_string(limits.name_bytes) + " bytes";
    return false;
  }
  command->properties.clear();
  for (const auto& [key, value] : json.items()) {
    if (key != "operation" && key != "properties") {
      *error = "unknown member " + key + " (a command has operation and properties)";
      return false;
    }
  }
  const auto properties = json.find("properties");
  if (properties == json.end()) return true;
  return ReadMembers(*properties, limits, &command->properties, error);
}

std::string CommandJson(const MqttCommand& command) {
  Ordered object = Ordered::object();
  object["operation"] = command.operation;
  Ordered properties = Ordered::object();
  for (const PropertyValue& p : command.properties) properties[p.name] = p.value;
  object["properties"] = std::move(properties);
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string ErrorJson(int code, const std::string& text) {
  const char* name = CodeName(code);
  if (name == nullptr || code == 0) name = CodeName(HXF_ERROR_OPERATION_FAILED);
  Ordered object = Ordered::object();
  object["error"] = text;
  object["error_name"] = name;
  return object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool ReadErrorJson(const std::string& payload, int* code, std::string* text) {
  const nlohmann::json json = nlohmann::json::parse(payload, nullptr, false);
  if (json.is_discarded() || !json.is_object() || json.size() != 2) return false;
  const auto error = json.find("error");
  const auto name = json.find("error_name");
  if (error == json.end() || name == json.end() || !error->is_string() || !name->is_string())
    return false;
  *text = error->get<std::string>();
  *code = HXF_ERROR_OPERATION_FAILED;
  for (int candidate = 0; candidate < kCodeRange; ++candidate) {
    const char* known = CodeName(candidate);
    if (known != nullptr && name->get<std::string>() == known) *code = candidate;
  }
  return true;
}

}  // namespace hxf_tool
