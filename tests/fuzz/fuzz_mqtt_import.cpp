// Fuzzes what the MQTT import plugin (plugins/mqtt MqttImport) makes of a message from the
// network: the input is a topic, a newline and a payload, read as another node's status,
// device or state, as an answer on the plugin's response topic, and as a device's UI meta
// data. Any bytes must end in a reading or a refusal with its reason; never a crash, a hang or
// a stack overflow, however deep the nesting.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "MqttImport.h"

namespace {

void Fail(const char* what, const std::string& detail) {
  std::fprintf(stderr, "fuzz_mqtt_import: %s: %s\n", what, detail.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t newline = input.find('\n');
  const std::string topic = input.substr(0, newline);
  const std::string payload = newline == std::string::npos ? "" : input.substr(newline + 1);
  using Kind = hxf_mqtt::Message::Kind;
  const hxf_mqtt::Message message = hxf_mqtt::ReadMessage("hxf", topic, payload);
  if (message.kind == Kind::kBad && message.problem.empty()) Fail("a refusal without a reason", input);
  if (message.kind != Kind::kIgnored && message.node.empty()) Fail("a message of no node", input);
  if (message.kind == Kind::kDevice && message.fields.id != message.device)
    Fail("a device read under another topic's id", input);
  if (message.kind == Kind::kState && message.properties.size() > 256)
    Fail("more properties than the bound", input);
  hxf_mqtt::Answer answer;
  std::string problem;
  if (hxf_mqtt::ReadAnswer(payload, &answer, &problem)) {
    if (answer.error != HXF_ERROR_NONE && !answer.properties.empty())
      Fail("an error answer with properties", input);
  } else if (problem.empty()) {
    Fail("an answer refused without a reason", input);
  }
  const std::string meta = hxf_mqtt::ImportedMeta(payload, topic);
  const nlohmann::json read = nlohmann::json::parse(meta, nullptr, false);
  if (!read.is_object() || !read.contains("node") ||
      read.contains("provider"))
    Fail("imported meta data that is no object naming its node alone", meta);
  return 0;
}
