#include "CMqttFront.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <fstream>

#include "CLocks.h"
#include "CPluginInfo.h"
#include "PluginFiles.h"
#include "MqttDiscovery.h"
#include "Provider.h"

namespace hxfd {

namespace {

// The front the core's callbacks reach. A callback may still be finishing on a pool thread
// after the front's client was destroyed: it then finds none.
HXFramework::CMutex g_mutex;
CMqttFront* g_front HXF_GUARDED_BY(g_mutex) = nullptr;

// Requests in flight at once; one beyond is refused at once.
constexpr size_t kMaxPending = 1024;

hxf_string View(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}

std::string Key(const std::string& service, const std::string& id) {
  return service + '\n' + id;
}

// The provider's own words for a refusal: the text of its "error" property.
std::string ErrorText(const std::vector<hxf_tool::PropertyValue>& properties, int code,
                      uint32_t timeout_ms) {
  for (const hxf_tool::PropertyValue& p : properties) {
    if (p.name == "error" && p.value.is_string()) return p.value.get<std::string>();
  }
  if (code == HXF_ERROR_TIMED_OUT) return "timed out after " + std::to_string(timeout_ms) + " ms";
  const char* name = hxf_tool::CodeName(code);
  return std::string("the request failed (") + (name != nullptr ? name : "no code") + ")";
}

void Log(const std::string& topic, const std::string& what) {
  std::fprintf(stderr, "hxfd: mqtt: %s: %s\n", topic.c_str(), what.c_str());
}

}  // namespace

bool CompleteMqttOptions(const std::string& password_file, MqttFrontOptions* options,
                         std::string* problem) {
  hxf_tool::MqttUrl url;
  if (!hxf_tool::ParseMqttUrl(options->url, &url, problem)) return false;
  if (options->node.empty()) {
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') {
      *problem = "--node: the host has no name to take; name the node";
      return false;
    }
    options->node = host;
  }
  if (options->prefix.empty() || options->prefix.find_first_of("+#") != std::string::npos) {
    *problem = "--mqtt-prefix '" + options->prefix + "': one or more topic levels without + or #";
    return false;
  }
  if (options->certfile.empty() != options->keyfile.empty()) {
    *problem = "--mqtt-cert and --mqtt-key go together";
    return false;
  }
  if (!url.tls && !(options->cafile.empty() && options->certfile.empty())) {
    *problem = "--mqtt-cafile, --mqtt-cert and --mqtt-key need an mqtts:// broker";
    return false;
  }
  if (!password_file.empty()) {
    if (options->user.empty()) {
      *problem = "--mqtt-password-file needs --mqtt-user";
      return false;
    }
    std::ifstream file(password_file);
    if (!file || !std::getline(file, options->password)) {
      *problem = "--mqtt-password-file " + password_file + ": cannot be read" +
                 (errno != 0 ? std::string(": ") + std::strerror(errno) : "");
      return false;
    }
  }
  return true;
}

std::vector<std::string> OfferedServices(const std::vector<std::string>& plugins) {
  std::vector<std::string> services;
  for (const std::string& plugin : plugins) {
    hxf_tool::PluginInfo info;
    info.path = hxf_tool::PluginPath(plugin);
    hxf_tool::ReadPluginInfo(info.path, &info.info);
    const std::vector<std::string> declared = info.Services();
    if (declared.empty())
      std::fprintf(stderr,
                   "hxfd: mqtt: plugin %s declares no services: none of its devices is exported\n",
                   plugin.c_str());
    for (const std::string& service : declared) {
      if (std::find(services.begin(), services.end(), service) == services.end())
        services.push_back(service);
    }
  }
  return services;
}

CMqttFront::CMqttFront(sd_event* event, MqttFrontOptions options)
    : event_(event), options_(std::move(options)) {}

bool CMqttFront::Start(const std::vector<std::string>& services, std::string* error) {
  MqttSettings settings;
  if (!hxf_tool::ParseMqttUrl(options_.url, &settings.url, error)) return false;
  settings.client_id = "hxfd-" + hxf_tool::EscapeLevel(options_.node);
  settings.cafile = options_.cafile;
  settings.certfile = options_.certfile;
  settings.keyfile = options_.keyfile;
  settings.user = options_.user;
  settings.password = options_.password;
  settings.keepalive_s = options_.keepalive_s;
  settings.will_topic = hxf_tool::StatusTopic(options_.prefix, options_.node);
  settings.will_payload = hxf_tool::kMqttOffline;
  const int r = tasks_.Start(event_);
  if (r < 0) {
    *error = "cannot start the MQTT front's hand-off";
    return false;
  }
  {
    HXFramework::CMutexLock lock(g_mutex);
    g_front = this;
  }
  started_ = true;
  client_ = std::make_unique<CMqttClient>(
      event_, settings,
      CMqttClient::Handlers{[this] { Connected(); }, [this] { Disconnected(); },
                            [this](const MqttMessage& message) { Message(message); }});
  if (!client_->Start(error)) return false;
  core_ = hxf_core_client_create(View(std::string("hxfd-mqtt")));
  if (core_ == nullptr) {
    *error = "no core client for the MQTT front";
    return false;
  }
  services_ = services;
  std::string listed;
  for (const std::string& service : services_) listed += (listed.empty() ? "" : ", ") + service;
  std::fprintf(stderr, "hxfd: serving MQTT as node %s under %s (services: %s)\n",
               options_.node.c_str(),
               (options_.prefix + "/" + hxf_tool::EscapeLevel(options_.node)).c_str(),
               listed.empty() ? "none" : listed.c_str());
  for (const std::string& service : services_) {
    const hxf_error_e started =
        hxf_core_client_start_passive_search(core_, View(service), &CMqttFront::OnFound, nullptr);
    if (started != HXF_ERROR_NONE)
      std::fprintf(stderr, "hxfd: mqtt: cannot listen on %s: %s\n", service.c_str(),
                   hxf_tool::CodeName(started));
  }
  return true;
}

void CMqttFront::Stop() {
  if (!started_) return;
  started_ = false;
  {
    HXFramework::CMutexLock lock(g_mutex);
    if (g_front == this) g_front = nullptr;
  }
  if (core_ != nullptr) {
    for (const std::string& service : services_)
      hxf_core_client_stop_passive_search(core_, View(service));
    hxf_core_client_destroy(core_);
    core_ = nullptr;
  }
  if (client_ != nullptr) client_->Stop(hxf_tool::kMqttOffline);
  tasks_.Stop();
}

// ---- the core's callbacks (pool threads): copy, hand over, return ----

void CMqttFront::Hand(std::function<void(CMqttFront&)> deliver) {
  HXFramework::CMutexLock lock(g_mutex);
  if (g_front == nullptr) return;
  CMqttFront* front = g_front;
  front->tasks_.Post([front, deliver = std::move(deliver)] { deliver(*front); });
}

void CMqttFront::OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e,
                         hxf_endpoint_h endpoint, void*) {
  if (endpoint == nullptr) return;
  Hand([device = hxf_tool::ReadDevice(endpoint)](CMqttFront& front) { front.Found(device); });
}

void CMqttFront::OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                          hxf_transaction_h transaction, hxf_error_e error, void* id) {
  Answer answer;
  answer.id = reinterpret_cast<uint64_t>(id);
  answer.transaction = transaction;
  if (list != nullptr) answer.properties = hxf_tool::ReadProperties(list);
  answer.error = error;
  Hand([answer = std::move(answer)](CMqttFront& front) { front.Answered(answer); });
}

void CMqttFront::OnNotification(hxf_string service, hxf_service_session_h,
                                hxf_property_list_h list, hxf_transaction_h transaction,
                                hxf_error_e error, void*) {
  Answer answer;
  answer.transaction = transaction;
  if (list != nullptr) answer.properties = hxf_tool::ReadProperties(list);
  answer.error = error;
  answer.notification = true;
  answer.service = hxf_tool::BaseService(hxf_tool::Copy(service));
  Hand([answer = std::move(answer)](CMqttFront& front) { front.Notified(answer); });
}

// ---- devices ----

std::string CMqttFront::Topic(const Exported& exported, const std::string& leaf) const {
  return hxf_tool::DeviceTopic(options_.prefix, options_.node, exported.device.service,
                               exported.device.id, leaf);
}

void CMqttFront::Found(const hxf_tool::Device& found) {
  const std::string provider = hxf_tool::ProviderOf(found.ui_meta);
  // What the import plugin brought from another node stays there: no loops.
  if (provider == hxf_tool::kMqttProvider) return;
  const std::string key = Key(found.service, found.id);
  const auto known = devices_.find(key);
  if (hxf_tool::IsDeparture(found)) {
    if (known == devices_.end()) return;
    Clear(known->second);
    devices_.erase(known);
    return;
  }
  Exported& exported = devices_[key];
  exported.device = found;
  exported.device.ui_meta = hxf_tool::PlainMeta(found.ui_meta);
  exported.provider = provider;
  PublishDevice(exported);
  // Its state: a get now, the notifications after.
  Pending pending;
  pending.asker = Asker::kState;
  Request(key, "get", {}, std::move(pending));
}

void CMqttFront::PublishDevice(const Exported& exported) {
  client_->Publish(Topic(exported, hxf_tool::kMqttDeviceLeaf), hxf_tool::DeviceJson(exported.device),
                   true);
}

void CMqttFront::PublishState(const Exported& exported) {
  client_->Publish(Topic(exported, hxf_tool::kMqttStateLeaf),
                   hxf_tool::PropertiesJson(exported.state), true);
  const std::string light = hxf_tool::LightState(exported.device, exported.state);
  if (!light.empty()) client_->Publish(Topic(exported, hxf_tool::kMqttLightLeaf), light, true);
}

void CMqttFront::PublishDiscovery(Exported* exported) {
  const auto configs = hxf_tool::DiscoveryConfigs(
      {options_.prefix, options_.node, exported->provider}, exported->device, exported->state);
  // An entity the device no longer has is cleared.
  for (const std::string& topic : exported->discovery) {
    bool kept = false;
    for (const hxf_tool::Retained& config : configs) kept = kept || config.topic == topic;
    if (!kept) client_->Publish(topic, "", true);
  }
  exported->discovery.clear();
  for (const hxf_tool::Retained& config : configs) {
    client_->Publish(config.topic, config.payload, true);
    exported->discovery.push_back(config.topic);
  }
}

void CMqttFront::Clear(const Exported& exported) {
  for (const char* leaf :
       {hxf_tool::kMqttDeviceLeaf, hxf_tool::kMqttStateLeaf, hxf_tool::kMqttLightLeaf})
    client_->Publish(Topic(exported, leaf), "", true);
  for (const std::string& topic : exported.discovery) client_->Publish(topic, "", true);
}

hxf_service_session_h CMqttFront::Session(const std::string& service, const std::string& provider) {
  // A device's provider alone answers its requests ("S@PROVIDER", Provider.h).
  const std::string name = provider.empty() ? service : hxf_tool::ProviderService(service, provider);
  const auto known = sessions_.find(name);
  if (known != sessions_.end()) return known->second;
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(core_, View(name), &CMqttFront::OnNotification, nullptr);
  if (session != nullptr) sessions_.emplace(name, session);
  return session;
}

// ---- requests ----

void CMqttFront::Request(const std::string& key, const std::string& operation,
                         std::vector<hxf_tool::PropertyValue> properties, Pending pending) {
  const Exported& exported = devices_.at(key);
  pending.key = key;
  pending.connection = connection_;
  if (pending_.size() >= kMaxPending) {
    Refuse(pending, HXF_ERROR_OPERATION_FAILED,
           "more than " + std::to_string(kMaxPending) + " requests in flight");
    return;
  }
  hxf_service_session_h session = Session(exported.device.service, exported.provider);
  if (session == nullptr) {
    Refuse(pending, HXF_ERROR_NOT_FOUND, "no provider offers " + exported.device.service);
    return;
  }
  // The device is the topic's.
  properties.insert(properties.begin(), {"device_id", exported.device.id});
  hxf_property_list_h list = hxf_tool::MakeList(operation, properties);
  const uint64_t id = next_id_++;
  hxf_transaction_h transaction = nullptr;
  const hxf_error_e sent =
      hxf_core_client_request_service(core_, session, list, &CMqttFront::OnResult,
                                      options_.request_timeout_ms, &transaction,
                                      reinterpret_cast<void*>(id));
  hxf_property_list_destroy(list);
  if (sent != HXF_ERROR_NONE) {
    Refuse(pending, sent, "the request was not sent");
    return;
  }
  pending.transaction = transaction;
  pending_.emplace(id, std::move(pending));
}

void CMqttFront::Reply(const Pending& pending, const std::string& payload) {
  if (pending.response_topic.empty()) return;  // logged when it came
  client_->Publish(pending.response_topic, payload, false,
                   pending.has_correlation ? &pending.correlation : nullptr);
}

void CMqttFront::Refuse(const Pending& pending, int code, const std::string& what) {
  const char* name = hxf_tool::CodeName(code);
  Log(pending.topic.empty() ? "request" : pending.topic,
      what + " (" + (name != nullptr ? name : "HXF_ERROR_OPERATION_FAILED") + ")");
  Reply(pending, hxf_tool::ErrorJson(code, what));
}

void CMqttFront::Answered(const Answer& answer) {
  const auto found = pending_.find(answer.id);
  if (found == pending_.end()) return;  // answered already: the connection was lost
  // Without a connection the answer could not go out: Connected answers it, once.
  if (found->second.asker != Asker::kState && !client_->Connected()) return;
  const Pending pending = std::move(found->second);
  pending_.erase(found);
  const auto device = devices_.find(pending.key);
  if (pending.asker == Asker::kState) {
    if (device == devices_.end()) return;  // gone meanwhile
    if (answer.error != HXF_ERROR_NONE) {
      Log(Topic(device->second, hxf_tool::kMqttStateLeaf),
          "no state: " + ErrorText(answer.properties, answer.error, options_.request_timeout_ms));
    } else {
      device->second.state = answer.properties;
      device->second.has_state = true;
    }
    PublishState(device->second);
    PublishDiscovery(&device->second);
    return;
  }
  if (answer.error != HXF_ERROR_NONE) {
    Refuse(pending, answer.error,
           ErrorText(answer.properties, answer.error, options_.request_timeout_ms));
    return;
  }
  Reply(pending, hxf_tool::PropertiesJson(answer.properties));
}

void CMqttFront::Notified(const Answer& answer) {
  // A notification that names a request answers it (the core then sends it no result).
  if (answer.transaction != nullptr) {
    for (const auto& [id, pending] : pending_) {
      if (pending.transaction != answer.transaction) continue;
      Answer result = answer;
      result.id = id;
      Answered(result);
      break;
    }
  }
  std::string id;
  for (const hxf_tool::PropertyValue& p : answer.properties) {
    if (p.name == "device_id" && p.value.is_string()) id = p.value.get<std::string>();
  }
  const auto device = devices_.find(Key(answer.service, id));
  if (device == devices_.end() || answer.error != HXF_ERROR_NONE) return;
  Exported& exported = device->second;
  const size_t before = exported.state.size();
  for (const hxf_tool::PropertyValue& p : answer.properties) {
    bool merged = false;
    for (hxf_tool::PropertyValue& current : exported.state) {
      if (current.name != p.name) continue;
      current.value = p.value;
      merged = true;
    }
    if (!merged) exported.state.push_back(p);
  }
  PublishState(exported);
  // A property it did not have before may be an entity of its own.
  if (!exported.has_state || exported.state.size() != before) PublishDiscovery(&exported);
  exported.has_state = true;
}

// ---- the connection ----

void CMqttFront::Connected() {
  ++connection_;
  const std::string node = options_.prefix + "/" + hxf_tool::EscapeLevel(options_.node) + "/+/+/";
  client_->Subscribe(node + hxf_tool::kMqttCommandLeaf);
  client_->Subscribe(node + hxf_tool::kMqttLightSetLeaf);
  client_->Subscribe(node + hxf_tool::kMqttSetLeaf + "/+");
  client_->Subscribe(hxf_tool::kDiscoveryStatusTopic);
  client_->Publish(hxf_tool::StatusTopic(options_.prefix, options_.node), hxf_tool::kMqttOnline,
                   true);
  // The requests the lost connection brought are answered now, once; their results, when
  // they come, are dropped. A state's get is kept: nobody waits on it but the state topic.
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (it->second.asker != Asker::kState && it->second.connection < connection_) {
      Refuse(it->second, HXF_ERROR_OPERATION_FAILED,
             "the connection to the MQTT broker was lost while the request ran");
      it = pending_.erase(it);
    } else {
      ++it;
    }
  }
  // A broker that restarted without persistence has lost every retained message.
  for (auto& [key, exported] : devices_) {
    PublishDevice(exported);
    if (!exported.has_state) continue;
    PublishState(exported);
    PublishDiscovery(&exported);
  }
}

void CMqttFront::Disconnected() {}

void CMqttFront::Message(const MqttMessage& message) {
  if (message.topic == hxf_tool::kDiscoveryStatusTopic) {
    if (message.payload != hxf_tool::kMqttOnline) return;
    // Home Assistant (re)started: it reads the configurations again.
    for (auto& [key, exported] : devices_) {
      if (exported.has_state) PublishDiscovery(&exported);
    }
    return;
  }
  hxf_tool::MqttTopic topic;
  if (!hxf_tool::ParseDeviceTopic(options_.prefix, message.topic, &topic) ||
      topic.node != options_.node) {
    Log(message.topic, "not a topic of this node");
    return;
  }
  Command(message, topic);
}

void CMqttFront::Command(const MqttMessage& message, const hxf_tool::MqttTopic& topic) {
  Pending pending;
  pending.topic = message.topic;
  pending.response_topic = message.response_topic;
  pending.correlation = message.correlation;
  pending.has_correlation = message.has_correlation;
  const bool command = topic.leaf == hxf_tool::kMqttCommandLeaf;
  pending.asker = command ? Asker::kCommand : Asker::kHomeAssistant;
  if (command && message.response_topic.empty())
    Log(message.topic, "no response topic: carried out, answered nowhere");
  const std::string key = Key(topic.service, topic.device);
  if (devices_.count(key) == 0) {
    Refuse(pending, HXF_ERROR_NOT_FOUND,
           "no device " + topic.device + " of " + topic.service + " on " + options_.node);
    return;
  }
  std::string error;
  std::string operation = "set";
  std::vector<hxf_tool::PropertyValue> properties;
  bool read = false;
  if (command) {
    hxf_tool::MqttCommand parsed;
    read = hxf_tool::ParseCommand(message.payload, limits_, &parsed, &error);
    operation = parsed.operation;
    properties = std::move(parsed.properties);
    for (const hxf_tool::PropertyValue& p : properties) {
      if (read && p.name == "device_id" && p.value != topic.device) {
        error = "device_id names another device than the topic";
        read = false;
      }
    }
    for (auto it = properties.begin(); it != properties.end();)
      it = it->name == "device_id" ? properties.erase(it) : it + 1;
  } else if (topic.leaf == hxf_tool::kMqttLightSetLeaf) {
    read = hxf_tool::ReadLightCommand(message.payload, limits_, &properties, &error);
  } else if (topic.leaf.rfind(std::string(hxf_tool::kMqttSetLeaf) + "/", 0) == 0) {
    const std::string property = topic.leaf.substr(std::string(hxf_tool::kMqttSetLeaf).size() + 1);
    if (message.payload.size() > limits_.payload_bytes) {
      error = "the payload has " + std::to_string(message.payload.size()) + " bytes";
    } else {
      read = hxf_tool::ReadSetCommand(property, message.payload, devices_.at(key).state,
                                      &properties, &error);
    }
  } else {
    error = "no command topic";
  }
  if (!read) {
    Refuse(pending, HXF_ERROR_INVALID_PARAMETER, error);
    return;
  }
  Request(key, operation, std::move(properties), std::move(pending));
}

}  // namespace hxfd
