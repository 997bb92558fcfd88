// The "audio" operations on media renderers (SOAP actions on RenderingControl and
// AVTransport) and their LastChange events, read by UpnpAudioReaders.h. Plugin thread only.
#include "UpnpAudio.h"

#include <memory>
#include <vector>

#include "AudioRequest.h"
#include "UpnpPlugin.h"
#include "hxf_host_platform.h"

namespace hxf_upnp {

namespace audio = hxf_tool::audio;

namespace {

using hxf_plugin_kit::ErrorList;
using hxf_plugin_kit::Push;
using hxf_plugin_kit::Value;

constexpr const char* kTag = "HXF_UPNP";
constexpr const char* kMediaRenderer = "urn:schemas-upnp-org:device:MediaRenderer:";
// GUPnP matches a service of this version or a later one.
constexpr const char* kRenderingControl = "urn:schemas-upnp-org:service:RenderingControl:1";
constexpr const char* kAVTransport = "urn:schemas-upnp-org:service:AVTransport:1";

// A step's reader: the action's outputs, read as text, each applied as the state variable
// it is paired with ({output, variable}) to the renderer's state and to the sequence's
// reading. A SOAP fault is the reader's error.
using Outputs = std::vector<std::pair<const char*, const char*>>;
decltype(AudioStep::read) ReadOutputs(Outputs outputs) {
  return [outputs](GUPnPServiceProxyAction* action, AudioState* state, AudioState* reading,
                   GError** error) {
    GList* names = nullptr;
    GList* types = nullptr;
    for (const auto& [output, variable] : outputs) {
      names = g_list_append(names, const_cast<char*>(output));
      types = g_list_append(types, GSIZE_TO_POINTER(G_TYPE_STRING));
    }
    GList* values = nullptr;
    const bool read = gupnp_service_proxy_action_get_result_list(action, names, types, &values,
                                                                  error) != FALSE;
    size_t index = 0;
    for (GList* item = values; read && item != nullptr && index < outputs.size();
         item = item->next, ++index) {
      const char* text = g_value_get_string(static_cast<GValue*>(item->data));
      std::string problem;
      if (text == nullptr) continue;
      ApplyVariable(outputs[index].second, text, reading, &problem);
      if (!ApplyVariable(outputs[index].second, text, state, &problem))
        dlog_print(DLOG_WARN, kTag, "upnp: refused from the renderer: %s\n", problem.c_str());
    }
    g_list_free_full(values, [](gpointer value) {
      g_value_unset(static_cast<GValue*>(value));
      g_free(value);
    });
    g_list_free(names);
    g_list_free(types);
    return read;
  };
}

AudioStep Action(bool transport, const char* name,
                 std::function<GUPnPServiceProxyAction*()> make, Outputs outputs = {}) {
  return AudioStep{transport, name, std::move(make),
                   outputs.empty() ? nullptr : ReadOutputs(std::move(outputs))};
}

// The actions that read a renderer's whole state, in turn.
void AppendReads(std::vector<AudioStep>* steps) {
  steps->push_back(Action(false, "GetVolume", [] {
    return gupnp_service_proxy_action_new("GetVolume", "InstanceID", G_TYPE_UINT, 0u, "Channel",
                                          G_TYPE_STRING, "Master", nullptr);
  }, {{"CurrentVolume", "Volume"}}));
  steps->push_back(Action(false, "GetMute", [] {
    return gupnp_service_proxy_action_new("GetMute", "InstanceID", G_TYPE_UINT, 0u, "Channel",
                                          G_TYPE_STRING, "Master", nullptr);
  }, {{"CurrentMute", "Mute"}}));
  steps->push_back(Action(true, "GetTransportInfo", [] {
    return gupnp_service_proxy_action_new("GetTransportInfo", "InstanceID", G_TYPE_UINT, 0u,
                                          nullptr);
  }, {{"CurrentTransportState", "TransportState"}}));
  steps->push_back(Action(true, "GetMediaInfo", [] {
    return gupnp_service_proxy_action_new("GetMediaInfo", "InstanceID", G_TYPE_UINT, 0u, nullptr);
  }, {{"CurrentURI", "AVTransportURI"}, {"CurrentURIMetaData", "AVTransportURIMetaData"},
      {"MediaDuration", "CurrentMediaDuration"}}));
  steps->push_back(Action(true, "GetPositionInfo", [] {
    return gupnp_service_proxy_action_new("GetPositionInfo", "InstanceID", G_TYPE_UINT, 0u,
                                          nullptr);
  }, {{"TrackDuration", "CurrentTrackDuration"}, {"TrackMetaData", "CurrentTrackMetaData"},
      {"RelTime", "RelativeTimePosition"}}));
}

// A list named `name`: the device's id and `state` (the whole state, or what watchers are told).
hxf_property_list_h StateList(const std::string& name, const Device& device,
                              const AudioState& state) {
  return audio::StateList(name, device.endpoint.id, state);
}

// What watchers are told of: the state but its running clock, which only answers carry.
AudioState Notified(AudioState state) {
  state.position.reset();
  return state;
}

}  // namespace

// ---- the plugin's side ----

void FindRenderer(GUPnPDeviceInfo* info, const std::string& device_type, Renderer* renderer) {
  if (device_type.rfind(kMediaRenderer, 0) != 0) return;
  GUPnPServiceInfo* rendering = gupnp_device_info_get_service(info, kRenderingControl);
  GUPnPServiceInfo* transport = gupnp_device_info_get_service(info, kAVTransport);
  if (rendering != nullptr && transport != nullptr) {
    renderer->rendering = GUPNP_SERVICE_PROXY(rendering);  // the references returned are ours
    renderer->transport = GUPNP_SERVICE_PROXY(transport);
    return;
  }
  if (rendering != nullptr) g_object_unref(rendering);
  if (transport != nullptr) g_object_unref(transport);
}

void ReleaseRenderer(Renderer* renderer) {
  if (renderer->rendering != nullptr) g_object_unref(renderer->rendering);
  if (renderer->transport != nullptr) g_object_unref(renderer->transport);
  renderer->rendering = renderer->transport = nullptr;
}

void Plugin::RunAudio(const std::string& udn, std::shared_ptr<const std::vector<AudioStep>> steps,
                      size_t next, std::shared_ptr<AudioState> read, AudioDone done) {
  const auto found = devices_.find(udn);
  if (found == devices_.end()) {
    done("the device is gone", nullptr);
    return;
  }
  if (next == steps->size()) {
    done("", nullptr);
    return;
  }
  const AudioStep& step = (*steps)[next];
  const Renderer& renderer = found->second.renderer;
  Call(step.transport ? renderer.transport : renderer.rendering, step.name, step.make(),
       [this, udn, steps, next, read, done](GUPnPServiceProxyAction* action,
                                            const GError* error) {
         const AudioStep& current = (*steps)[next];
         const std::string failed = std::string(current.name) + " failed";
         if (action == nullptr) {
           done(failed, error);
           return;
         }
         const auto again = devices_.find(udn);
         if (again == devices_.end()) {
           done("the device is gone", nullptr);
           return;
         }
         GError* read_error = nullptr;
         if (current.read &&
             !current.read(action, &again->second.renderer.state, read.get(), &read_error)) {
           done(failed, read_error);
           g_clear_error(&read_error);
           return;
         }
         RunAudio(udn, steps, next + 1, read, done);
       });
}

void Plugin::RunAndTell(const std::string& udn, std::vector<AudioStep> steps,
                        std::shared_ptr<AudioState> read, AudioDone done) {
  AppendReads(&steps);
  RunAudio(udn, std::make_shared<const std::vector<AudioStep>>(std::move(steps)), 0,
           std::move(read),
           [this, udn, done](const std::string& failed, const GError* error) {
             const auto found = devices_.find(udn);
             if (found != devices_.end()) NotifyAudio(found->second);
             done(failed, error);
           });
}

void Plugin::AudioRequest(const std::string& operation, hxf_transaction_h transaction,
                          hxf_property_list_h request, Device* device) {
  audio::Request asked;
  const std::string problem = audio::CheckRequest(operation, request, &asked);
  if (!problem.empty()) {  // refused before any SOAP call
    Answer(kAudio, transaction, ErrorList(operation, problem), HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  if (operation == audio::kPlay && !asked.uri && !device->renderer.state.uri) {
    Answer(kAudio, transaction, ErrorList(operation, audio::NothingToPlay()),
           HXF_ERROR_OPERATION_FAILED);
    return;
  }
  std::vector<AudioStep> steps;
  if (asked.volume) {
    const guint volume = static_cast<guint>(*asked.volume);
    steps.push_back(Action(false, "SetVolume", [volume] {
      return gupnp_service_proxy_action_new("SetVolume", "InstanceID", G_TYPE_UINT, 0u, "Channel",
                                            G_TYPE_STRING, "Master", "DesiredVolume",
                                            G_TYPE_UINT, volume, nullptr);
    }));
  }
  if (asked.muted) {
    const gboolean muted = *asked.muted ? TRUE : FALSE;
    steps.push_back(Action(false, "SetMute", [muted] {
      return gupnp_service_proxy_action_new("SetMute", "InstanceID", G_TYPE_UINT, 0u, "Channel",
                                            G_TYPE_STRING, "Master", "DesiredMute",
                                            G_TYPE_BOOLEAN, muted, nullptr);
    }));
  }
  if (asked.uri) {
    const std::string uri = *asked.uri;
    steps.push_back(Action(true, "SetAVTransportURI", [uri] {
      return gupnp_service_proxy_action_new("SetAVTransportURI", "InstanceID", G_TYPE_UINT, 0u,
                                            "CurrentURI", G_TYPE_STRING, uri.c_str(),
                                            "CurrentURIMetaData", G_TYPE_STRING, "", nullptr);
    }));
  }
  if (operation == audio::kPlay) {
    steps.push_back(Action(true, "Play", [] {
      return gupnp_service_proxy_action_new("Play", "InstanceID", G_TYPE_UINT, 0u, "Speed",
                                            G_TYPE_STRING, "1", nullptr);
    }));
  } else if (operation == audio::kPause || operation == audio::kStop) {
    const char* name = operation == audio::kPause ? "Pause" : "Stop";
    steps.push_back(Action(true, name, [name] {
      return gupnp_service_proxy_action_new(name, "InstanceID", G_TYPE_UINT, 0u, nullptr);
    }));
  } else if (asked.position) {
    const std::string target = FormatTime(*asked.position);
    steps.push_back(Action(true, "Seek", [target] {
      return gupnp_service_proxy_action_new("Seek", "InstanceID", G_TYPE_UINT, 0u, "Unit",
                                            G_TYPE_STRING, "REL_TIME", "Target", G_TYPE_STRING,
                                            target.c_str(), nullptr);
    }));
  }
  const std::string udn = device->endpoint.id;
  // The answer: the state as this request's own reads found it after its actions.
  auto read = std::make_shared<AudioState>(device->renderer.state);
  RunAndTell(udn, std::move(steps), read,
             [this, operation, transaction, udn, read](const std::string& failed,
                                                       const GError* error) {
               if (!failed.empty()) {
                 CallFailed(kAudio, operation, transaction, failed, error, udn);
                 return;
               }
               const auto answered = devices_.find(udn);
               if (answered == devices_.end()) {
                 CallFailed(kAudio, operation, transaction, "the device is gone", nullptr, udn);
                 return;
               }
               Answer(kAudio, transaction,
                      StateList(operation, answered->second, *read),
                      HXF_ERROR_NONE);
             });
}

// ---- GENA ----

void Plugin::SubscribeAudio(Device* device) {
  if (!device->IsRenderer()) return;
  for (GUPnPServiceProxy* proxy : {device->renderer.rendering, device->renderer.transport}) {
    gupnp_service_proxy_add_notify(proxy, "LastChange", G_TYPE_STRING, &Plugin::OnLastChange,
                                   this);
    gupnp_service_proxy_set_subscribed(proxy, TRUE);
  }
}

void Plugin::ReadAudio(const std::string& udn) {
  RunAndTell(udn, {}, std::make_shared<AudioState>(),
             [this, udn](const std::string& failed, const GError* error) {
               if (!failed.empty()) StateReadFailed(udn, failed, error);
             });
}

void Plugin::UnsubscribeAudio(Device* device) {
  if (!device->IsRenderer()) return;
  for (GUPnPServiceProxy* proxy : {device->renderer.rendering, device->renderer.transport}) {
    gupnp_service_proxy_remove_notify(proxy, "LastChange", &Plugin::OnLastChange, this);
    gupnp_service_proxy_set_subscribed(proxy, FALSE);
  }
}

void Plugin::OnLastChange(GUPnPServiceProxy* proxy, const char*, GValue* value, gpointer self) {
  Plugin* plugin = static_cast<Plugin*>(self);
  for (auto& [udn, device] : plugin->devices_) {
    Renderer& renderer = device.renderer;
    if (renderer.rendering != proxy && renderer.transport != proxy) continue;
    const char* text = g_value_get_string(value);
    AudioState next = renderer.state;
    std::string problem;
    const bool read = ApplyLastChange(text != nullptr ? text : "", &next, &problem);
    if (!problem.empty())
      dlog_print(DLOG_WARN, kTag, "upnp: LastChange of %s %s: %s\n", udn.c_str(),
                 read ? "partly refused" : "refused", problem.c_str());
    renderer.state = next;
    device.evented.insert(proxy);
    plugin->NotifyAudio(device);
    return;
  }
}

void Plugin::NotifyAudio(Device& device) {
  Renderer& renderer = device.renderer;
  const AudioState told = Notified(renderer.state);
  if (renderer.told == told) return;  // nothing new
  renderer.told = told;
  Notify(kAudio, StateList(audio::kState, device, told));
}

}  // namespace hxf_upnp
