// libmosquitto driven by hxfd's one sd-event loop: an IO source on the client's socket
// (mosquitto_loop_read / _write), a one-second timer for the keep-alive (mosquitto_loop_misc)
// and the reconnection with backoff, no thread of libmosquitto's own. Everything here runs on
// the loop's thread, the callbacks included. MQTT 5.
#pragma once

#include <mosquitto.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <string>

#include "MqttTopics.h"
#include "SdBusHolders.h"

namespace hxfd {

struct MqttSettings {
  hxf_tool::MqttUrl url;
  std::string client_id;
  std::string cafile, certfile, keyfile;  // TLS (mqtts://)
  std::string user, password;
  int keepalive_s = 10;
  // The last will: published by the broker when the connection dies unannounced.
  std::string will_topic, will_payload;
};

// A message received, its MQTT 5 request/response properties read out.
struct MqttMessage {
  std::string topic, payload;
  std::string response_topic;
  std::string correlation;
  bool has_correlation = false;
};

class CMqttClient {
 public:
  struct Handlers {
    std::function<void()> connected;     // subscribe and publish here
    std::function<void()> disconnected;  // the connection is gone; a retry is scheduled
    std::function<void(const MqttMessage&)> message;
  };

  CMqttClient(sd_event* event, MqttSettings settings, Handlers handlers);
  ~CMqttClient();
  CMqttClient(const CMqttClient&) = delete;
  CMqttClient& operator=(const CMqttClient&) = delete;

  // Sets the client up and starts connecting; false with *error when the settings are
  // refused (a file TLS cannot read). A broker that cannot be reached is retried.
  bool Start(std::string* error);
  // Publishes `offline`-style `last` on the will's topic when connected, then disconnects.
  void Stop(const std::string& last);

  bool Connected() const { return connected_; }
  // QoS 1. False when not connected (nothing queued: everything is published again on
  // connecting). Response properties when `correlation` is given.
  bool Publish(const std::string& topic, const std::string& payload, bool retain,
               const std::string* correlation = nullptr);
  bool Subscribe(const std::string& pattern);

 private:
  void Connect();
  void Watch();        // the IO source on the current socket
  void Lost(int rc);   // the connection is gone: retry later
  void Flush();        // sends what libmosquitto queued
  // Runs the handlers the callbacks deferred. libmosquitto calls back holding a lock of its
  // own, which its publish takes after others: a handler that publishes runs here, after it.
  void Drain();
  static int OnIo(sd_event_source*, int fd, uint32_t revents, void* self);
  static int OnTick(sd_event_source*, uint64_t, void* self);
  static int OnPost(sd_event_source*, void* self);
  static void OnConnect(mosquitto*, void* self, int rc, int flags, const mosquitto_property*);
  static void OnDisconnect(mosquitto*, void* self, int rc, const mosquitto_property*);
  static void OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                        const mosquitto_property* properties);

  sd_event* event_;
  const MqttSettings settings_;
  const Handlers handlers_;
  std::deque<std::function<void()>> deferred_;
  mosquitto* mosq_ = nullptr;
  hxf_tool::EventSource io_, tick_, post_;
  int io_fd_ = -1;
  bool connected_ = false;
  bool socket_open_ = false;  // a connection attempt or connection is under way
  bool stopping_ = false;
  bool tried_ = false;  // connect_async once, reconnect_async after
  uint64_t retry_at_us_ = 0;  // CLOCK_MONOTONIC; 0: no retry pending
  uint64_t backoff_ms_ = 1000;
  uint64_t last_reason_ = UINT64_MAX;  // the last failure logged, not logged twice in a row
};

}  // namespace hxfd
