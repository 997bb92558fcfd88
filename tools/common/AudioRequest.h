// The "audio" service's requests checked and its answers built, once for every provider of it
// (the simulator's speakers, the UPnP plugin's media renderers): one table of what each
// operation takes, one set of refusal texts, and one order of the answer's properties, so that
// a consumer reads the same words whichever plugin answers. Header only, on the plugin kit
// (each plugin keeps its own copy and exports nothing more).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "AudioVocabulary.h"
#include "PluginKit.h"

namespace hxf_tool {
namespace audio {

// The longest position a seek takes: "99:59:59", the longest AVTransport time written here.
inline constexpr int64_t kMaxPosition = 99 * 3600 + 59 * 60 + 59;

// What a request names besides device_id, each checked (CheckRequest).
struct Request {
  std::optional<int64_t> volume, position;  // position in seconds
  std::optional<bool> muted;
  std::optional<std::string> uri;
};

// What an operation takes besides device_id, as the refusals name it.
inline const char* Takes(const std::string& operation) {
  if (operation == kSet) return "volume, muted";
  if (operation == kPlay) return "uri";
  if (operation == kSeek) return "position";
  return "none";
}

// What a device cannot do in its transport state, worded alike by every provider.
inline std::string NotNow(const std::string& operation, const std::string& transport_state) {
  return "cannot " + operation + " while " + transport_state;
}
// A play without uri while no media is loaded (no uri known, whatever the transport state
// says): refused before anything reaches the device, since renderers differ there (one
// answers an error code of its own, another sits in "transitioning").
inline std::string NothingToPlay() { return "no media is loaded (play takes uri)"; }

inline bool KnownOperation(const std::string& operation) {
  for (const char* name : kOperations) {
    if (operation == name) return true;
  }
  return false;
}

// Empty when `operation` is one of the vocabulary's and every property of `request` but
// device_id is one it takes, of its type and in its range (then filled into `asked`); else
// the refusal, to be answered with HXF_ERROR_INVALID_PARAMETER before anything reaches the
// device. Whether the device can do it now (a pause with nothing loaded, a seek past the end)
// is the device's to say.
inline std::string CheckRequest(const std::string& operation, hxf_property_list_h request,
                                Request* asked) {
  if (!KnownOperation(operation))
    return "unknown operation " + operation + " (" + kOperationList + ")";
  const bool set = operation == kSet;
  const bool play = operation == kPlay;
  const bool seek = operation == kSeek;
  for (hxf_property_h p = hxf_property_list_get_first(request); p != nullptr;
       p = hxf_property_list_get_next(request, p)) {
    const std::string name = hxf_property_get_name(p);
    hxf_plugin_kit::Value value;
    if (name == kDeviceId) continue;
    if (!hxf_plugin_kit::ReadProperty(p, &value)) return "unreadable value for " + name;
    if (set && name == kVolume) {
      if (!std::holds_alternative<int64_t>(value)) return "volume takes an int";
      const int64_t volume = std::get<int64_t>(value);
      if (volume < kMinVolume || volume > kMaxVolume)
        return "volume " + std::to_string(volume) + " is out of range 0..100";
      asked->volume = volume;
    } else if (set && name == kMuted) {
      if (!std::holds_alternative<bool>(value)) return "muted takes a bool";
      asked->muted = std::get<bool>(value);
    } else if (play && name == kUri) {
      if (!std::holds_alternative<std::string>(value)) return "uri takes a text";
      const std::string& uri = std::get<std::string>(value);
      if (uri.empty() || uri.size() > kMaxUriLength) return "uri must have 1 to 2048 bytes";
      asked->uri = uri;
    } else if (seek && name == kPosition) {
      if (!std::holds_alternative<int64_t>(value)) return "position takes an int (seconds)";
      const int64_t position = std::get<int64_t>(value);
      if (position < 0 || position > kMaxPosition)
        return "position " + std::to_string(position) + " is out of range 0.." +
               std::to_string(kMaxPosition);
      asked->position = position;
    } else {
      return "unknown property " + name + " for " + operation + " (" + Takes(operation) + ")";
    }
  }
  if (set && !asked->volume && !asked->muted) return "nothing to set (volume, muted)";
  if (seek && !asked->position) return "seek needs position (seconds)";
  return "";
}

// A list named `name` (the operation, or kState): device_id, then each of the state's
// properties it knows, in the vocabulary's order. `State` has the optional members volume,
// muted, transport_state, uri, title, position and duration.
template <typename State>
hxf_property_list_h StateList(const std::string& name, const std::string& device_id,
                              const State& state) {
  using hxf_plugin_kit::Push;
  hxf_property_list_h list = hxf_property_list_create(hxf_plugin_kit::View(name));
  Push(list, kDeviceId, device_id);
  if (state.volume) Push(list, kVolume, *state.volume);
  if (state.muted) Push(list, kMuted, *state.muted);
  if (state.transport_state) Push(list, kTransportState, *state.transport_state);
  if (state.uri) Push(list, kUri, *state.uri);
  if (state.title) Push(list, kTitle, *state.title);
  if (state.position) Push(list, kPosition, *state.position);
  if (state.duration) Push(list, kDuration, *state.duration);
  return list;
}

}  // namespace audio
}  // namespace hxf_tool
