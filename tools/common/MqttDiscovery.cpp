#include "MqttDiscovery.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "AudioVocabulary.h"

namespace hxf_tool {

namespace {

using Ordered = nlohmann::ordered_json;

constexpr const char* kPower = "power";
constexpr const char* kBrightness = "brightness";
constexpr const char* kTemperature = "temperature";
constexpr const char* kTargetTemperature = "target_temperature";
constexpr const char* kMode = "mode";
constexpr const char* kOn = "ON";
constexpr const char* kOff = "OFF";
constexpr const char* kModeOff = "off";
constexpr const char* kLightsService = "lights";

const PropertyValue* Find(const std::vector<PropertyValue>& state, const std::string& name) {
  for (const PropertyValue& p : state) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

bool Has(const std::vector<PropertyValue>& state, const char* name, bool (*is)(const nlohmann::json&)) {
  const PropertyValue* p = Find(state, name);
  return p != nullptr && is(p->value);
}
bool IsBool(const nlohmann::json& v) { return v.is_boolean(); }
bool IsNumber(const nlohmann::json& v) { return v.is_number(); }
bool IsText(const nlohmann::json& v) { return v.is_string(); }

bool IsLight(const Device& device, const std::vector<PropertyValue>& state) {
  return device.service == kLightsService && Has(state, kPower, IsBool);
}
bool IsClimate(const std::vector<PropertyValue>& state) {
  return Has(state, kTargetTemperature, IsNumber);
}

// Home Assistant's object ids and unique ids take [A-Za-z0-9_-] only.
std::string ObjectId(const std::string& text) {
  std::string id = text;
  for (char& c : id) {
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '-';
    if (!plain) c = '_';
  }
  return id;
}

// A property's name may go into a template as value_json.NAME.
bool TemplateName(const std::string& name) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
  for (const char c : name) {
    const bool plain =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    if (!plain) return false;
  }
  return true;
}

std::string Dump(const Ordered& json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

class Builder {
 public:
  Builder(const DiscoveryNames& names, const Device& device) : names_(names), device_(device) {}

  std::string Topic(const std::string& leaf) const {
    return DeviceTopic(names_.prefix, names_.node, device_.service, device_.id, leaf);
  }
  std::string SetTopic(const std::string& property) const {
    return Topic(std::string(kMqttSetLeaf) + "/" + property);
  }

  // What every entity of the device has; `property` empty for the device's own entity.
  Ordered Base(const std::string& property, std::string* object) const {
    *object = ObjectId(device_.service + "_" + device_.id + (property.empty() ? "" : "_" + property));
    Ordered config = Ordered::object();
    config["name"] = property.empty() ? Ordered(nullptr) : Ordered(property);
    config["unique_id"] = "hxf_" + ObjectId(names_.node) + "_" + *object;
    config["availability_topic"] = StatusTopic(names_.prefix, names_.node);
    config["payload_available"] = kMqttOnline;
    config["payload_not_available"] = kMqttOffline;
    Ordered block = Ordered::object();
    block["identifiers"] = Ordered::array(
        {"hxf_" + ObjectId(names_.node) + "_" + ObjectId(device_.service + "_" + device_.id)});
    block["name"] = device_.name.empty() ? device_.id : device_.name;
    block["model"] = device_.service;
    if (!names_.provider.empty()) block["manufacturer"] = names_.provider;
    config["device"] = std::move(block);
    return config;
  }

  void Add(const char* component, const std::string& object, const Ordered& config,
           std::vector<Retained>* out) const {
    out->push_back({std::string(kDiscoveryPrefix) + "/" + component + "/" + ObjectId(names_.node) +
                        "/" + object + "/config",
                    Dump(config)});
  }

 private:
  const DiscoveryNames& names_;
  const Device& device_;
};

}  // namespace

std::vector<Retained> DiscoveryConfigs(const DiscoveryNames& names, const Device& device,
                                       const std::vector<PropertyValue>& state) {
  std::vector<Retained> configs;
  const Builder builder(names, device);
  const std::string state_topic = builder.Topic(kMqttStateLeaf);
  std::vector<std::string> covered{"device_id"};
  std::string object;
  if (IsLight(device, state)) {
    Ordered config = builder.Base("", &object);
    const bool dims = Has(state, kBrightness, IsNumber);
    config["schema"] = "json";
    config["state_topic"] = builder.Topic(kMqttLightLeaf);
    config["command_topic"] = builder.Topic(kMqttLightSetLeaf);
    config["supported_color_modes"] = Ordered::array({dims ? "brightness" : "onoff"});
    if (dims) config["brightness_scale"] = 100;
    builder.Add("light", object, config, &configs);
    covered.insert(covered.end(), {kPower, kBrightness});
  } else if (IsClimate(state)) {
    Ordered config = builder.Base("", &object);
    if (Has(state, kTemperature, IsNumber)) {
      config["current_temperature_topic"] = state_topic;
      config["current_temperature_template"] = "{{ value_json.temperature }}";
    }
    config["temperature_state_topic"] = state_topic;
    config["temperature_state_template"] = "{{ value_json.target_temperature }}";
    config["temperature_command_topic"] = builder.SetTopic(kTargetTemperature);
    config["temp_step"] = 0.5;
    if (Has(state, kPower, IsBool)) {
      const bool modes = Has(state, kMode, IsText);
      config["mode_state_topic"] = state_topic;
      config["mode_state_template"] = modes
                                          ? "{{ value_json.mode if value_json.power else 'off' }}"
                                          : "{{ 'heat' if value_json.power else 'off' }}";
      config["mode_command_topic"] = builder.SetTopic(kMode);
      config["modes"] = modes ? Ordered::array({"off", "heat", "cool", "auto"})
                              : Ordered::array({"off", "heat"});
      covered.insert(covered.end(), {kPower, kMode});
    }
    builder.Add("climate", object, config, &configs);
    covered.insert(covered.end(), {kTemperature, kTargetTemperature});
  }
  // A speaker's words say which of its properties a set takes: the others are sensors (the
  // position and the duration in seconds), never numbers whose commands would be refused.
  const bool speaker = device.service == audio::kService;
  for (const PropertyValue& p : state) {
    if (std::find(covered.begin(), covered.end(), p.name) != covered.end()) continue;
    if (!TemplateName(p.name)) continue;
    Ordered config = builder.Base(p.name, &object);
    config["state_topic"] = state_topic;
    if (speaker && audio::IsWord(p.name) && !audio::Settable(p.name)) {
      config["value_template"] = "{{ value_json." + p.name + " }}";
      if (audio::InSeconds(p.name)) {
        config["device_class"] = "duration";
        config["unit_of_measurement"] = "s";
      }
      builder.Add("sensor", object, config, &configs);
    } else if (p.value.is_boolean()) {
      config["value_template"] = "{{ 'ON' if value_json." + p.name + " else 'OFF' }}";
      config["command_topic"] = builder.SetTopic(p.name);
      config["payload_on"] = kOn;
      config["payload_off"] = kOff;
      builder.Add("switch", object, config, &configs);
    } else if (p.value.is_number()) {
      config["value_template"] = "{{ value_json." + p.name + " }}";
      config["command_topic"] = builder.SetTopic(p.name);
      config["min"] = 0;
      config["max"] = 100;
      config["step"] = p.value.is_number_integer() ? Ordered(1) : Ordered(0.5);
      builder.Add("number", object, config, &configs);
    } else {
      config["value_template"] = "{{ value_json." + p.name + " }}";
      builder.Add("sensor", object, config, &configs);
    }
  }
  return configs;
}

std::string LightState(const Device& device, const std::vector<PropertyValue>& state) {
  if (!IsLight(device, state)) return "";
  Ordered light = Ordered::object();
  light["state"] = Find(state, kPower)->value.get<bool>() ? kOn : kOff;
  const PropertyValue* brightness = Find(state, kBrightness);
  if (brightness != nullptr && brightness->value.is_number()) {
    light["brightness"] = brightness->value;
    light["color_mode"] = "brightness";
  } else {
    light["color_mode"] = "onoff";
  }
  return Dump(light);
}

bool ReadLightCommand(const std::string& payload, const MqttLimits& limits,
                      std::vector<PropertyValue>* set, std::string* error) {
  nlohmann::json json;
  if (!ParseJsonPayload(payload, limits, &json, error)) return false;
  if (!json.is_object()) {
    *error = "a light command must be a JSON object";
    return false;
  }
  set->clear();
  const auto state = json.find("state");
  if (state != json.end()) {
    if (!state->is_string() || (*state != kOn && *state != kOff)) {
      *error = "state must be ON or OFF";
      return false;
    }
    set->push_back({kPower, *state == kOn});
  }
  const auto brightness = json.find(kBrightness);
  if (brightness != json.end()) {
    if (!brightness->is_number() || !std::isfinite(brightness->get<double>())) {
      *error = "brightness must be a number";
      return false;
    }
    set->push_back({kBrightness, static_cast<int64_t>(std::lround(brightness->get<double>()))});
  }
  // Whatever else Home Assistant sends (a transition) has no property here.
  if (set->empty()) {
    *error = "a light command needs state or brightness";
    return false;
  }
  return true;
}

bool ReadSetCommand(const std::string& property, const std::string& payload,
                    const std::vector<PropertyValue>& state, std::vector<PropertyValue>* set,
                    std::string* error) {
  set->clear();
  if (property == kMode && IsClimate(state) && Has(state, kPower, IsBool)) {
    // Home Assistant's "off" is the power; any other mode switches it on.
    if (payload == kModeOff) {
      set->push_back({kPower, false});
      return true;
    }
    set->push_back({kPower, true});
    if (Has(state, kMode, IsText)) set->push_back({kMode, payload});
    return true;
  }
  const PropertyValue* current = Find(state, property);
  if (current == nullptr) {
    *error = "unknown property " + property;
    return false;
  }
  if (current->value.is_boolean()) {
    if (payload != kOn && payload != kOff) {
      *error = property + " takes ON or OFF";
      return false;
    }
    set->push_back({property, payload == kOn});
    return true;
  }
  if (current->value.is_number()) {
    // A number in full, nothing after it: strtod on a copy that ends where the payload does.
    const std::string text = payload;
    char* end = nullptr;
    errno = 0;
    const double value = text.empty() ? 0 : std::strtod(text.c_str(), &end);
    if (text.empty() || end != text.c_str() + text.size() || errno != 0 || !std::isfinite(value)) {
      *error = property + " takes a number";
      return false;
    }
    if (current->value.is_number_integer()) {
      if (value != std::floor(value) || std::fabs(value) > 9.0e15) {
        *error = property + " takes an integer";
        return false;
      }
      set->push_back({property, static_cast<int64_t>(value)});
    } else {
      set->push_back({property, value});
    }
    return true;
  }
  set->push_back({property, payload});
  return true;
}

}  // namespace hxf_tool
