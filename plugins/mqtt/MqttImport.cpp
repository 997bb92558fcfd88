#include "MqttImport.h"

#include "Provider.h"

namespace hxf_mqtt {

namespace {

const hxf_tool::MqttLimits kLimits;

// P/N/status: the node's id; false for another topic.
bool ReadStatusTopic(const std::string& prefix, const std::string& topic, std::string* node) {
  const std::string suffix = "/status";
  if (topic.size() <= prefix.size() + 1 + suffix.size() || topic.compare(0, prefix.size(), prefix) != 0 ||
      topic[prefix.size()] != '/' ||
      topic.compare(topic.size() - suffix.size(), suffix.size(), suffix) != 0)
    return false;
  const std::string level =
      topic.substr(prefix.size() + 1, topic.size() - suffix.size() - prefix.size() - 1);
  return level.find('/') == std::string::npos && hxf_tool::UnescapeLevel(level, node) &&
         !node->empty();
}

Message Bad(Message message, std::string problem) {
  message.kind = Message::Kind::kBad;
  message.problem = std::move(problem);
  return message;
}

}  // namespace

Message ReadMessage(const std::string& prefix, const std::string& topic,
                    const std::string& payload) {
  Message message;
  if (ReadStatusTopic(prefix, topic, &message.node)) {
    if (payload == hxf_tool::kMqttOnline || payload == hxf_tool::kMqttOffline) {
      message.kind = Message::Kind::kStatus;
      message.online = payload == hxf_tool::kMqttOnline;
      return message;
    }
    // An empty status is a node's retained status being cleared: it is gone.
    if (payload.empty()) {
      message.kind = Message::Kind::kStatus;
      return message;
    }
    return Bad(message, "a status is online or offline");
  }
  hxf_tool::MqttTopic parsed;
  if (!hxf_tool::ParseDeviceTopic(prefix, topic, &parsed)) return message;
  const bool device = parsed.leaf == hxf_tool::kMqttDeviceLeaf;
  if (!device && parsed.leaf != hxf_tool::kMqttStateLeaf) return message;
  message.node = parsed.node;
  message.service = parsed.service;
  message.device = parsed.device;
  // A service named "S@X" could never be offered under its own name (Provider.h).
  if (message.service.find(hxf_tool::kProviderSeparator) != std::string::npos)
    return Bad(message, "a service name holds " + std::string(1, hxf_tool::kProviderSeparator));
  std::string problem;
  if (device) {
    if (payload.empty()) {
      message.kind = Message::Kind::kDeparture;
      return message;
    }
    if (!hxf_tool::ReadDeviceJson(payload, kLimits, &message.fields, &problem))
      return Bad(message, problem);
    if (message.fields.id != message.device)
      return Bad(message, "device_id " + message.fields.id + " is not the topic's device");
    message.kind = Message::Kind::kDevice;
    return message;
  }
  if (payload.empty()) {
    message.kind = Message::Kind::kStateClear;
    return message;
  }
  nlohmann::json json;
  if (!hxf_tool::ParseJsonPayload(payload, kLimits, &json, &problem)) return Bad(message, problem);
  if (!hxf_tool::ReadPropertiesJson(json, kLimits, &message.properties, &problem))
    return Bad(message, problem);
  message.kind = Message::Kind::kState;
  return message;
}

bool ReadAnswer(const std::string& payload, Answer* answer, std::string* problem) {
  *answer = Answer();
  nlohmann::json json;
  if (!hxf_tool::ParseJsonPayload(payload, kLimits, &json, problem)) return false;
  if (hxf_tool::ReadErrorJson(payload, &answer->error, &answer->error_text)) {
    // A node that names no failure still failed: it answered with an error.
    if (answer->error == HXF_ERROR_NONE) answer->error = HXF_ERROR_OPERATION_FAILED;
    return true;
  }
  return hxf_tool::ReadPropertiesJson(json, kLimits, &answer->properties, problem);
}

std::string ImportedMeta(const std::string& remote_ui_meta, const std::string& node) {
  nlohmann::json parsed;
  std::string problem;
  nlohmann::ordered_json meta = nlohmann::ordered_json::object();
  if (hxf_tool::ParseJsonPayload(remote_ui_meta, kLimits, &parsed, &problem)) {
    const nlohmann::ordered_json ordered =
        nlohmann::ordered_json::parse(remote_ui_meta, nullptr, false);
    if (ordered.is_object()) meta = ordered;
  }
  meta.erase(hxf_tool::kProviderKey);
  meta["node"] = node;
  return meta.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace hxf_mqtt
