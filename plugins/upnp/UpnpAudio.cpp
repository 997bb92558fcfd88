// The "audio" operations on media renderers (SOAP actions on RenderingControl and
// AVTransport), their LastChange events, and the bounded readers of what renderers send.
// Plugin thread only, but for the readers, which touch nothing but their arguments.
#include "UpnpAudio.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cctype>
#include <memory>
#include <vector>

#include "AudioVocabulary.h"
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
constexpr int64_t kMaxSeconds = 99 * 3600 + 59 * 60 + 59;  // "99:59:59", the longest Seek here

std::string Name(const xmlNode* node) {
  return reinterpret_cast<const char*>(node->name);
}

// The attribute `name` of `node`, or nullopt.
std::optional<std::string> Attribute(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (value == nullptr) return std::nullopt;
  std::string text = reinterpret_cast<const char*>(value);
  xmlFree(value);
  return text;
}

bool TooDeep(const xmlNode* node, int depth) {
  if (depth > kMaxXmlDepth) return true;
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE && TooDeep(child, depth + 1)) return true;
  }
  return false;
}

// `text` as an XML document, or null with the reason: never fetched from the network, no
// entity substituted, at most kMaxEventBytes and kMaxXmlDepth.
using Doc = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;
Doc ParseXml(const std::string& text, std::string* problem) {
  Doc doc(nullptr, &xmlFreeDoc);
  if (text.size() > kMaxEventBytes) {
    *problem = "the XML text has " + std::to_string(text.size()) + " bytes (at most " +
               std::to_string(kMaxEventBytes) + ")";
    return doc;
  }
  doc.reset(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                          XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (doc == nullptr || xmlDocGetRootElement(doc.get()) == nullptr) {
    *problem = "not XML";
    doc.reset();
  } else if (TooDeep(xmlDocGetRootElement(doc.get()), 1)) {
    *problem = "the XML nests deeper than " + std::to_string(kMaxXmlDepth) + " elements";
    doc.reset();
  }
  return doc;
}

// A whole decimal number within min..max, digits only; nullopt otherwise.
std::optional<int64_t> Whole(const std::string& text, int64_t min, int64_t max) {
  if (text.empty() || text.size() > 18) return std::nullopt;
  int64_t value = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value < min || value > max) return std::nullopt;
  return value;
}

std::optional<bool> Flag(const std::string& text) {
  if (text == "1" || text == "true" || text == "True" || text == "TRUE") return true;
  if (text == "0" || text == "false" || text == "False" || text == "FALSE") return false;
  return std::nullopt;
}

// One state variable of a renderer (as a LastChange event or an action's output names it),
// checked and applied; false with the reason for a value this plugin refuses. Variables it
// does not follow are ignored.
bool ApplyVariable(const std::string& name, const std::string& value, AudioState* state,
                   std::string* problem) {
  const auto refuse = [&](const std::string& why) {
    *problem = name + " \"" + value.substr(0, 64) + "\" " + why;
    return false;
  };
  if (name == "Volume") {
    const auto volume = Whole(value, audio::kMinVolume, audio::kMaxVolume);
    if (!volume) return refuse("is not a volume 0..100");
    state->volume = volume;
  } else if (name == "Mute") {
    const auto muted = Flag(value);
    if (!muted) return refuse("is not a bool");
    state->muted = muted;
  } else if (name == "TransportState") {
    const char* known = audio::TransportStateName(value.c_str());
    if (known == nullptr) return refuse("is not a transport state");
    state->transport_state = std::string(known);
  } else if (name == "AVTransportURI") {
    if (value.size() > audio::kMaxUriLength) return refuse("is longer than 2048 bytes");
    if (value.empty()) {
      state->uri.reset();  // no media
    } else {
      state->uri = value;
    }
  } else if (name == "AVTransportURIMetaData" || name == "CurrentTrackMetaData") {
    const auto title = TitleOf(value);
    if (title) {
      state->title = title;
    } else if (name == "AVTransportURIMetaData") {
      state->title.reset();  // new media that says no title
    }
  } else if (name == "CurrentMediaDuration" || name == "CurrentTrackDuration") {
    if (value.empty() || value == "NOT_IMPLEMENTED") return true;
    const auto seconds = ParseTime(value);
    if (!seconds) return refuse("is not a time H:MM:SS");
    state->duration = seconds;
  } else if (name == "RelativeTimePosition") {
    if (value.empty() || value == "NOT_IMPLEMENTED") return true;
    const auto seconds = ParseTime(value);
    if (!seconds) return refuse("is not a time H:MM:SS");
    state->position = seconds;
  }
  return true;
}

// A step's reader: the action's outputs, read as text, each applied as the state variable
// it is paired with ({output, variable}). A SOAP fault is the reader's error.
using Outputs = std::vector<std::pair<const char*, const char*>>;
std::function<bool(GUPnPServiceProxyAction*, AudioState*, GError**)> ReadOutputs(Outputs outputs) {
  return [outputs](GUPnPServiceProxyAction* action, AudioState* state, GError** error) {
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
      if (text != nullptr && !ApplyVariable(outputs[index].second, text, state, &problem))
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

// What a request may name besides device_id, per operation.
struct Asked {
  std::optional<int64_t> volume, position;
  std::optional<bool> muted;
  std::optional<std::string> uri;
};

std::string CheckRequest(const std::string& operation, hxf_property_list_h request,
                         Asked* asked) {
  const bool set = operation == audio::kSet;
  const bool play = operation == audio::kPlay;
  const bool seek = operation == audio::kSeek;
  const std::string takes = set ? "volume, muted" : play ? "uri" : seek ? "position" : "none";
  for (hxf_property_h p = hxf_property_list_get_first(request); p != nullptr;
       p = hxf_property_list_get_next(request, p)) {
    const std::string name = hxf_property_get_name(p);
    Value value;
    if (name == audio::kDeviceId) continue;
    if (!hxf_plugin_kit::ReadProperty(p, &value)) return "unreadable value for " + name;
    if (set && name == audio::kVolume) {
      if (!std::holds_alternative<int64_t>(value)) return "volume takes an int";
      const int64_t volume = std::get<int64_t>(value);
      if (volume < audio::kMinVolume || volume > audio::kMaxVolume)
        return "volume " + std::to_string(volume) + " is out of range 0..100";
      asked->volume = volume;
    } else if (set && name == audio::kMuted) {
      if (!std::holds_alternative<bool>(value)) return "muted takes a bool";
      asked->muted = std::get<bool>(value);
    } else if (play && name == audio::kUri) {
      if (!std::holds_alternative<std::string>(value)) return "uri takes a text";
      const std::string& uri = std::get<std::string>(value);
      if (uri.empty() || uri.size() > audio::kMaxUriLength)
        return "uri must have 1 to 2048 bytes";
      asked->uri = uri;
    } else if (seek && name == audio::kPosition) {
      if (!std::holds_alternative<int64_t>(value)) return "position takes an int (seconds)";
      const int64_t position = std::get<int64_t>(value);
      if (position < 0 || position > kMaxSeconds)
        return "position " + std::to_string(position) + " is out of range 0.." +
               std::to_string(kMaxSeconds);
      asked->position = position;
    } else {
      return "unknown property " + name + " for " + operation + " (" + takes + ")";
    }
  }
  if (set && !asked->volume && !asked->muted) return "nothing to set (volume, muted)";
  if (seek && !asked->position) return "seek needs position (seconds)";
  return "";
}

// A list named `name`: the device's id and `state` (the whole state, or what watchers are told).
hxf_property_list_h StateList(const std::string& name, const Device& device,
                              const AudioState& state) {
  hxf_property_list_h list = hxf_property_list_create(hxf_plugin_kit::View(name));
  Push(list, audio::kDeviceId, device.endpoint.id);
  if (state.volume) Push(list, audio::kVolume, *state.volume);
  if (state.muted) Push(list, audio::kMuted, *state.muted);
  if (state.transport_state) Push(list, audio::kTransportState, *state.transport_state);
  if (state.uri) Push(list, audio::kUri, *state.uri);
  if (state.title) Push(list, audio::kTitle, *state.title);
  if (state.position) Push(list, audio::kPosition, *state.position);
  if (state.duration) Push(list, audio::kDuration, *state.duration);
  return list;
}

// What watchers are told of: the state but its running clock, which only answers carry.
AudioState Notified(AudioState state) {
  state.position.reset();
  return state;
}

}  // namespace

// ---- the readers ----

std::optional<int64_t> ParseTime(const std::string& text) {
  // H+:MM:SS, then optionally .F+ or .F0/F1 (fractions, ignored).
  const size_t first = text.find(':');
  if (first == std::string::npos || first == 0 || first > 6 || text.size() < first + 6 ||
      text[first + 3] != ':')
    return std::nullopt;
  const auto hours = Whole(text.substr(0, first), 0, 999999);
  const auto minutes = Whole(text.substr(first + 1, 2), 0, 59);
  const auto seconds = Whole(text.substr(first + 4, 2), 0, 59);
  if (!hours || !minutes || !seconds) return std::nullopt;
  const std::string rest = text.substr(first + 6);
  if (!rest.empty()) {
    if (rest[0] != '.' || rest.size() < 2 || rest.size() > 20) return std::nullopt;
    for (size_t i = 1; i < rest.size(); ++i) {
      if (!std::isdigit(static_cast<unsigned char>(rest[i])) && rest[i] != '/')
        return std::nullopt;
    }
  }
  return *hours * 3600 + *minutes * 60 + *seconds;
}

std::string FormatTime(int64_t seconds) {
  char text[32];
  snprintf(text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
           static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
  return text;
}

std::optional<std::string> TitleOf(const std::string& didl) {
  if (didl.empty() || didl == "NOT_IMPLEMENTED") return std::nullopt;
  std::string problem;
  const Doc doc = ParseXml(didl, &problem);
  if (doc == nullptr) return std::nullopt;
  // Depth-first, bounded by ParseXml's depth check.
  std::vector<xmlNode*> todo{xmlDocGetRootElement(doc.get())};
  while (!todo.empty()) {
    xmlNode* node = todo.back();
    todo.pop_back();
    if (Name(node) == "title") {
      xmlChar* content = xmlNodeGetContent(node);
      std::string title = content != nullptr ? reinterpret_cast<const char*>(content) : "";
      xmlFree(content);
      if (title.empty() || title.size() > audio::kMaxUriLength) return std::nullopt;
      return title;
    }
    for (xmlNode* child = node->last; child != nullptr; child = child->prev) {
      if (child->type == XML_ELEMENT_NODE) todo.push_back(child);
    }
  }
  return std::nullopt;
}

bool ApplyLastChange(const std::string& xml, AudioState* state, std::string* problem) {
  const Doc doc = ParseXml(xml, problem);
  if (doc == nullptr) return false;
  xmlNode* event = xmlDocGetRootElement(doc.get());
  if (Name(event) != "Event") {
    *problem = "the root element is " + Name(event) + ", not Event";
    return false;
  }
  std::string skipped;
  for (xmlNode* instance = event->children; instance != nullptr; instance = instance->next) {
    if (instance->type != XML_ELEMENT_NODE || Name(instance) != "InstanceID" ||
        Attribute(instance, "val") != std::optional<std::string>("0"))
      continue;
    for (xmlNode* variable = instance->children; variable != nullptr; variable = variable->next) {
      if (variable->type != XML_ELEMENT_NODE) continue;
      const auto channel = Attribute(variable, "channel");
      const auto value = Attribute(variable, "val");
      if (!value || (channel && *channel != "Master")) continue;
      std::string why;
      if (!ApplyVariable(Name(variable), *value, state, &why))
        skipped += (skipped.empty() ? "" : "; ") + why;
    }
  }
  *problem = skipped;
  return true;
}

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
                      size_t next, AudioDone done) {
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
       [this, udn, steps, next, done](GUPnPServiceProxyAction* action, const GError* error) {
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
         if (current.read && !current.read(action, &again->second.renderer.state, &read_error)) {
           done(failed, read_error);
           g_clear_error(&read_error);
           return;
         }
         RunAudio(udn, steps, next + 1, done);
       });
}

void Plugin::RunAndTell(const std::string& udn, std::vector<AudioStep> steps, AudioDone done) {
  AppendReads(&steps);
  RunAudio(udn, std::make_shared<const std::vector<AudioStep>>(std::move(steps)), 0,
           [this, udn, done](const std::string& failed, const GError* error) {
             const auto found = devices_.find(udn);
             if (found != devices_.end()) NotifyAudio(found->second);
             done(failed, error);
           });
}

void Plugin::AudioRequest(const std::string& operation, hxf_transaction_h transaction,
                          hxf_property_list_h request, Device* device) {
  bool known = false;
  for (const char* name : audio::kOperations) known = known || operation == name;
  if (!known) {
    Answer(kAudio, transaction,
           ErrorList(operation, "unknown operation " + operation + " (" + audio::kOperationList +
                                    ")"),
           HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  Asked asked;
  const std::string problem = CheckRequest(operation, request, &asked);
  if (!problem.empty()) {  // refused before any SOAP call
    Answer(kAudio, transaction, ErrorList(operation, problem), HXF_ERROR_INVALID_PARAMETER);
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
  RunAndTell(udn, std::move(steps),
             [this, operation, transaction, udn](const std::string& failed, const GError* error) {
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
                      StateList(operation, answered->second, answered->second.renderer.state),
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
  RunAndTell(udn, {}, [this, udn](const std::string& failed, const GError* error) {
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
    device.evented = true;
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
