#include "SimModel.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace hxf_sim {

using nlohmann::json;

std::vector<std::string> Model::Services() const {
  std::vector<std::string> services;
  for (const Device& device : devices) {
    if (std::find(services.begin(), services.end(), device.service) == services.end()) {
      services.push_back(device.service);
    }
  }
  return services;
}

Device* Model::Find(const std::string& service, const std::string& id) {
  for (Device& device : devices) {
    if (device.service == service && device.id == id) return &device;
  }
  return nullptr;
}

Device* Model::First(const std::string& service) {
  for (Device& device : devices) {
    if (device.service == service) return &device;
  }
  return nullptr;
}

namespace {

Property Bool(const char* name, bool value) {
  return Property{name, value, std::nullopt, std::nullopt};
}
Property Int(const char* name, int64_t value, double min, double max) {
  return Property{name, value, min, max};
}
Property Real(const char* name, double value, double min, double max) {
  return Property{name, value, min, max};
}
Property Text(const char* name, const char* value) {
  return Property{name, std::string(value), std::nullopt, std::nullopt};
}

Device MakeDevice(const char* id, const char* service, const char* name, const char* address,
                  const char* icon, std::vector<Property> properties) {
  Device device;
  device.id = id;
  device.service = service;
  device.name = name;
  device.interface_name = "wlan0";
  device.interface_type = "wifi";
  device.address = address;
  device.ui_meta = std::string("{\"icon\":\"") + icon + "\",\"room\":\"living room\"}";
  device.properties = std::move(properties);
  return device;
}

}  // namespace

Model DefaultModel() {
  Model model;
  model.devices.push_back(
      MakeDevice("lamp-1", "lights", "Desk lamp", "192.168.1.21", "lamp",
                 {Bool("power", true), Int("brightness", 70, 0, 100), Text("color", "warm")}));
  model.devices.push_back(MakeDevice("ceiling-1", "lights", "Ceiling light", "192.168.1.22",
                                     "ceiling",
                                     {Bool("power", false), Int("brightness", 100, 0, 100)}));
  Device porch = MakeDevice("porch-1", "lights", "Porch light", "192.168.1.23", "porch",
                            {Bool("power", false), Int("brightness", 40, 0, 100)});
  porch.arrive_after_ms = 1500;  // comes online while someone listens...
  porch.depart_after_ms = 4000;  // ...and drops off again
  model.devices.push_back(porch);
  model.devices.push_back(
      MakeDevice("speaker-1", "audio", "Living room speaker", "192.168.1.31", "speaker",
                 {Bool("power", true), Int("volume", 25, 0, 100), Bool("muted", false)}));
  Device soundbar =
      MakeDevice("soundbar-1", "audio", "Soundbar", "192.168.1.32", "soundbar",
                 {Bool("power", true), Int("volume", 40, 0, 100), Text("input", "hdmi")});
  soundbar.response = Response::kSlow;
  soundbar.response_ms = 1200;
  model.devices.push_back(soundbar);
  Device sleepy = MakeDevice("radio-1", "audio", "Old radio", "192.168.1.33", "radio",
                             {Bool("power", false), Int("volume", 10, 0, 100)});
  sleepy.response = Response::kNever;  // never answers: requests to it time out
  model.devices.push_back(sleepy);
  model.devices.push_back(MakeDevice(
      "thermostat-1", "climate", "Hall thermostat", "192.168.1.41", "thermostat",
      {Bool("power", true), Real("target_temperature", 21.5, 5.0, 30.0), Text("mode", "heat")}));
  model.devices.push_back(MakeDevice("fan-1", "climate", "Bedroom fan", "192.168.1.42", "fan",
                                     {Bool("power", false), Int("speed", 2, 0, 5)}));
  return model;
}

namespace {

// A problem found while reading a model, with the line it is on.
struct ConfigError {
  std::string problem;
  std::string needle;  // a text to look for in the file to find the line; may be empty
};

size_t LineOf(const std::string& text, size_t offset) {
  return 1 + static_cast<size_t>(
                 std::count(text.begin(), text.begin() + std::min(offset, text.size()), '\n'));
}

Value ReadValue(const json& value, const std::string& type, const std::string& where) {
  if (type == "bool" && value.is_boolean()) return value.get<bool>();
  if (type == "int" && value.is_number_integer()) return value.get<int64_t>();
  if (type == "double" && value.is_number()) return value.get<double>();
  if (type == "string" && value.is_string()) return value.get<std::string>();
  throw ConfigError{where + ": value " + value.dump() + " is not of type \"" + type + "\"", ""};
}

std::string Text(const json& object, const char* key, const std::string& where, bool required) {
  if (!object.contains(key)) {
    if (required) throw ConfigError{where + ": \"" + key + "\" is missing", ""};
    return "";
  }
  const json& value = object.at(key);
  if (value.is_string()) return value.get<std::string>();
  if (value.is_object() || value.is_array()) return value.dump();
  throw ConfigError{where + ": \"" + key + "\" must be a string", ""};
}

uint32_t Millis(const json& object, const char* key, const std::string& where) {
  if (!object.contains(key)) return 0;
  const json& value = object.at(key);
  if (!value.is_number_unsigned())
    throw ConfigError{where + ": \"" + key + "\" must be a number of milliseconds", ""};
  return value.get<uint32_t>();
}

Device ReadDevice(const json& entry, size_t index) {
  std::string where = "devices[" + std::to_string(index) + "]";
  if (!entry.is_object()) throw ConfigError{where + ": a device must be an object", ""};
  Device device;
  device.id = Text(entry, "id", where, true);
  where += " (\"" + device.id + "\")";
  try {
    device.service = Text(entry, "service", where, true);
    device.name = Text(entry, "name", where, false);
    device.interface_name = Text(entry, "interface_name", where, false);
    device.interface_type = Text(entry, "interface_type", where, false);
    device.address = Text(entry, "address", where, false);
    device.ui_meta = Text(entry, "ui_meta", where, false);
    const std::string response = Text(entry, "response", where, false);
    if (response == "slow") {
      device.response = Response::kSlow;
    } else if (response == "never") {
      device.response = Response::kNever;
    } else if (!response.empty() && response != "normal") {
      throw ConfigError{where + ": \"response\" must be normal, slow or never", ""};
    }
    device.response_ms = Millis(entry, "response_ms", where);
    device.arrive_after_ms = Millis(entry, "arrive_after_ms", where);
    device.depart_after_ms = Millis(entry, "depart_after_ms", where);
    const json properties = entry.value("properties", json::array());
    if (!properties.is_array()) throw ConfigError{where + ": \"properties\" must be an array", ""};
    for (size_t i = 0; i < properties.size(); ++i) {
      const json& p = properties[i];
      const std::string at = where + ".properties[" + std::to_string(i) + "]";
      if (!p.is_object()) throw ConfigError{at + ": a property must be an object", ""};
      Property property;
      property.name = Text(p, "name", at, true);
      const std::string type = Text(p, "type", at, true);
      if (!p.contains("value")) throw ConfigError{at + ": \"value\" is missing", ""};
      property.value = ReadValue(p.at("value"), type, at);
      if (p.contains("min")) property.min = p.at("min").get<double>();
      if (p.contains("max")) property.max = p.at("max").get<double>();
      const std::string wrong = Validate(property, property.value);
      if (!wrong.empty()) throw ConfigError{at + ": " + wrong, ""};
      device.properties.push_back(property);
    }
  } catch (ConfigError& error) {
    error.needle = "\"" + device.id + "\"";  // the device's line
    throw;
  } catch (const json::exception& error) {
    throw ConfigError{where + ": " + error.what(), "\"" + device.id + "\""};
  }
  return device;
}

}  // namespace

std::optional<Model> LoadModel(const std::string& path, std::string* error) {
  std::ifstream file(path);
  if (!file) {
    *error = path + ": cannot be read";
    return std::nullopt;
  }
  std::stringstream buffer;
  buffer << file.rdbuf();
  const std::string text = buffer.str();
  json document;
  try {
    document = json::parse(text);
  } catch (const json::parse_error& e) {
    // e.byte is the offset where parsing stopped.
    *error =
        path + ":" + std::to_string(LineOf(text, e.byte == 0 ? 0 : e.byte - 1)) + ": " + e.what();
    return std::nullopt;
  }
  try {
    if (!document.is_object()) throw ConfigError{"the file must hold a JSON object", ""};
    Model model;
    if (document.contains("search_latency_ms"))
      model.search_latency_ms = Millis(document, "search_latency_ms", "top");
    if (!document.contains("devices") || !document.at("devices").is_array()) {
      throw ConfigError{"\"devices\" must be an array of devices", "\"devices\""};
    }
    const json& devices = document.at("devices");
    for (size_t i = 0; i < devices.size(); ++i) model.devices.push_back(ReadDevice(devices[i], i));
    if (model.devices.empty()) throw ConfigError{"\"devices\" is empty", "\"devices\""};
    return model;
  } catch (const ConfigError& e) {
    const size_t at = e.needle.empty() ? std::string::npos : text.find(e.needle);
    *error = path + ":" +
             (at == std::string::npos ? std::string("1") : std::to_string(LineOf(text, at))) +
             ": " + e.problem;
    return std::nullopt;
  }
}

std::string ToText(const Value& value) {
  return std::visit(
      [](const auto& v) -> std::string {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) {
          return v ? "true" : "false";
        } else if constexpr (std::is_same_v<T, std::string>) {
          return v;
        } else {
          std::ostringstream out;
          out << v;
          return out.str();
        }
      },
      value);
}

std::string Validate(const Property& property, const Value& value) {
  const bool numeric_target = std::holds_alternative<int64_t>(property.value) ||
                              std::holds_alternative<double>(property.value);
  double number = 0;
  if (property.value.index() == value.index()) {
    if (std::holds_alternative<int64_t>(value))
      number = static_cast<double>(std::get<int64_t>(value));
    if (std::holds_alternative<double>(value)) number = std::get<double>(value);
  } else if (std::holds_alternative<double>(property.value) &&
             std::holds_alternative<int64_t>(value)) {
    number = static_cast<double>(std::get<int64_t>(value));
  } else {
    static const char* const kNames[] = {"bool", "int", "double", "string"};
    return property.name + " takes a " + kNames[property.value.index()] + ", not a " +
           kNames[value.index()];
  }
  if (numeric_target) {
    if ((property.min && number < *property.min) || (property.max && number > *property.max)) {
      std::ostringstream out;
      out << property.name << " " << ToText(value) << " is out of range "
          << property.min.value_or(number) << ".." << property.max.value_or(number);
      return out.str();
    }
  }
  return "";
}

}  // namespace hxf_sim
