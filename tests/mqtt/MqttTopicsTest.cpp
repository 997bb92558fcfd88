// The MQTT names and payloads of docs/MQTT.md, as tools/common/MqttTopics.h spells them.
#include <gtest/gtest.h>

#include <string>

#include "DeviceFields.h"
#include "MqttTopics.h"

using namespace hxf_tool;

TEST(MqttUrl, ReadsSchemeHostAndPort) {
  MqttUrl url;
  std::string error;
  ASSERT_TRUE(ParseMqttUrl("mqtt://127.0.0.1:18830", &url, &error)) << error;
  EXPECT_FALSE(url.tls);
  EXPECT_EQ(url.host, "127.0.0.1");
  EXPECT_EQ(url.port, 18830);
  ASSERT_TRUE(ParseMqttUrl("mqtts://broker.lan", &url, &error)) << error;
  EXPECT_TRUE(url.tls);
  EXPECT_EQ(url.port, 8883);
  ASSERT_TRUE(ParseMqttUrl("mqtt://[::1]:1884/", &url, &error)) << error;
  EXPECT_EQ(url.host, "::1");
  EXPECT_EQ(url.port, 1884);
  ASSERT_TRUE(ParseMqttUrl("mqtt://localhost", &url, &error)) << error;
  EXPECT_EQ(url.port, 1883);
}

TEST(MqttUrl, RefusesWhatIsNoBrokerUrl) {
  MqttUrl url;
  std::string error;
  EXPECT_FALSE(ParseMqttUrl("tcp://h:1", &url, &error));
  EXPECT_EQ(error, "mqtt URL 'tcp://h:1': it must start with mqtt:// or mqtts://");
  EXPECT_FALSE(ParseMqttUrl("mqtt://h:0", &url, &error));
  EXPECT_EQ(error, "mqtt URL 'mqtt://h:0': the port must be a number from 1 to 65535");
  EXPECT_FALSE(ParseMqttUrl("mqtt://h:65536", &url, &error));
  EXPECT_FALSE(ParseMqttUrl("mqtt://h:", &url, &error));
  EXPECT_FALSE(ParseMqttUrl("mqtt://:1883", &url, &error));
  EXPECT_FALSE(ParseMqttUrl("mqtt://u:p@h", &url, &error));
  EXPECT_FALSE(ParseMqttUrl("mqtt://h/x", &url, &error));
  EXPECT_FALSE(ParseMqttUrl("mqtt://[::1", &url, &error));
}

TEST(MqttTopic, EscapesEveryByteOutsideThePlainSet) {
  EXPECT_EQ(EscapeLevel("lamp-1.a_b"), "lamp-1.a_b");
  EXPECT_EQ(EscapeLevel("lamp 1/a"), "lamp%201%2Fa");
  EXPECT_EQ(EscapeLevel("+#%"), "%2B%23%25");
  EXPECT_EQ(EscapeLevel(std::string("\xff\x00", 2)), "%FF%00");
  std::string id;
  ASSERT_TRUE(UnescapeLevel("lamp%201%2Fa", &id));
  EXPECT_EQ(id, "lamp 1/a");
  EXPECT_FALSE(UnescapeLevel("lamp%2f", &id));  // lower case: no escape's output
  EXPECT_FALSE(UnescapeLevel("a%41", &id));     // 'A' is written plain
  EXPECT_FALSE(UnescapeLevel("a%4", &id));
  EXPECT_FALSE(UnescapeLevel("a b", &id));
}

TEST(MqttTopic, DeviceTopicsReadBack) {
  EXPECT_EQ(StatusTopic("hxf", "den"), "hxf/den/status");
  const std::string topic = DeviceTopic("hxf", "my host", "lights", "lamp/1", kMqttCommandLeaf);
  EXPECT_EQ(topic, "hxf/my%20host/lights/lamp%2F1/command");
  MqttTopic parsed;
  ASSERT_TRUE(ParseDeviceTopic("hxf", topic, &parsed));
  EXPECT_EQ(parsed.node, "my host");
  EXPECT_EQ(parsed.service, "lights");
  EXPECT_EQ(parsed.device, "lamp/1");
  EXPECT_EQ(parsed.leaf, "command");
  ASSERT_TRUE(ParseDeviceTopic("hxf", "hxf/n/lights/lamp-1/ha/set/power", &parsed));
  EXPECT_EQ(parsed.leaf, "ha/set/power");
  EXPECT_FALSE(ParseDeviceTopic("hxf", "hxf/n/status", &parsed));
  EXPECT_FALSE(ParseDeviceTopic("hxf", "other/n/s/d/state", &parsed));
  EXPECT_FALSE(ParseDeviceTopic("hxf", "hxfx/n/s/d/state", &parsed));
  EXPECT_FALSE(ParseDeviceTopic("hxf", "hxf/n/s/d/", &parsed));
  EXPECT_FALSE(ParseDeviceTopic("hxf", "hxf/n//d/state", &parsed));
}

TEST(MqttPayload, PropertiesKeepTheirOrderAndTypes) {
  const std::vector<PropertyValue> properties{
      {"device_id", "lamp-1"}, {"power", true}, {"brightness", 70}, {"temperature", 20.5}};
  EXPECT_EQ(PropertiesJson(properties),
            R"({"device_id":"lamp-1","power":true,"brightness":70,"temperature":20.5})");
  EXPECT_EQ(PropertiesJson({}), "{}");
}

TEST(MqttPayload, ACommandReadsItsOperationAndProperties) {
  MqttCommand command;
  std::string error;
  ASSERT_TRUE(ParseCommand(
      R"({"operation":"set","properties":{"z":1,"power":false,"t":22.5,"c":"warm","big":9223372036854775807,"neg":-9223372036854775808}})",
      {}, &command, &error))
      << error;
  EXPECT_EQ(command.operation, "set");
  ASSERT_EQ(command.properties.size(), 6u);
  EXPECT_EQ(command.properties[0].name, "z");  // the sender's order
  EXPECT_TRUE(command.properties[0].value.is_number_integer());
  EXPECT_TRUE(command.properties[1].value.is_boolean());
  EXPECT_TRUE(command.properties[2].value.is_number_float());
  EXPECT_TRUE(command.properties[3].value.is_string());
  EXPECT_EQ(command.properties[4].value.get<int64_t>(), INT64_MAX);
  EXPECT_EQ(command.properties[5].value.get<int64_t>(), INT64_MIN);
  EXPECT_EQ(CommandJson(command),
            R"({"operation":"set","properties":{"z":1,"power":false,"t":22.5,"c":"warm","big":9223372036854775807,"neg":-9223372036854775808}})");
  ASSERT_TRUE(ParseCommand(R"({"operation":"get"})", {}, &command, &error)) << error;
  EXPECT_TRUE(command.properties.empty());
}

TEST(MqttPayload, ABadCommandSaysWhatIsWrong) {
  MqttCommand command;
  std::string error;
  const auto refused = [&](const std::string& payload) {
    error.clear();
    EXPECT_FALSE(ParseCommand(payload, {}, &command, &error)) << payload;
    return error;
  };
  EXPECT_EQ(refused("not json"), "the payload is not JSON");
  EXPECT_EQ(refused("[1]"), "a command must be a JSON object");
  EXPECT_EQ(refused("{}"), "operation (text) is required");
  EXPECT_EQ(refused(R"({"operation":""})"), "operation must have 1 to 255 bytes");
  EXPECT_EQ(refused(R"({"operation":"set","x":1})"),
            "unknown member x (a command has operation and properties)");
  EXPECT_EQ(refused(R"({"operation":"set","properties":[]})"), "properties must be a JSON object");
  EXPECT_EQ(refused(R"({"operation":"set","properties":{"a":[1]}})"),
            "a is an array, not a boolean, number or text");
  EXPECT_EQ(refused(R"({"operation":"set","properties":{"a":{}}})"),
            "a is an object, not a boolean, number or text");
  EXPECT_EQ(refused(R"({"operation":"set","properties":{"a":null}})"),
            "a is null, not a boolean, number or text");
  EXPECT_EQ(refused(R"({"operation":"set","properties":{"a":9223372036854775808}})"),
            "a is above the signed 64-bit range");
  EXPECT_EQ(refused(R"({"operation":"set","properties":{"":1}})"),
            "a property name must have 1 to 255 bytes");
  EXPECT_EQ(refused(std::string(100, '[') + std::string(100, ']')),
            "the payload nests deeper than 8 levels");
  EXPECT_EQ(refused(std::string(70000, ' ')), "the payload has 70000 bytes, more than 65536");
  std::string many = R"({"operation":"set","properties":{)";
  for (int i = 0; i < 257; ++i) many += (i ? ",\"p" : "\"p") + std::to_string(i) + "\":1";
  EXPECT_EQ(refused(many + "}}"), "more than 256 properties");
  // Brackets inside text are no nesting.
  EXPECT_TRUE(ParseCommand(R"({"operation":"set","properties":{"a":"[[[[[[[[[[[[\"{{{{{{{{{{"}})",
                           {}, &command, &error))
      << error;
}

TEST(MqttPayload, ADeviceTravelsWithDeviceFieldsNames) {
  Device device{"lights", "lamp-1", "Desk lamp", "wlan0", "wifi", "192.168.1.21",
                R"({"provider":"sim"})"};
  const std::string json = DeviceJson(device);
  EXPECT_EQ(json,
            R"({"device_id":"lamp-1","device_name":"Desk lamp","address":"192.168.1.21","interface_name":"wlan0","interface_type":"wifi","ui_meta":"{\"provider\":\"sim\"}","service":"lights"})");
  for (const DeviceField& field : kDeviceFields)
    EXPECT_NE(json.find(std::string("\"") + field.key + "\":"), std::string::npos) << field.key;
  Device back;
  std::string error;
  ASSERT_TRUE(ReadDeviceJson(json, {}, &back, &error)) << error;
  for (const DeviceField& field : kDeviceFields) EXPECT_EQ(back.*field.member, device.*field.member);
  EXPECT_FALSE(ReadDeviceJson(R"({"device_id":1})", {}, &back, &error));
  EXPECT_EQ(error, "device_id must be text");
  EXPECT_FALSE(ReadDeviceJson(R"({"device_name":"x"})", {}, &back, &error));
  EXPECT_EQ(error, "the device has no device_id");
}

TEST(MqttPayload, AnErrorNamesItsCode) {
  EXPECT_EQ(ErrorJson(HXF_ERROR_INVALID_PARAMETER, "brightness 150 is out of range 0..100"),
            R"({"error":"brightness 150 is out of range 0..100","error_name":"HXF_ERROR_INVALID_PARAMETER"})");
  EXPECT_EQ(ErrorJson(99, "x"), R"({"error":"x","error_name":"HXF_ERROR_OPERATION_FAILED"})");
  int code = 0;
  std::string text;
  ASSERT_TRUE(ReadErrorJson(ErrorJson(HXF_ERROR_TIMED_OUT, "late"), &code, &text));
  EXPECT_EQ(code, HXF_ERROR_TIMED_OUT);
  EXPECT_EQ(text, "late");
  EXPECT_FALSE(ReadErrorJson(R"({"power":true})", &code, &text));
}
