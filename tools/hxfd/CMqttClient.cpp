#include "CMqttClient.h"

#include <mqtt_protocol.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace hxfd {

namespace {

constexpr uint64_t kMaxBackoffMs = 30000;

uint64_t Now(sd_event* event) {
  uint64_t now = 0;
  sd_event_now(event, CLOCK_MONOTONIC, &now);
  return now;
}

// libmosquitto's reason, errno's text for MOSQ_ERR_ERRNO.
std::string Reason(int rc) {
  return rc == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(rc);
}

std::string Url(const hxf_tool::MqttUrl& url) {
  const bool v6 = url.host.find(':') != std::string::npos;
  return std::string(url.tls ? "mqtts://" : "mqtt://") + (v6 ? "[" : "") + url.host +
         (v6 ? "]" : "") + ":" + std::to_string(url.port);
}

}  // namespace

CMqttClient::CMqttClient(sd_event* event, MqttSettings settings, Handlers handlers)
    : event_(event), settings_(std::move(settings)), handlers_(std::move(handlers)) {}

CMqttClient::~CMqttClient() {
  io_.reset();
  if (mosq_ != nullptr) {
    mosquitto_destroy(mosq_);
    mosquitto_lib_cleanup();  // one front per process: its Start made the one mosquitto_lib_init
  }
}

bool CMqttClient::Start(std::string* error) {
  mosquitto_lib_init();
  // A clean session: hxfd subscribes again and publishes everything again on each connection.
  mosq_ = mosquitto_new(settings_.client_id.c_str(), true, this);
  if (mosq_ == nullptr) {
    *error = std::string("cannot make an MQTT client: ") + std::strerror(errno);
    return false;
  }
  mosquitto_int_option(mosq_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  // An answer is one small packet: sent at once, not held back for more.
  mosquitto_int_option(mosq_, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_connect_v5_callback_set(mosq_, &CMqttClient::OnConnect);
  mosquitto_disconnect_v5_callback_set(mosq_, &CMqttClient::OnDisconnect);
  mosquitto_message_v5_callback_set(mosq_, &CMqttClient::OnMessage);
  int rc = mosquitto_will_set_v5(mosq_, settings_.will_topic.c_str(),
                                 static_cast<int>(settings_.will_payload.size()),
                                 settings_.will_payload.data(), 1, true, nullptr);
  if (rc == MOSQ_ERR_SUCCESS && !settings_.user.empty())
    rc = mosquitto_username_pw_set(mosq_, settings_.user.c_str(),
                                   settings_.password.empty() ? nullptr : settings_.password.c_str());
  if (rc == MOSQ_ERR_SUCCESS && settings_.url.tls) {
    const auto or_null = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
    // Without a CA file the system's trusted authorities vouch for the broker.
    if (settings_.cafile.empty()) mosquitto_int_option(mosq_, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
    rc = mosquitto_tls_set(mosq_, or_null(settings_.cafile),
                           settings_.cafile.empty() ? "/etc/ssl/certs" : nullptr,
                           or_null(settings_.certfile), or_null(settings_.keyfile), nullptr);
  }
  if (rc != MOSQ_ERR_SUCCESS) {
    *error = "MQTT settings refused: " + Reason(rc);
    return false;
  }
  sd_event_add_time_relative(event_, hxf_tool::Out(tick_), CLOCK_MONOTONIC, 1000000, 0,
                             &CMqttClient::OnTick, this);
  sd_event_source_set_enabled(tick_.get(), SD_EVENT_ON);
  sd_event_add_post(event_, hxf_tool::Out(post_), &CMqttClient::OnPost, this);
  sd_event_source_set_enabled(post_.get(), SD_EVENT_ON);
  Connect();
  return true;
}

void CMqttClient::Stop(const std::string& last) {
  stopping_ = true;
  if (connected_) {
    Publish(settings_.will_topic, last, true);
    // Without the will: this is a clean stop.
    mosquitto_disconnect_v5(mosq_, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
    // What is queued goes out now, the loop runs no more: a bounded blocking flush.
    for (int i = 0; i < 50 && mosquitto_want_write(mosq_); ++i) {
      if (mosquitto_loop_write(mosq_, 1) != MOSQ_ERR_SUCCESS) break;
    }
  }
  connected_ = false;
  io_.reset();
  tick_.reset();
  post_.reset();
}

void CMqttClient::Connect() {
  retry_at_us_ = 0;
  int rc = MOSQ_ERR_SUCCESS;
  if (!tried_) {
    std::fprintf(stderr, "hxfd: mqtt: connecting to %s\n", Url(settings_.url).c_str());
    tried_ = true;
    rc = mosquitto_connect_async(mosq_, settings_.url.host.c_str(), settings_.url.port,
                                 settings_.keepalive_s);
  } else {
    rc = mosquitto_reconnect_async(mosq_);
  }
  if (rc != MOSQ_ERR_SUCCESS) {
    Lost(rc);
    return;
  }
  socket_open_ = true;
  Watch();
}

void CMqttClient::Watch() {
  io_.reset();
  io_fd_ = mosquitto_socket(mosq_);
  if (io_fd_ < 0) return;
  sd_event_add_io(event_, hxf_tool::Out(io_), io_fd_, EPOLLIN | EPOLLOUT, &CMqttClient::OnIo, this);
}

void CMqttClient::Lost(int rc) {
  const bool was_connected = connected_;
  connected_ = false;
  socket_open_ = false;
  io_.reset();
  io_fd_ = -1;
  if (stopping_) return;
  retry_at_us_ = Now(event_) + backoff_ms_ * 1000;
  // Each failure while the wait grows; then the same failure again and again (a broker away
  // for long) only once.
  if (was_connected || static_cast<uint64_t>(rc) != last_reason_ || backoff_ms_ < kMaxBackoffMs)
    std::fprintf(stderr, "hxfd: mqtt: %s %s: %s; trying again in %llu ms\n",
                 was_connected ? "lost the connection to" : "cannot connect to",
                 Url(settings_.url).c_str(), Reason(rc).c_str(),
                 static_cast<unsigned long long>(backoff_ms_));
  last_reason_ = static_cast<uint64_t>(rc);
  backoff_ms_ = std::min(backoff_ms_ * 2, kMaxBackoffMs);
  if (was_connected && handlers_.disconnected) deferred_.push_back(handlers_.disconnected);
}

void CMqttClient::Drain() {
  while (!deferred_.empty()) {
    const std::function<void()> handler = std::move(deferred_.front());
    deferred_.pop_front();
    handler();
  }
}

void CMqttClient::Flush() {
  if (io_ == nullptr || mosq_ == nullptr) return;
  sd_event_source_set_io_events(io_.get(),
                                EPOLLIN | (mosquitto_want_write(mosq_) ? uint32_t{EPOLLOUT} : 0u));
}

bool CMqttClient::Publish(const std::string& topic, const std::string& payload, bool retain,
                          const std::string* correlation) {
  if (!connected_) return false;
  mosquitto_property* properties = nullptr;
  if (correlation != nullptr)
    mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation->data(),
                                  static_cast<uint16_t>(correlation->size()));
  const int rc = mosquitto_publish_v5(mosq_, nullptr, topic.c_str(), static_cast<int>(payload.size()),
                                      payload.data(), 1, retain, properties);
  mosquitto_property_free_all(&properties);
  if (rc != MOSQ_ERR_SUCCESS) {
    std::fprintf(stderr, "hxfd: mqtt: cannot publish %s: %s\n", topic.c_str(), Reason(rc).c_str());
    return false;
  }
  return true;
}

bool CMqttClient::Subscribe(const std::string& pattern) {
  const int rc = mosquitto_subscribe_v5(mosq_, nullptr, pattern.c_str(), 1, 0, nullptr);
  if (rc != MOSQ_ERR_SUCCESS)
    std::fprintf(stderr, "hxfd: mqtt: cannot subscribe to %s: %s\n", pattern.c_str(),
                 Reason(rc).c_str());
  return rc == MOSQ_ERR_SUCCESS;
}

int CMqttClient::OnIo(sd_event_source*, int, uint32_t revents, void* self) {
  auto* client = static_cast<CMqttClient*>(self);
  int rc = MOSQ_ERR_SUCCESS;
  if (revents & (EPOLLIN | EPOLLERR | EPOLLHUP)) rc = mosquitto_loop_read(client->mosq_, 1);
  if (rc == MOSQ_ERR_SUCCESS && (revents & EPOLLOUT) && client->io_ != nullptr)
    rc = mosquitto_loop_write(client->mosq_, 1);
  // libmosquitto closed the socket and called OnDisconnect, or the attempt failed before it
  // had a connection to lose.
  if (rc != MOSQ_ERR_SUCCESS && client->socket_open_) client->Lost(rc);
  client->Drain();
  return 0;
}

int CMqttClient::OnTick(sd_event_source* source, uint64_t, void* self) {
  auto* client = static_cast<CMqttClient*>(self);
  if (client->socket_open_) {
    const int rc = mosquitto_loop_misc(client->mosq_);  // pings, and a broker that went quiet
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN && client->socket_open_) client->Lost(rc);
    client->Drain();
  } else if (client->retry_at_us_ != 0 && Now(client->event_) >= client->retry_at_us_) {
    client->Connect();
  }
  sd_event_source_set_time_relative(source, 1000000);
  sd_event_source_set_enabled(source, SD_EVENT_ON);
  return 0;
}

int CMqttClient::OnPost(sd_event_source*, void* self) {
  static_cast<CMqttClient*>(self)->Flush();
  return 0;
}

void CMqttClient::OnConnect(mosquitto*, void* self, int rc, int, const mosquitto_property*) {
  auto* client = static_cast<CMqttClient*>(self);
  if (rc != 0) {
    // Refused (credentials, authorisation): libmosquitto leaves the socket to us.
    std::fprintf(stderr, "hxfd: mqtt: %s refused the connection: %s\n",
                 Url(client->settings_.url).c_str(), mosquitto_reason_string(rc));
    client->deferred_.push_back([client] { mosquitto_disconnect(client->mosq_); });
    return;
  }
  client->connected_ = true;
  client->backoff_ms_ = 1000;
  client->last_reason_ = UINT64_MAX - 1;
  std::fprintf(stderr, "hxfd: mqtt: connected to %s\n", Url(client->settings_.url).c_str());
  if (client->handlers_.connected) client->deferred_.push_back(client->handlers_.connected);
}

void CMqttClient::OnDisconnect(mosquitto*, void* self, int rc, const mosquitto_property*) {
  auto* client = static_cast<CMqttClient*>(self);
  if (client->socket_open_) client->Lost(rc == 0 ? MOSQ_ERR_CONN_LOST : rc);
}

void CMqttClient::OnMessage(mosquitto*, void* self, const mosquitto_message* message,
                            const mosquitto_property* properties) {
  auto* client = static_cast<CMqttClient*>(self);
  MqttMessage copy;
  copy.topic = message->topic;
  if (message->payloadlen > 0)
    copy.payload.assign(static_cast<const char*>(message->payload),
                        static_cast<size_t>(message->payloadlen));
  char* response = nullptr;
  if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &response, false) !=
      nullptr) {
    copy.response_topic = response != nullptr ? response : "";
    free(response);
  }
  void* correlation = nullptr;
  uint16_t length = 0;
  if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &length,
                                     false) != nullptr) {
    copy.has_correlation = true;
    copy.correlation.assign(static_cast<const char*>(correlation), length);
    free(correlation);
  }
  if (client->handlers_.message)
    client->deferred_.push_back([client, copy = std::move(copy)] { client->handlers_.message(copy); });
}

}  // namespace hxfd
