// Fuzzes what hxfd's MQTT front and the import plugin read from the network
// (tools/common/MqttTopics.h, MqttDiscovery.h): the input is a payload for every reader at
// once (a command, a device, an error answer, Home Assistant's light command and a value for
// each property type), and a topic, a topic level and a broker URL. Whatever comes, each reader
// returns and keeps its promises: a command holds a named operation and values of the four
// types only, and writes out as a command that reads back the same; a device has its id; a
// level unescaped escapes back to itself.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "MqttDiscovery.h"
#include "MqttTopics.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool OfPropertyType(const nlohmann::json& value) {
  return value.is_boolean() || value.is_number_integer() || value.is_number_float() ||
         value.is_string();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const hxf_tool::MqttLimits limits;
  std::string error;

  hxf_tool::MqttCommand command;
  if (hxf_tool::ParseCommand(input, limits, &command, &error)) {
    Check(!command.operation.empty() && command.operation.size() <= limits.name_bytes);
    Check(command.properties.size() <= limits.properties);
    for (const hxf_tool::PropertyValue& p : command.properties) Check(OfPropertyType(p.value));
    // Written out, it reads back (text that is no UTF-8 is written replaced, up to three
    // bytes for one: more room for the reading).
    hxf_tool::MqttLimits roomy = limits;
    roomy.payload_bytes *= 4;
    hxf_tool::MqttCommand again;
    Check(hxf_tool::ParseCommand(hxf_tool::CommandJson(command), roomy, &again, &error));
    Check(again.properties.size() <= command.properties.size());
  } else {
    Check(!error.empty());
  }

  hxf_tool::Device device;
  if (hxf_tool::ReadDeviceJson(input, limits, &device, &error)) Check(!device.id.empty());

  int code = 0;
  std::string text;
  if (hxf_tool::ReadErrorJson(input, &code, &text)) Check(code >= 0 && code < hxf_tool::kCodeRange);

  std::vector<hxf_tool::PropertyValue> set;
  if (hxf_tool::ReadLightCommand(input, limits, &set, &error)) Check(!set.empty());
  const std::vector<hxf_tool::PropertyValue> state{{"power", true},
                                                   {"volume", int64_t{25}},
                                                   {"target_temperature", 21.5},
                                                   {"mode", "heat"}};
  for (const char* property : {"power", "volume", "target_temperature", "mode", "unknown"}) {
    if (hxf_tool::ReadSetCommand(property, input, state, &set, &error)) {
      for (const hxf_tool::PropertyValue& p : set) Check(OfPropertyType(p.value));
    }
  }

  hxf_tool::MqttTopic topic;
  if (hxf_tool::ParseDeviceTopic("hxf", input, &topic)) {
    Check(!topic.node.empty() && !topic.service.empty() && !topic.device.empty());
    Check(hxf_tool::DeviceTopic("hxf", topic.node, topic.service, topic.device, topic.leaf) ==
          input);
  }
  std::string id;
  if (hxf_tool::UnescapeLevel(input, &id)) Check(hxf_tool::EscapeLevel(id) == input);
  Check(hxf_tool::UnescapeLevel(hxf_tool::EscapeLevel(input), &id) && id == input);

  hxf_tool::MqttUrl url;
  if (hxf_tool::ParseMqttUrl(input, &url, &error))
    Check(!url.host.empty() && url.port >= 1 && url.port <= 65535);

  // The discovery of a device whatever its ids and properties: every configuration is JSON.
  std::vector<hxf_tool::PropertyValue> properties;
  nlohmann::json json;
  if (hxf_tool::ParseJsonPayload(input, limits, &json, &error) && json.is_object() &&
      hxf_tool::ReadPropertiesJson(json, limits, &properties, &error)) {
    const hxf_tool::Device named{"lights", input.substr(0, 16), "n", "", "", "", ""};
    for (const hxf_tool::Retained& config :
         hxf_tool::DiscoveryConfigs({"hxf", input.substr(0, 8), "sim"}, named, properties))
      Check(!nlohmann::json::parse(config.payload, nullptr, false).is_discarded());
    hxf_tool::LightState(named, properties);
  }
  return 0;
}
