// Home Assistant's MQTT discovery for an exported device (docs/MQTT.md, Home Assistant): which
// entities a device becomes, their configurations, the JSON light's state, and Home
// Assistant's commands read back as properties to set.
#pragma once

#include <string>
#include <vector>

#include "CoreValues.h"
#include "MqttTopics.h"

namespace hxf_tool {

constexpr const char* kDiscoveryPrefix = "homeassistant";
constexpr const char* kDiscoveryStatusTopic = "homeassistant/status";

struct DiscoveryNames {
  std::string prefix;  // P
  std::string node;    // N
  std::string provider;  // the device's provider, its "manufacturer"
};

struct Retained {
  std::string topic, payload;
};

// The discovery configurations of `device` with properties `state`, in a fixed order: the
// light or climate entity first, then one per remaining property.
std::vector<Retained> DiscoveryConfigs(const DiscoveryNames& names, const Device& device,
                                       const std::vector<PropertyValue>& state);
// The JSON light's state of a light ({"state":"ON","brightness":70,"color_mode":"brightness"});
// empty when `device` is no light.
std::string LightState(const Device& device, const std::vector<PropertyValue>& state);

// Home Assistant's JSON light command as the properties of a set; false with *error.
bool ReadLightCommand(const std::string& payload, const MqttLimits& limits,
                      std::vector<PropertyValue>* set, std::string* error);
// One entity's value for `property` (ON/OFF, a number, a climate mode) as the properties of a
// set, typed after the property's current value in `state`; false with *error.
bool ReadSetCommand(const std::string& property, const std::string& payload,
                    const std::vector<PropertyValue>& state, std::vector<PropertyValue>* set,
                    std::string* error);

}  // namespace hxf_tool
