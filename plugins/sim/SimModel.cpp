#include "SimModel.h"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace hxf_sim {

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

std::vector<std::string> Model::Ids(const std::string& service) const {
  std::vector<std::string> ids;
  for (const Device& device : devices) {
    if (device.service == service) ids.push_back(device.id);
  }
  return ids;
}

namespace {

Property Make(const char* name, Value value, std::optional<double> min = std::nullopt,
              std::optional<double> max = std::nullopt) {
  Property property;
  property.name = name;
  property.value = std::move(value);
  property.min = min;
  property.max = max;
  return property;
}
Property Bool(const char* name, bool value) {
  return Make(name, value);
}
Property Int(const char* name, int64_t value, double min, double max) {
  return Make(name, value, min, max);
}
Property Real(const char* name, double value, double min, double max) {
  return Make(name, value, min, max);
}
Property Text(const char* name, const char* value) {
  return Make(name, std::string(value));
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

Device MakeSpeaker(const char* id, const char* name, const char* address, const char* icon,
                   int64_t volume) {
  Device device = MakeDevice(id, kAudioService, name, address, icon, {});
  device.speaker.emplace();
  device.speaker->volume = volume;
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
  // Speakers: the audio service's words only, as a media renderer has them (no power, no input).
  model.devices.push_back(MakeSpeaker("speaker-1", "Living room speaker", "192.168.1.31",
                                      "speaker", 25));
  Device soundbar = MakeSpeaker("soundbar-1", "Soundbar", "192.168.1.32", "soundbar", 40);
  soundbar.response = Response::kSlow;
  soundbar.response_ms = 1200;
  model.devices.push_back(soundbar);
  Device sleepy = MakeSpeaker("radio-1", "Old radio", "192.168.1.33", "radio", 10);
  sleepy.response = Response::kNever;  // never answers: requests to it time out
  model.devices.push_back(sleepy);
  Property measured = Real("temperature", 20.5, 10.0, 30.0);
  measured.read_only = true;
  measured.drift = Drift{0.1, 3000};  // the hall warms and cools: subscribers hear it
  model.devices.push_back(
      MakeDevice("thermostat-1", "climate", "Hall thermostat", "192.168.1.41", "thermostat",
                 {Bool("power", true), measured, Real("target_temperature", 21.5, 5.0, 30.0),
                  Text("mode", "heat")}));
  model.devices.push_back(MakeDevice("fan-1", "climate", "Bedroom fan", "192.168.1.42", "fan",
                                     {Bool("power", false), Int("speed", 2, 0, 5)}));
  return model;
}

void DriftStep(Property* property, bool up) {
  if (!property->drift) return;
  const double step = property->drift->step;
  const bool is_int = std::holds_alternative<int64_t>(property->value);
  const double now = is_int ? static_cast<double>(std::get<int64_t>(property->value))
                            : std::get<double>(property->value);
  double next = now + (up ? step : -step);
  if ((property->max && next > *property->max) || (property->min && next < *property->min))
    next = now + (up ? -step : step);  // bounce off the end of the range
  if ((property->max && next > *property->max) || (property->min && next < *property->min))
    return;  // the range is narrower than a step
  if (is_int) {
    property->value = static_cast<int64_t>(std::llround(next));
    return;
  }
  // Round to the step's decimals: an integer divided by a power of ten is the double
  // nearest that decimal, so 20.6 prints as 20.6, never as 20.600000000000001.
  double scale = 1;
  while (scale < 1e6 && std::abs(step * scale - std::round(step * scale)) > 1e-9) scale *= 10;
  property->value = std::round(next * scale) / scale;
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
