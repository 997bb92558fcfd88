// The "audio" service's words, spelt once for every provider of it (the simulator's speakers,
// the UPnP plugin's media renderers) and for PLUGINS.md, which lists them: a consumer sends
// the same operations and reads the same properties whichever plugin answers.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace hxf_tool {
namespace audio {

inline constexpr const char* kService = "audio";

// Operations (the request's list name). Each answers the device's state after it, under the
// operation's name; "state" is the name of the notifications.
inline constexpr const char* kGet = "get";
inline constexpr const char* kSet = "set";      // volume, muted
inline constexpr const char* kPlay = "play";    // uri (optional): load it first, then play
inline constexpr const char* kPause = "pause";
inline constexpr const char* kStop = "stop";
inline constexpr const char* kSeek = "seek";    // position (required)
inline constexpr const char* kState = "state";
inline constexpr const char* kOperations[] = {kGet, kSet, kPlay, kPause, kStop, kSeek};
inline constexpr const char* kOperationList = "get, set, play, pause, stop or seek";

// Properties. volume and muted are set by "set"; the others are read only and change through
// the operations (and on the device's own).
inline constexpr const char* kDeviceId = "device_id";
inline constexpr const char* kVolume = "volume";                  // int, kMinVolume..kMaxVolume
inline constexpr const char* kMuted = "muted";                    // bool
inline constexpr const char* kTransportState = "transport_state";  // text, kTransportStates
inline constexpr const char* kUri = "uri";                        // text, the media loaded
inline constexpr const char* kTitle = "title";                    // text, where the media says it
inline constexpr const char* kPosition = "position";              // int, seconds into the media
inline constexpr const char* kDuration = "duration";              // int, seconds
inline constexpr int64_t kMinVolume = 0;
inline constexpr int64_t kMaxVolume = 100;
inline constexpr size_t kMaxUriLength = 2048;
inline constexpr const char* kProperties[] = {kVolume,   kMuted,    kTransportState, kUri,
                                              kTitle,    kPosition, kDuration};

// One of the properties above.
inline bool IsWord(const std::string& name) {
  for (const char* word : kProperties) {
    if (name == word) return true;
  }
  return false;
}
// Taken by "set"; the others are read only.
inline bool Settable(const std::string& name) { return name == kVolume || name == kMuted; }
// A time in whole seconds.
inline bool InSeconds(const std::string& name) { return name == kPosition || name == kDuration; }

// The transport states a consumer sees, with the UPnP AVTransport state each stands for.
struct TransportState {
  const char* name;
  const char* upnp;
};
inline constexpr TransportState kTransportStates[] = {
    {"stopped", "STOPPED"},
    {"playing", "PLAYING"},
    {"paused", "PAUSED_PLAYBACK"},
    {"transitioning", "TRANSITIONING"},
    {"no_media", "NO_MEDIA_PRESENT"}};

// The consumer's name of an AVTransport state, or null for one this service does not know.
inline const char* TransportStateName(const char* upnp) {
  for (const TransportState& state : kTransportStates) {
    if (std::strcmp(state.upnp, upnp) == 0) return state.name;
  }
  return nullptr;
}

}  // namespace audio
}  // namespace hxf_tool
