// hxfd's MQTT front (docs/MQTT.md): the devices of the core, on an MQTT broker. A listen on
// every offered service finds them; each is published (device, state, Home Assistant's
// discovery) and cleared when it leaves; commands from MQTT are the core's requests, answered
// on the caller's response topic. Beside the D-Bus front, on the same core and the same
// sd-event loop: the core's callbacks (pool threads) reach it through its CLoopTasks only.
#pragma once

#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CLoopTasks.h"
#include "CMqttClient.h"
#include "CoreValues.h"
#include "MqttTopics.h"
#include "hxf_core.h"

namespace hxfd {

struct MqttFrontOptions {
  std::string url;  // empty: no MQTT front
  std::string node, prefix = hxf_tool::kMqttDefaultPrefix;
  std::string cafile, certfile, keyfile, user, password;
  int keepalive_s = 10;
  uint32_t request_timeout_ms = 10000;
};

// Fills in what the command line and configuration left to defaults (the node: the host's
// name) and reads the password file; false with *problem for settings that cannot work.
bool CompleteMqttOptions(const std::string& password_file, MqttFrontOptions* options,
                         std::string* problem);
// The services the loaded plugins declare (HXF_PLUGIN_INFO), each once, in load order.
std::vector<std::string> OfferedServices(const std::vector<std::string>& plugins);

class CMqttFront {
 public:
  CMqttFront(sd_event* event, MqttFrontOptions options);
  ~CMqttFront() { Stop(); }
  CMqttFront(const CMqttFront&) = delete;
  CMqttFront& operator=(const CMqttFront&) = delete;

  // On the loop's thread, once the plugins are loaded: listens on `services` and connects.
  // False with *error when the settings are refused.
  bool Start(const std::vector<std::string>& services, std::string* error);
  // Publishes "offline", disconnects and destroys the core client; callbacks still to come
  // are dropped.
  void Stop();

 private:
  struct Exported {
    hxf_tool::Device device;
    std::string provider;
    std::vector<hxf_tool::PropertyValue> state;
    bool has_state = false;
    std::vector<std::string> discovery;  // the configuration topics published
  };
  // Where a request's answer goes.
  enum class Asker { kState, kCommand, kHomeAssistant };
  struct Pending {
    Asker asker = Asker::kCommand;
    std::string key;  // the device's
    std::string topic;  // the command's, for the log
    std::string response_topic, correlation;
    bool has_correlation = false;
    uint64_t connection = 0;  // the connection it came on
    hxf_transaction_h transaction = nullptr;
  };
  struct Answer {
    uint64_t id = 0;
    hxf_transaction_h transaction = nullptr;
    std::vector<hxf_tool::PropertyValue> properties;
    int error = 0;
    bool notification = false;
    std::string service;
  };

  // Any thread: hands `deliver` to the front of this process, if one runs.
  static void Hand(std::function<void(CMqttFront&)> deliver);
  static void OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e,
                      hxf_endpoint_h endpoint, void*);
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h transaction, hxf_error_e error, void* id);
  static void OnNotification(hxf_string service, hxf_service_session_h, hxf_property_list_h list,
                             hxf_transaction_h transaction, hxf_error_e error, void*);

  // Loop thread.
  void Found(const hxf_tool::Device& device);
  void Answered(const Answer& answer);
  void Notified(const Answer& answer);
  void Connected();
  void Disconnected();
  void Message(const MqttMessage& message);
  void Command(const MqttMessage& message, const hxf_tool::MqttTopic& topic);
  // Sends a request for the device `key`; the answer goes to `pending`'s asker.
  void Request(const std::string& key, const std::string& operation,
               std::vector<hxf_tool::PropertyValue> properties, Pending pending);
  void Reply(const Pending& pending, const std::string& payload);
  void Refuse(const Pending& pending, int code, const std::string& what);
  void PublishDevice(const Exported& exported);
  void PublishState(const Exported& exported);
  void PublishDiscovery(Exported* exported);
  void Clear(const Exported& exported);
  std::string Topic(const Exported& exported, const std::string& leaf) const;
  hxf_service_session_h Session(const std::string& service, const std::string& provider);

  sd_event* event_;
  const MqttFrontOptions options_;
  const hxf_tool::MqttLimits limits_;
  hxf_tool::CLoopTasks tasks_;
  std::unique_ptr<CMqttClient> client_;
  hxf_client_h core_ = nullptr;
  std::vector<std::string> services_;
  std::map<std::string, hxf_service_session_h> sessions_;  // by the name subscribed to
  std::map<std::string, Exported> devices_;  // by service and id
  std::map<uint64_t, Pending> pending_;      // by request id
  uint64_t next_id_ = 1;
  uint64_t connection_ = 0;  // counts the connections made
  bool started_ = false;
};

}  // namespace hxfd
