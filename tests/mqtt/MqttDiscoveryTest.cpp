// Home Assistant's discovery for the simulator's devices (tools/common/MqttDiscovery.h): the
// entities each becomes, every key checked against the keys Home Assistant documents for its
// MQTT component, and its commands read back as sets.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "MqttDiscovery.h"

using namespace hxf_tool;

namespace {

// The configuration keys of Home Assistant's MQTT integration, per component, as its
// documentation lists them (the long forms; abbreviations are not used here).
const std::set<std::string> kCommon{
    "availability",         "availability_mode",     "availability_template",
    "availability_topic",   "device",                "enabled_by_default",
    "encoding",             "entity_category",       "icon",
    "json_attributes_template", "json_attributes_topic", "name",
    "object_id",            "origin",                "payload_available",
    "payload_not_available", "qos",                  "unique_id"};
const std::map<std::string, std::set<std::string>> kComponentKeys{
    {"light",
     {"schema", "brightness", "brightness_scale", "color_mode", "command_topic", "effect",
      "effect_list", "flash_time_long", "flash_time_short", "max_mireds", "min_mireds",
      "optimistic", "retain", "state_topic", "supported_color_modes", "transition",
      "white_scale"}},
    {"climate",
     {"action_template", "action_topic", "current_humidity_template", "current_humidity_topic",
      "current_temperature_template", "current_temperature_topic", "fan_mode_command_template",
      "fan_mode_command_topic", "fan_mode_state_template", "fan_mode_state_topic", "fan_modes",
      "initial", "max_humidity", "max_temp", "min_humidity", "min_temp",
      "mode_command_template", "mode_command_topic", "mode_state_template", "mode_state_topic",
      "modes", "optimistic", "payload_off", "payload_on", "power_command_template",
      "power_command_topic", "precision", "preset_mode_command_template",
      "preset_mode_command_topic", "preset_mode_state_topic", "preset_mode_value_template",
      "preset_modes", "retain", "swing_mode_command_template", "swing_mode_command_topic",
      "swing_mode_state_template", "swing_mode_state_topic", "swing_modes",
      "target_humidity_command_template", "target_humidity_command_topic",
      "target_humidity_state_template", "target_humidity_state_topic",
      "temperature_command_template", "temperature_command_topic",
      "temperature_high_command_template", "temperature_high_command_topic",
      "temperature_high_state_template", "temperature_high_state_topic",
      "temperature_low_command_template", "temperature_low_command_topic",
      "temperature_low_state_template", "temperature_low_state_topic",
      "temperature_state_template", "temperature_state_topic", "temperature_unit", "temp_step",
      "value_template"}},
    {"switch",
     {"command_template", "command_topic", "device_class", "optimistic", "payload_off",
      "payload_on", "retain", "state_off", "state_on", "state_topic", "value_template"}},
    {"number",
     {"command_template", "command_topic", "device_class", "max", "min", "mode", "optimistic",
      "payload_reset", "retain", "state_topic", "step", "unit_of_measurement",
      "value_template"}},
    {"sensor",
     {"device_class", "expire_after", "force_update", "last_reset_value_template",
      "state_class", "state_topic", "suggested_display_precision", "unit_of_measurement",
      "value_template"}}};
const std::map<std::string, std::set<std::string>> kRequired{{"light", {"command_topic"}},
                                                             {"climate", {}},
                                                             {"switch", {"command_topic"}},
                                                             {"number", {"command_topic"}},
                                                             {"sensor", {"state_topic"}}};
const std::set<std::string> kDeviceKeys{
    "configuration_url", "connections", "hw_version",    "identifiers",   "manufacturer",
    "model",             "model_id",    "name",          "serial_number", "suggested_area",
    "sw_version",        "via_device"};

const DiscoveryNames kNames{"hxf", "den", "sim"};

Device Sim(const std::string& service, const std::string& id, const std::string& name) {
  return Device{service, id, name, "wlan0", "wifi", "192.168.1.21", R"({"provider":"sim"})"};
}

// The component of a discovery topic: homeassistant/<component>/<node>/<object>/config.
std::string ComponentOf(const std::string& topic) {
  const size_t begin = topic.find('/') + 1;
  return topic.substr(begin, topic.find('/', begin) - begin);
}

void ExpectHomeAssistantAccepts(const std::vector<Retained>& configs) {
  for (const Retained& config : configs) {
    const std::string component = ComponentOf(config.topic);
    ASSERT_EQ(kComponentKeys.count(component), 1u) << config.topic;
    const nlohmann::json json = nlohmann::json::parse(config.payload);
    for (const auto& [key, value] : json.items()) {
      EXPECT_TRUE(kCommon.count(key) == 1 || kComponentKeys.at(component).count(key) == 1)
          << component << " has no key " << key;
    }
    for (const std::string& key : kRequired.at(component))
      EXPECT_TRUE(json.contains(key)) << config.topic << " lacks " << key;
    for (const char* key : {"unique_id", "availability_topic", "device"})
      EXPECT_TRUE(json.contains(key)) << config.topic << " lacks " << key;
    for (const auto& [key, value] : json["device"].items())
      EXPECT_EQ(kDeviceKeys.count(key), 1u) << "the device block has no key " << key;
    // Topic levels Home Assistant reads: [A-Za-z0-9_-] only.
    const std::string object = config.topic.substr(0, config.topic.rfind('/'));
    EXPECT_EQ(object.find_first_not_of(
                  "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-/"),
              std::string::npos)
        << config.topic;
  }
}

}  // namespace

TEST(MqttDiscovery, ALampIsAJsonLightWithBrightnessAndItsColourASensor) {
  const auto configs = DiscoveryConfigs(kNames, Sim("lights", "lamp-1", "Desk lamp"),
                                        {{"device_id", "lamp-1"},
                                         {"power", true},
                                         {"brightness", 70},
                                         {"color", "warm"}});
  ASSERT_EQ(configs.size(), 2u);
  EXPECT_EQ(configs[0].topic, "homeassistant/light/den/lights_lamp-1/config");
  EXPECT_EQ(configs[0].payload,
            R"({"name":null,"unique_id":"hxf_den_lights_lamp-1","availability_topic":"hxf/den/status","payload_available":"online","payload_not_available":"offline","device":{"identifiers":["hxf_den_lights_lamp-1"],"name":"Desk lamp","model":"lights","manufacturer":"sim"},"schema":"json","state_topic":"hxf/den/lights/lamp-1/ha/light","command_topic":"hxf/den/lights/lamp-1/ha/light/set","supported_color_modes":["brightness"],"brightness_scale":100})");
  EXPECT_EQ(configs[1].topic, "homeassistant/sensor/den/lights_lamp-1_color/config");
  ExpectHomeAssistantAccepts(configs);
  EXPECT_EQ(LightState(Sim("lights", "lamp-1", "Desk lamp"),
                       {{"power", true}, {"brightness", 70}}),
            R"({"state":"ON","brightness":70,"color_mode":"brightness"})");
}

TEST(MqttDiscovery, AThermostatIsAClimateWithCurrentAndTargetTemperature) {
  const auto configs = DiscoveryConfigs(kNames, Sim("climate", "thermostat-1", "Hall thermostat"),
                                        {{"device_id", "thermostat-1"},
                                         {"power", true},
                                         {"temperature", 20.5},
                                         {"target_temperature", 21.5},
                                         {"mode", "heat"}});
  ASSERT_EQ(configs.size(), 1u);
  EXPECT_EQ(configs[0].topic, "homeassistant/climate/den/climate_thermostat-1/config");
  const nlohmann::json json = nlohmann::json::parse(configs[0].payload);
  EXPECT_EQ(json["current_temperature_topic"], "hxf/den/climate/thermostat-1/state");
  EXPECT_EQ(json["current_temperature_template"], "{{ value_json.temperature }}");
  EXPECT_EQ(json["temperature_state_template"], "{{ value_json.target_temperature }}");
  EXPECT_EQ(json["temperature_command_topic"],
            "hxf/den/climate/thermostat-1/ha/set/target_temperature");
  EXPECT_EQ(json["mode_command_topic"], "hxf/den/climate/thermostat-1/ha/set/mode");
  ExpectHomeAssistantAccepts(configs);
}

TEST(MqttDiscovery, ASpeakerIsANumberASwitchAndSensorsForWhatASetDoesNotTake) {
  const auto configs = DiscoveryConfigs(
      kNames, Sim("audio", "soundbar-1", "Soundbar"),
      {{"device_id", "soundbar-1"}, {"volume", 40}, {"muted", false},
       {"transport_state", "playing"}, {"uri", "http://h/a.wav"}, {"position", 12},
       {"duration", 180}, {"input", "hdmi"}});
  ASSERT_EQ(configs.size(), 7u);
  EXPECT_EQ(configs[0].topic, "homeassistant/number/den/audio_soundbar-1_volume/config");
  EXPECT_EQ(configs[0].payload,
            R"({"name":"volume","unique_id":"hxf_den_audio_soundbar-1_volume","availability_topic":"hxf/den/status","payload_available":"online","payload_not_available":"offline","device":{"identifiers":["hxf_den_audio_soundbar-1"],"name":"Soundbar","model":"audio","manufacturer":"sim"},"state_topic":"hxf/den/audio/soundbar-1/state","value_template":"{{ value_json.volume }}","command_topic":"hxf/den/audio/soundbar-1/ha/set/volume","min":0,"max":100,"step":1})");
  EXPECT_EQ(configs[1].topic, "homeassistant/switch/den/audio_soundbar-1_muted/config");
  EXPECT_EQ(configs[2].topic, "homeassistant/sensor/den/audio_soundbar-1_transport_state/config");
  EXPECT_EQ(configs[3].topic, "homeassistant/sensor/den/audio_soundbar-1_uri/config");
  // Read only, in seconds: a sensor of a duration, no command topic.
  EXPECT_EQ(configs[4].topic, "homeassistant/sensor/den/audio_soundbar-1_position/config");
  EXPECT_EQ(configs[4].payload,
            R"({"name":"position","unique_id":"hxf_den_audio_soundbar-1_position","availability_topic":"hxf/den/status","payload_available":"online","payload_not_available":"offline","device":{"identifiers":["hxf_den_audio_soundbar-1"],"name":"Soundbar","model":"audio","manufacturer":"sim"},"state_topic":"hxf/den/audio/soundbar-1/state","value_template":"{{ value_json.position }}","device_class":"duration","unit_of_measurement":"s"})");
  EXPECT_EQ(configs[5].topic, "homeassistant/sensor/den/audio_soundbar-1_duration/config");
  // A property that is none of the audio words is mapped by its type, as on any device.
  EXPECT_EQ(configs[6].topic, "homeassistant/sensor/den/audio_soundbar-1_input/config");
  ExpectHomeAssistantAccepts(configs);
}

TEST(MqttDiscovery, OddIdsBecomeHomeAssistantIds) {
  const auto configs = DiscoveryConfigs({"hxf", "my.host", "sim"}, Sim("audio", "a b/c", ""),
                                        {{"power", true}, {"odd name", 1}});
  ASSERT_EQ(configs.size(), 1u);  // no entity for a name a template cannot hold
  EXPECT_EQ(configs[0].topic, "homeassistant/switch/my_host/audio_a_b_c_power/config");
  ExpectHomeAssistantAccepts(configs);
}

TEST(MqttDiscovery, HomeAssistantsCommandsAreSets) {
  std::vector<PropertyValue> set;
  std::string error;
  ASSERT_TRUE(ReadLightCommand(R"({"state":"ON","brightness":50})", {}, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"power":true,"brightness":50})");
  ASSERT_TRUE(ReadLightCommand(R"({"state":"OFF","transition":2})", {}, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"power":false})");
  EXPECT_FALSE(ReadLightCommand(R"({"state":"DIM"})", {}, &set, &error));
  EXPECT_EQ(error, "state must be ON or OFF");
  EXPECT_FALSE(ReadLightCommand("{}", {}, &set, &error));

  const std::vector<PropertyValue> speaker{{"power", true}, {"volume", 25}, {"gain", 0.5}};
  ASSERT_TRUE(ReadSetCommand("power", "OFF", speaker, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"power":false})");
  ASSERT_TRUE(ReadSetCommand("volume", "30", speaker, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"volume":30})");
  ASSERT_TRUE(ReadSetCommand("volume", "30.0", speaker, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"volume":30})");
  ASSERT_TRUE(ReadSetCommand("gain", "1.5", speaker, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"gain":1.5})");
  EXPECT_FALSE(ReadSetCommand("volume", "30.5", speaker, &set, &error));
  EXPECT_EQ(error, "volume takes an integer");
  EXPECT_FALSE(ReadSetCommand("volume", "loud", speaker, &set, &error));
  EXPECT_EQ(error, "volume takes a number");
  EXPECT_FALSE(ReadSetCommand("power", "on", speaker, &set, &error));
  EXPECT_EQ(error, "power takes ON or OFF");
  EXPECT_FALSE(ReadSetCommand("bass", "1", speaker, &set, &error));
  EXPECT_EQ(error, "unknown property bass");

  const std::vector<PropertyValue> thermostat{
      {"power", true}, {"temperature", 20.5}, {"target_temperature", 21.5}, {"mode", "heat"}};
  ASSERT_TRUE(ReadSetCommand("mode", "off", thermostat, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"power":false})");
  ASSERT_TRUE(ReadSetCommand("mode", "cool", thermostat, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"power":true,"mode":"cool"})");
  ASSERT_TRUE(ReadSetCommand("target_temperature", "22", thermostat, &set, &error)) << error;
  EXPECT_EQ(PropertiesJson(set), R"({"target_temperature":22.0})");
}
