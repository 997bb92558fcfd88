// The MQTT import provider: other nodes' devices, as their hxfd exports them on an MQTT broker
// (docs/MQTT.md), offered here under the same service names with the ids "<node>/<device>".
//
// Threads: one plugin thread runs a poll loop over libmosquitto's socket and an eventfd; every
// libmosquitto call and everything the plugin knows of the network lives there. The core's
// callbacks reach it through the kit's Provider, which posts each call (Post); answers and
// reports go back through the core's hxf_core_service_handler_* functions from that thread.
#pragma once

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CLocks.h"
#include "CoreValues.h"
#include "MqttImport.h"
#include "PluginKit.h"

namespace hxf_mqtt {

using Clock = std::chrono::steady_clock;

// What a consumer's listen asked of one service.
struct ServiceRecord {
  bool listening = false;
};

// The plugin's configuration, from the environment (HXF_MQTT_*).
struct Config {
  hxf_tool::MqttUrl url;
  std::string cafile, cert, key, user, password;
  std::string prefix = hxf_tool::kMqttDefaultPrefix;
  std::string node;                    // this host's node, whose topics are skipped
  std::chrono::milliseconds timeout{12000};  // a request's answer, at most
  std::vector<std::string> services;   // offered from the load on, before any node exports them
};
// False with the reason when the environment does not make a configuration.
bool ReadConfig(Config* config, std::string* problem);

class Plugin : public hxf_plugin_kit::Provider<Plugin, ServiceRecord> {
 public:
  static constexpr const char* kName = hxf_tool::kMqttProvider;
  using Service = hxf_plugin_kit::Provider<Plugin, ServiceRecord>::Service;

  Plugin();
  ~Plugin();
  // Starts the plugin thread, which connects and reports the load result once the broker's
  // retained topics have been read (or the first connection failed).
  void Start();
  // Returns once no plugin code runs any more and every handler is destroyed.
  void Stop();

  // Any thread: runs `task` on the plugin thread; dropped once the plugin is stopping.
  void Post(Task task);

  // The kit's hooks, on the plugin thread.
  void OnSearch(Service& service);
  void OnListen(Service& service);
  void OnListenStop(Service& service);
  void OnDeviceList(Service& service);
  void OnRequest(Service& service, hxf_transaction_h transaction,
               const hxf_plugin_kit::List& request);

 private:
  // One device of another node.
  struct Remote {
    std::string node, service, device;   // as the node names them
    hxf_plugin_kit::EndpointInfo info;   // as it is offered here ("<node>/<device>")
    std::string state;                   // the last state payload, to tell news from repeats
    uint64_t seen = 0;                   // the connection that last read its device topic
  };
  struct Node {
    bool online = false;
    uint64_t seen = 0;                               // the connection that last read its status
    std::map<std::pair<std::string, std::string>, Remote> devices;  // by service, device
  };
  // A request sent to a node, waiting for its answer.
  struct Pending {
    Service* service = nullptr;
    hxf_transaction_h transaction = nullptr;
    std::string operation, node, device;
    Clock::time_point deadline;
  };

  // ---- plugin thread ----
  void Run();
  void RunPosted();
  void Connect();
  void ScheduleReconnect();
  void CheckDeadlines();
  // The poll time-out in ms: the next deadline or reconnect, at most a second (keep-alive).
  int NextWake() const;
  void Finish();

  void OnConnected(int rc);
  // Subscribes to the other nodes' topics and sends the probe that ends their retained ones.
  void Subscribe();
  void OnDisconnected(int rc);
  void OnMessage(const mosquitto_message* message, const mosquitto_property* properties);
  void OnSynced(uint64_t connection);
  void OnAnswer(const std::string& correlation, const std::string& payload);
  // The node of that id, made if it is new and the node limit allows; null (logged) if not.
  Node* Admit(const std::string& node_id);
  void OnStatus(const Message& message);
  void OnDevice(Message message);
  void OnDeparture(const Message& message);
  void OnState(const std::string& payload, const Message& message);

  // Whether consumers see the node's devices.
  bool Visible(const Node& node) const { return node.online; }
  Service* ServiceFor(const std::string& name);
  // Tells listeners of the device's service that it came or went.
  void Announce(const Remote& remote, const char* presence);
  // The node's devices leave consumers' view (offline, gone, or not read again).
  void HideNode(const std::string& node_id, Node& node);
  void Forget(Node& node, std::map<std::pair<std::string, std::string>, Remote>::iterator device);
  const Remote* Find(const std::string& service, const std::string& id) const;
  void Answer(const std::string& correlation, Pending pending, int error,
              const std::string& error_text, std::vector<hxf_tool::PropertyValue> properties);
  void FailAll(const std::string& why);
  void Notify(const Remote& remote, const std::vector<hxf_tool::PropertyValue>& properties);

  static void OnConnect(mosquitto*, void* self, int rc, int, const mosquitto_property*);
  static void OnDisconnect(mosquitto*, void* self, int rc, const mosquitto_property*);
  static void OnMessageArrived(mosquitto*, void* self, const mosquitto_message* message,
                               const mosquitto_property* properties);

  std::thread thread_;
  HXFramework::CMutex post_mutex_;  // for Post from any thread
  std::deque<Task> posted_ HXF_GUARDED_BY(post_mutex_);
  bool stopping_ HXF_GUARDED_BY(post_mutex_) = false;
  int wake_fd_ = -1;  // an eventfd: made by Start, closed by Stop after the thread has ended

  // Plugin thread only.
  Config config_;
  mosquitto* mosq_ = nullptr;
  std::string reply_topic_;
  bool connected_ = false;
  bool loaded_ = false;        // the load result was sent
  bool finished_ = false;      // the loop ends
  uint64_t connection_ = 0;    // counts connections, for the sweep after a reconnect
  std::chrono::milliseconds backoff_{1000};
  Clock::time_point reconnect_at_ = Clock::time_point::max();
  Clock::time_point load_deadline_;
  uint64_t next_correlation_ = 0;
  std::map<std::string, Node> nodes_;
  std::map<std::pair<std::string, std::string>, Remote*> offered_;  // by service, offered id
  std::map<std::string, Pending> pending_;  // by correlation data
};

}  // namespace hxf_mqtt
