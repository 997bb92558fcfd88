#include "MqttPlugin.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>

#include "Presence.h"
#include "hxf_host_platform.h"

namespace hxf_mqtt {

namespace {

constexpr const char* kTag = "HXF_MQTT";
constexpr auto kDestroyWait = std::chrono::seconds(10);
constexpr int kKeepAliveSeconds = 10;
constexpr auto kMaxBackoff = std::chrono::milliseconds(30000);
// The load result waits this long for the first connection's retained topics.
constexpr auto kLoadWait = std::chrono::milliseconds(5000);
// The correlation data of the probe that ends a connection's read of retained topics.
constexpr const char* kSyncMark = "sync-";

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
  return name;
}

// The first line of the file `path`, at most 4096 bytes.
bool ReadSecret(const std::string& path, std::string* secret) {
  std::ifstream file(path);
  if (!file) return false;
  std::string line;
  line.resize(4096);
  file.read(&line[0], static_cast<std::streamsize>(line.size()));
  line.resize(static_cast<size_t>(file.gcount()));
  *secret = line.substr(0, line.find_first_of("\r\n"));
  return true;
}

// A property list holding `properties` with `device_id` made the offered id.
hxf_property_list_h OfferedList(const std::string& name, const std::string& offered_id,
                                std::vector<hxf_tool::PropertyValue> properties) {
  properties.erase(std::remove_if(properties.begin(), properties.end(),
                                  [](const hxf_tool::PropertyValue& p) {
                                    return p.name == "device_id";
                                  }),
                   properties.end());
  properties.insert(properties.begin(), hxf_tool::PropertyValue{"device_id", offered_id});
  return hxf_tool::MakeList(name, properties);
}

}  // namespace

bool ReadConfig(Config* config, std::string* problem) {
  const std::string url = Env("HXF_MQTT_URL");
  if (url.empty()) {
    *problem = "HXF_MQTT_URL is not set (mqtt://HOST:PORT or mqtts://HOST:PORT)";
    return false;
  }
  if (!hxf_tool::ParseMqttUrl(url, &config->url, problem)) return false;
  config->cafile = Env("HXF_MQTT_CAFILE");
  config->cert = Env("HXF_MQTT_CERT");
  config->key = Env("HXF_MQTT_KEY");
  config->user = Env("HXF_MQTT_USER");
  if (config->cert.empty() != config->key.empty()) {
    *problem = "HXF_MQTT_CERT and HXF_MQTT_KEY go together";
    return false;
  }
  const std::string password_file = Env("HXF_MQTT_PASSWORD_FILE");
  if (!password_file.empty() && !ReadSecret(password_file, &config->password)) {
    *problem = "cannot read HXF_MQTT_PASSWORD_FILE " + password_file;
    return false;
  }
  const std::string prefix = Env("HXF_MQTT_PREFIX");
  if (!prefix.empty()) config->prefix = prefix;
  if (config->prefix.find_first_of("+#") != std::string::npos || config->prefix.front() == '/' ||
      config->prefix.back() == '/') {
    *problem = "HXF_MQTT_PREFIX " + config->prefix + ": no + or #, no / at either end";
    return false;
  }
  config->node = Env("HXF_MQTT_NODE");
  if (config->node.empty()) config->node = HostName();
  const std::string timeout = Env("HXF_MQTT_TIMEOUT_MS");
  if (!timeout.empty()) {
    if (timeout.size() > 6 || timeout.find_first_not_of("0123456789") != std::string::npos ||
        std::stoul(timeout) == 0) {
      *problem = "HXF_MQTT_TIMEOUT_MS " + timeout + ": 1 to 999999 ms";
      return false;
    }
    config->timeout = std::chrono::milliseconds(std::stoul(timeout));
  }
  const std::string services = Env("HXF_MQTT_SERVICES");
  if (!services.empty()) {
    const size_t longest = hxf_tool::MqttLimits{}.name_bytes;
    std::set<std::string> seen;
    for (size_t start = 0;;) {
      const size_t comma = services.find(',', start);
      const std::string name = services.substr(start, comma - start);
      if (name.empty() || name.size() > longest) {
        *problem = "HXF_MQTT_SERVICES " + services.substr(0, 64) + ": names of 1 to " +
                   std::to_string(longest) + " characters, separated by commas";
        return false;
      }
      if (seen.insert(name).second) config->services.push_back(name);
      if (comma == std::string::npos) break;
      start = comma + 1;
    }
    if (config->services.size() > kMaxServices) {
      *problem = "HXF_MQTT_SERVICES: at most " + std::to_string(kMaxServices) + " services";
      return false;
    }
  }
  return true;
}

Plugin::Plugin() : Provider(kName, kTag) {}

Plugin::~Plugin() = default;

void Plugin::Start() {
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  thread_ = std::thread([this] { Run(); });
}

void Plugin::Stop() {
  Post([this] { finished_ = true; });
  {
    HXFramework::CMutexLock lock(post_mutex_);
    stopping_ = true;  // from here on callbacks post into the void
  }
  if (thread_.joinable()) thread_.join();
  if (wake_fd_ >= 0) close(wake_fd_);
  wake_fd_ = -1;
  DestroyServices(kDestroyWait);
}

void Plugin::Post(Task task) {
  {
    HXFramework::CMutexLock lock(post_mutex_);
    if (stopping_) return;
    posted_.push_back(std::move(task));
  }
  const uint64_t one = 1;
  if (write(wake_fd_, &one, sizeof one) < 0 && errno != EAGAIN)
    dlog_print(DLOG_ERROR, kTag, "mqtt: cannot wake the plugin thread: %s\n", std::strerror(errno));
}

void Plugin::RunPosted() {
  uint64_t count = 0;
  if (read(wake_fd_, &count, sizeof count) < 0 && errno != EAGAIN) return;
  std::deque<Task> tasks;
  {
    HXFramework::CMutexLock lock(post_mutex_);
    tasks.swap(posted_);
  }
  for (Task& task : tasks) task();
}

// ---- the loop ----

void Plugin::Run() {
  std::string problem;
  if (!ReadConfig(&config_, &problem)) {
    dlog_print(DLOG_ERROR, kTag, "mqtt: %s\n", problem.c_str());
    SendLoadResult(false);
    return;
  }
  // Offered at once, so that a listen started before any node exports one hears of it later.
  for (const std::string& name : config_.services) ServiceFor(name);
  mosquitto_lib_init();
  std::random_device random;
  char id[32];
  std::snprintf(id, sizeof id, "hxf-import-%08x", static_cast<unsigned>(random()));
  mosq_ = mosquitto_new(id, true, this);
  if (mosq_ == nullptr) {
    dlog_print(DLOG_ERROR, kTag, "mqtt: cannot make an MQTT client\n");
    mosquitto_lib_cleanup();
    SendLoadResult(false);
    return;
  }
  reply_topic_ = config_.prefix + "/" + hxf_tool::EscapeLevel(config_.node) + "/reply/" + id;
  mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  int rc = MOSQ_ERR_SUCCESS;
  if (config_.url.tls || !config_.cafile.empty()) {
    rc = mosquitto_tls_set(mosq_, config_.cafile.empty() ? nullptr : config_.cafile.c_str(),
                           config_.cafile.empty() ? "/etc/ssl/certs" : nullptr,
                           config_.cert.empty() ? nullptr : config_.cert.c_str(),
                           config_.key.empty() ? nullptr : config_.key.c_str(), nullptr);
  }
  if (rc == MOSQ_ERR_SUCCESS && !config_.user.empty())
    rc = mosquitto_username_pw_set(mosq_, config_.user.c_str(),
                                   config_.password.empty() ? nullptr : config_.password.c_str());
  if (rc != MOSQ_ERR_SUCCESS) {
    dlog_print(DLOG_ERROR, kTag, "mqtt: bad TLS or user configuration: %s\n",
               mosquitto_strerror(rc));
    mosquitto_destroy(mosq_);
    mosquitto_lib_cleanup();
    SendLoadResult(false);
    return;
  }
  mosquitto_connect_v5_callback_set(mosq_, &Plugin::OnConnect);
  mosquitto_disconnect_v5_callback_set(mosq_, &Plugin::OnDisconnect);
  mosquitto_message_v5_callback_set(mosq_, &Plugin::OnMessageArrived);
  load_deadline_ = Clock::now() + kLoadWait;
  Connect();
  while (!finished_) {
    pollfd fds[2] = {{wake_fd_, POLLIN, 0}, {-1, 0, 0}};
    const int socket = mosquitto_socket(mosq_);
    if (socket >= 0) {
      fds[1].fd = socket;
      fds[1].events =
          static_cast<short>(POLLIN | (mosquitto_want_write(mosq_) ? POLLOUT : 0));
    }
    if (poll(fds, socket >= 0 ? 2 : 1, NextWake()) < 0 && errno != EINTR) {
      dlog_print(DLOG_ERROR, kTag, "mqtt: poll: %s\n", std::strerror(errno));
      break;
    }
    if (socket >= 0) {
      rc = MOSQ_ERR_SUCCESS;
      if (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) rc = mosquitto_loop_read(mosq_, 1);
      if (rc == MOSQ_ERR_SUCCESS && (fds[1].revents & POLLOUT))
        rc = mosquitto_loop_write(mosq_, 1);
      if (rc == MOSQ_ERR_SUCCESS) rc = mosquitto_loop_misc(mosq_);
      if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) OnDisconnected(rc);
    }
    if (fds[0].revents & POLLIN) RunPosted();
    CheckDeadlines();
  }
  Finish();
}

void Plugin::Finish() {
  finished_ = true;
  FailAll("the MQTT import plugin was unloaded while the request ran");
  if (connected_) {
    connected_ = false;  // a clean stop: no line about a lost connection
    mosquitto_disconnect_v5(mosq_, 0, nullptr);
    // The DISCONNECT packet, if the socket takes it at once.
    mosquitto_loop_write(mosq_, 1);
  }
  mosquitto_destroy(mosq_);
  mosq_ = nullptr;
  mosquitto_lib_cleanup();
}

void Plugin::Connect() {
  reconnect_at_ = Clock::time_point::max();
  ++connection_;
  // Without waiting for the TCP connection: a broker that never answers (packets dropped)
  // would hold the plugin thread, and its unload, for the kernel's whole connect time-out.
  // The CONNECT goes once the socket is writable; a failure shows in the loop.
  const int rc = connection_ == 1 ? mosquitto_connect_async(mosq_, config_.url.host.c_str(),
                                                            config_.url.port, kKeepAliveSeconds)
                                  : mosquitto_reconnect_async(mosq_);
  if (rc != MOSQ_ERR_SUCCESS) {
    dlog_print(DLOG_WARN, kTag, "mqtt: cannot connect to %s:%d: %s\n", config_.url.host.c_str(),
               config_.url.port, rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc));
    ScheduleReconnect();
  }
}

void Plugin::ScheduleReconnect() {
  if (finished_ || reconnect_at_ != Clock::time_point::max()) return;
  reconnect_at_ = Clock::now() + backoff_;
  dlog_print(DLOG_INFO, kTag, "mqtt: next connection attempt in %lld ms\n",
             static_cast<long long>(backoff_.count()));
  backoff_ = std::min(backoff_ * 2, kMaxBackoff);
}

int Plugin::NextWake() const {
  Clock::time_point next = Clock::now() + std::chrono::seconds(1);
  next = std::min(next, reconnect_at_);
  if (!loaded_) next = std::min(next, load_deadline_);
  for (const auto& [correlation, pending] : pending_) next = std::min(next, pending.deadline);
  const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now());
  return static_cast<int>(std::max<int64_t>(0, wait.count() + 1));
}

void Plugin::CheckDeadlines() {
  const Clock::time_point now = Clock::now();
  if (reconnect_at_ <= now) Connect();
  if (!loaded_ && load_deadline_ <= now) {
    // No broker yet: the plugin works once one answers.
    dlog_print(DLOG_WARN, kTag, "mqtt: no MQTT broker at %s:%d yet; trying on\n",
               config_.url.host.c_str(), config_.url.port);
    loaded_ = true;
    SendLoadResult(true);
  }
  for (auto it = pending_.begin(); it != pending_.end();) {
    if (it->second.deadline > now) {
      ++it;
      continue;
    }
    Pending pending = std::move(it->second);
    const std::string correlation = it->first;
    it = pending_.erase(it);
    const std::string why = "no answer from node " + pending.node + " within " +
                            std::to_string(config_.timeout.count()) + " ms";
    Answer(correlation, std::move(pending), HXF_ERROR_TIMED_OUT, why, {});
  }
}

// ---- libmosquitto's callbacks (plugin thread, inside mosquitto_loop_*) ----

void Plugin::OnConnect(mosquitto*, void* self, int rc, int, const mosquitto_property*) {
  static_cast<Plugin*>(self)->OnConnected(rc);
}

void Plugin::OnDisconnect(mosquitto*, void* self, int rc, const mosquitto_property*) {
  static_cast<Plugin*>(self)->OnDisconnected(rc);
}

void Plugin::OnMessageArrived(mosquitto*, void* self, const mosquitto_message* message,
                              const mosquitto_property* properties) {
  static_cast<Plugin*>(self)->OnMessage(message, properties);
}

void Plugin::OnConnected(int rc) {
  if (rc != 0) {
    dlog_print(DLOG_ERROR, kTag, "mqtt: the broker refused the connection: %s\n",
               mosquitto_reason_string(rc));
    return;  // libmosquitto closes the socket; OnDisconnected follows
  }
  connected_ = true;
  backoff_ = std::chrono::milliseconds(1000);
  dlog_print(DLOG_INFO, kTag, "mqtt: connected to %s:%d as node %s\n", config_.url.host.c_str(),
             config_.url.port, config_.node.c_str());
  // Not from inside libmosquitto's callback, which holds its own locks: publishing there takes
  // them in the order opposite to mosquitto_loop_misc's (ThreadSanitizer's lock-order report;
  // only this thread takes them, but one order is kept all the same).
  Post([this] { Subscribe(); });
}

void Plugin::Subscribe() {
  if (!connected_) return;
  const std::string status = config_.prefix + "/+/status";
  const std::string device = config_.prefix + "/+/+/+/" + hxf_tool::kMqttDeviceLeaf;
  const std::string state = config_.prefix + "/+/+/+/" + hxf_tool::kMqttStateLeaf;
  char* topics[] = {const_cast<char*>(status.c_str()), const_cast<char*>(device.c_str()),
                    const_cast<char*>(state.c_str()), const_cast<char*>(reply_topic_.c_str())};
  int rc = mosquitto_subscribe_multiple(mosq_, nullptr, 4, topics, 1, 0, nullptr);
  // The broker sends the retained topics of a subscription before what is published after
  // it: the probe's return on the reply topic says that they have all come.
  const std::string mark = kSyncMark + std::to_string(connection_);
  mosquitto_property* properties = nullptr;
  mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, mark.data(),
                                static_cast<uint16_t>(mark.size()));
  if (rc == MOSQ_ERR_SUCCESS)
    rc = mosquitto_publish_v5(mosq_, nullptr, reply_topic_.c_str(), 0, nullptr, 1, false,
                              properties);
  mosquitto_property_free_all(&properties);
  if (rc != MOSQ_ERR_SUCCESS)
    dlog_print(DLOG_ERROR, kTag, "mqtt: cannot subscribe: %s\n", mosquitto_strerror(rc));
}

void Plugin::OnDisconnected(int rc) {
  if (finished_) return;  // the plugin's own disconnection
  const char* why = rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc);
  if (connected_) {
    dlog_print(DLOG_WARN, kTag, "mqtt: the connection to the MQTT broker was lost: %s\n", why);
  } else {
    // Refused before the broker's answer: a TLS handshake, say.
    dlog_print(DLOG_WARN, kTag, "mqtt: cannot connect to %s:%d: %s\n", config_.url.host.c_str(),
               config_.url.port, why);
  }
  connected_ = false;
  FailAll("the connection to the MQTT broker was lost while the request ran");
  ScheduleReconnect();
}

void Plugin::OnMessage(const mosquitto_message* message, const mosquitto_property* properties) {
  if (message == nullptr || message->topic == nullptr) return;
  const std::string topic = message->topic;
  const std::string payload =
      message->payload != nullptr && message->payloadlen > 0
          ? std::string(static_cast<const char*>(message->payload),
                        static_cast<size_t>(message->payloadlen))
          : std::string();
  if (topic == reply_topic_) {
    void* data = nullptr;
    uint16_t length = 0;
    std::string correlation;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &data, &length,
                                       false) != nullptr) {
      correlation.assign(static_cast<const char*>(data), length);
      free(data);
    }
    if (correlation == kSyncMark + std::to_string(connection_)) {
      OnSynced(connection_);
    } else {
      OnAnswer(correlation, payload);
    }
    return;
  }
  const Message read = ReadMessage(config_.prefix, topic, payload);
  if (read.kind == Message::Kind::kIgnored || read.node == config_.node) return;
  switch (read.kind) {
    case Message::Kind::kBad:
      dlog_print(DLOG_WARN, kTag, "mqtt: %s: ignored: %s\n", topic.c_str(), read.problem.c_str());
      return;
    case Message::Kind::kStatus:
      OnStatus(read);
      return;
    case Message::Kind::kDevice:
      OnDevice(read);
      return;
    case Message::Kind::kDeparture:
      OnDeparture(read);
      return;
    case Message::Kind::kState:
      OnState(payload, read);
      return;
    default:
      return;
  }
}

// ---- what the network says ----

void Plugin::OnSynced(uint64_t connection) {
  // What this connection did not read again is gone from the broker.
  for (auto node = nodes_.begin(); node != nodes_.end();) {
    if (node->second.seen != connection) HideNode(node->first, node->second);
    for (auto device = node->second.devices.begin(); device != node->second.devices.end();) {
      auto next = std::next(device);
      if (device->second.seen != connection) Forget(node->second, device);
      device = next;
    }
    node = node->second.devices.empty() && node->second.seen != connection ? nodes_.erase(node)
                                                                          : std::next(node);
  }
  if (!loaded_) {
    loaded_ = true;
    size_t devices = 0;
    for (const auto& [id, node] : nodes_) devices += node.devices.size();
    dlog_print(DLOG_INFO, kTag, "mqtt: %zu node(s), %zu device(s) in %zu service(s)\n",
               nodes_.size(), devices, ServiceCount());
    SendLoadResult(true);
  }
}

Plugin::Node* Plugin::Admit(const std::string& node_id) {
  auto found = nodes_.find(node_id);
  if (found != nodes_.end()) return &found->second;
  if (nodes_.size() >= kMaxNodes) {
    dlog_print(DLOG_WARN, kTag, "mqtt: node %s ignored: %zu nodes known already\n",
               node_id.c_str(), kMaxNodes);
    return nullptr;
  }
  return &nodes_.emplace(node_id, Node()).first->second;
}

void Plugin::OnStatus(const Message& message) {
  if (!message.online && nodes_.count(message.node) == 0) return;
  Node* admitted = Admit(message.node);
  if (admitted == nullptr) return;
  Node& node = *admitted;
  node.seen = connection_;
  if (node.online == message.online) return;
  if (!message.online) {
    dlog_print(DLOG_INFO, kTag, "mqtt: node %s is offline\n", message.node.c_str());
    HideNode(message.node, node);
    return;
  }
  dlog_print(DLOG_INFO, kTag, "mqtt: node %s is online\n", message.node.c_str());
  node.online = true;
  for (const auto& [key, remote] : node.devices) Announce(remote, hxf_tool::kPresenceArrived);
}

void Plugin::OnDevice(Message message) {
  Node* admitted = Admit(message.node);
  if (admitted == nullptr) return;
  Node& node = *admitted;
  const auto key = std::make_pair(message.service, message.device);
  auto device = node.devices.find(key);
  if (device == node.devices.end()) {
    if (node.devices.size() >= kMaxDevicesPerNode) {
      dlog_print(DLOG_WARN, kTag, "mqtt: %s/%s ignored: node %s has %zu devices already\n",
                 message.service.c_str(), message.device.c_str(), message.node.c_str(),
                 kMaxDevicesPerNode);
      return;
    }
    if (ServiceFor(message.service) == nullptr) return;
    const std::string id = ImportedId(message.node, message.device);
    if (offered_.count({message.service, id}) != 0) {
      dlog_print(DLOG_WARN, kTag, "mqtt: %s of node %s ignored: %s is offered already\n",
                 message.device.c_str(), message.node.c_str(), id.c_str());
      return;
    }
    device = node.devices.emplace(key, Remote()).first;
    device->second.node = message.node;
    device->second.service = message.service;
    device->second.device = message.device;
    device->second.info.id = id;
    offered_[{message.service, id}] = &device->second;
  }
  Remote& remote = device->second;
  const bool known = remote.seen != 0;
  remote.seen = connection_;
  const hxf_tool::Device& fields = message.fields;
  hxf_plugin_kit::EndpointInfo info{remote.info.id,        fields.name,    fields.interface_name,
                                    fields.interface_type, fields.address,
                                    ImportedMeta(fields.ui_meta, message.node)};
  const bool changed = info.name != remote.info.name || info.address != remote.info.address ||
                       info.interface_name != remote.info.interface_name ||
                       info.interface_type != remote.info.interface_type ||
                       info.ui_meta != remote.info.ui_meta;
  remote.info = std::move(info);
  // A device already known is announced again only when it changed.
  if (Visible(node) && (!known || changed)) Announce(remote, hxf_tool::kPresenceArrived);
}

void Plugin::OnDeparture(const Message& message) {
  auto node = nodes_.find(message.node);
  if (node == nodes_.end()) return;
  auto device = node->second.devices.find({message.service, message.device});
  if (device == node->second.devices.end()) return;
  Forget(node->second, device);
}

void Plugin::OnState(const std::string& payload, const Message& message) {
  auto node = nodes_.find(message.node);
  if (node == nodes_.end()) return;
  auto device = node->second.devices.find({message.service, message.device});
  if (device == node->second.devices.end()) return;  // a state before its device: not news yet
  Remote& remote = device->second;
  if (remote.state == payload) return;
  remote.state = payload;
  if (Visible(node->second)) Notify(remote, message.properties);
}

void Plugin::HideNode(const std::string& node_id, Node& node) {
  if (!node.online) return;
  node.online = false;
  for (const auto& [key, remote] : node.devices) Announce(remote, hxf_tool::kPresenceLeft);
  // A request to a node that went cannot be answered any more.
  std::vector<std::string> gone;
  for (const auto& [correlation, pending] : pending_)
    if (pending.node == node_id) gone.push_back(correlation);
  for (const std::string& correlation : gone) {
    Pending pending = std::move(pending_[correlation]);
    pending_.erase(correlation);
    Answer(correlation, std::move(pending), HXF_ERROR_OPERATION_FAILED,
           "node " + node_id + " went offline while the request ran", {});
  }
}

void Plugin::Forget(Node& node,
                    std::map<std::pair<std::string, std::string>, Remote>::iterator device) {
  if (Visible(node)) Announce(device->second, hxf_tool::kPresenceLeft);
  offered_.erase({device->second.service, device->second.info.id});
  node.devices.erase(device);
}

hxf_mqtt::Plugin::Service* Plugin::ServiceFor(const std::string& name) {
  if (Service* service = FindService(name)) return service;
  if (ServiceCount() >= kMaxServices) {
    dlog_print(DLOG_WARN, kTag, "mqtt: service %s ignored: %zu services offered already\n",
               name.c_str(), kMaxServices);
    return nullptr;
  }
  dlog_print(DLOG_INFO, kTag, "mqtt: offering service %s\n", name.c_str());
  return AddService(name);
}

void Plugin::Announce(const Remote& remote, const char* presence) {
  Service* service = FindService(remote.service);
  if (service != nullptr && service->record.listening) ReportDevice(*service, remote.info, presence);
}

const Plugin::Remote* Plugin::Find(const std::string& service, const std::string& id) const {
  const auto found = offered_.find({service, id});
  if (found == offered_.end()) return nullptr;
  const auto node = nodes_.find(found->second->node);
  return node != nodes_.end() && Visible(node->second) ? found->second : nullptr;
}

void Plugin::Notify(const Remote& remote,
                    const std::vector<hxf_tool::PropertyValue>& properties) {
  Service* service = FindService(remote.service);
  if (service != nullptr) SendNotification(*service, OfferedList("state", remote.info.id, properties));
}

// ---- consumers ----

void Plugin::OnSearch(Service& service) {
  for (const auto& [node_id, node] : nodes_) {
    if (!Visible(node)) continue;
    for (const auto& [key, remote] : node.devices)
      if (remote.service == service.name) ReportDevice(service, remote.info);
  }
}

void Plugin::OnListen(Service& service) {
  service.record.listening = true;
  OnSearch(service);
}

void Plugin::OnListenStop(Service& service) {
  service.record.listening = false;
}

void Plugin::OnDeviceList(Service& service) {
  std::vector<const hxf_plugin_kit::EndpointInfo*> devices;
  for (const auto& [node_id, node] : nodes_) {
    if (!Visible(node)) continue;
    for (const auto& [key, remote] : node.devices)
      if (remote.service == service.name) devices.push_back(&remote.info);
  }
  ReportDeviceList(service, devices);
}

void Plugin::OnRequest(Service& service, hxf_transaction_h transaction,
                     const hxf_plugin_kit::List& request) {
  const std::string operation = hxf_property_list_get_name(request.get());
  const std::string id = hxf_plugin_kit::FindText(request.get(), "device_id");
  if (id.empty()) {
    std::string devices;
    for (const auto& [key, remote] : offered_)
      if (key.first == service.name && Find(key.first, key.second) != nullptr)
        devices += (devices.empty() ? "" : ", ") + key.second;
    Refuse(service, transaction, operation,
           "device_id (device= in hxf) is required; devices: " + devices,
           HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  const Remote* remote = Find(service.name, id);
  if (remote == nullptr) {
    Refuse(service, transaction, operation, "unknown device " + id, HXF_ERROR_NOT_FOUND);
    return;
  }
  if (!connected_) {
    Refuse(service, transaction, operation, "not connected to the MQTT broker",
           HXF_ERROR_OPERATION_FAILED);
    return;
  }
  if (pending_.size() >= kMaxInFlight) {
    Refuse(service, transaction, operation,
           std::to_string(kMaxInFlight) + " requests wait for their answers already",
           HXF_ERROR_OPERATION_FAILED);
    return;
  }
  hxf_tool::MqttCommand command;
  command.operation = operation;
  for (hxf_tool::PropertyValue& property : hxf_tool::ReadProperties(request.get()))
    if (property.name != "device_id") command.properties.push_back(std::move(property));
  const std::string payload = hxf_tool::CommandJson(command);
  const std::string topic = hxf_tool::DeviceTopic(config_.prefix, remote->node, remote->service,
                                                  remote->device, hxf_tool::kMqttCommandLeaf);
  const std::string correlation = std::to_string(++next_correlation_);
  mosquitto_property* properties = nullptr;
  mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC, reply_topic_.c_str());
  mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation.data(),
                                static_cast<uint16_t>(correlation.size()));
  const int rc = mosquitto_publish_v5(mosq_, nullptr, topic.c_str(),
                                      static_cast<int>(payload.size()), payload.data(), 1, false,
                                      properties);
  mosquitto_property_free_all(&properties);
  if (rc != MOSQ_ERR_SUCCESS) {
    Refuse(service, transaction, operation,
           std::string("cannot publish the request: ") + mosquitto_strerror(rc),
           HXF_ERROR_OPERATION_FAILED);
    return;
  }
  pending_[correlation] = Pending{&service,       transaction,
                                  operation,      remote->node,
                                  remote->device, Clock::now() + config_.timeout};
}

void Plugin::OnAnswer(const std::string& correlation, const std::string& payload) {
  const auto found = pending_.find(correlation);
  if (found == pending_.end()) {
    // Answered already (timed out, or the connection was lost meanwhile), or never asked.
    dlog_print(DLOG_INFO, kTag, "mqtt: an answer to no request in flight dropped\n");
    return;
  }
  Pending pending = std::move(found->second);
  pending_.erase(found);
  hxf_mqtt::Answer answer;
  std::string problem;
  if (!ReadAnswer(payload, &answer, &problem)) {
    dlog_print(DLOG_WARN, kTag, "mqtt: %s: bad answer from node %s: %s\n", reply_topic_.c_str(),
               pending.node.c_str(), problem.c_str());
    const std::string why = "bad answer from node " + pending.node + ": " + problem;
    Answer(correlation, std::move(pending), HXF_ERROR_OPERATION_FAILED, why, {});
    return;
  }
  Answer(correlation, std::move(pending), answer.error, answer.error_text,
         std::move(answer.properties));
}

void Plugin::Answer(const std::string& correlation, Pending pending, int error,
                    const std::string& error_text,
                    std::vector<hxf_tool::PropertyValue> properties) {
  (void)correlation;
  const std::string id = ImportedId(pending.node, pending.device);
  if (error != HXF_ERROR_NONE) {
    Refuse(*pending.service, pending.transaction, pending.operation, error_text,
           static_cast<hxf_error_e>(error));
    return;
  }
  SendResult(*pending.service, pending.transaction,
             OfferedList(pending.operation, id, std::move(properties)), HXF_ERROR_NONE);
}

void Plugin::FailAll(const std::string& why) {
  std::map<std::string, Pending> pending;
  pending.swap(pending_);
  for (auto& [correlation, request] : pending)
    Answer(correlation, std::move(request), HXF_ERROR_OPERATION_FAILED, why, {});
}

}  // namespace hxf_mqtt
