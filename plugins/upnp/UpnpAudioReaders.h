// The readers of what UPnP media renderers send (GENA LastChange events, DIDL-Lite metadata,
// AVTransport times), each bounded: everything here comes from the network and is checked, a
// value out of range or of an unknown form is refused, never taken. They touch nothing but
// their arguments and need only libxml2 and the audio words (AudioVocabulary.h), so the unit
// tests and the fuzzer run them without GUPnP or a network.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

namespace hxf_upnp {

// A renderer's state as last read or told (instance 0, the Master channel).
struct AudioState {
  std::optional<int64_t> volume;               // 0..100
  std::optional<bool> muted;
  std::optional<std::string> transport_state;  // the consumer's name (AudioVocabulary.h)
  std::optional<std::string> uri, title;
  std::optional<int64_t> position, duration;   // seconds

  bool operator==(const AudioState& other) const {
    return std::tie(volume, muted, transport_state, uri, title, position, duration) ==
           std::tie(other.volume, other.muted, other.transport_state, other.uri, other.title,
                    other.position, other.duration);
  }
  bool operator!=(const AudioState& other) const { return !(*this == other); }
};

// Bounds on what a renderer sends.
constexpr size_t kMaxEventBytes = 64 * 1024;  // a LastChange event, a DIDL-Lite text
constexpr int kMaxXmlDepth = 8;               // elements nested deeper are refused

// Applies a LastChange event (the XML text inside the GENA property) of instance 0 to
// `state`. False, with the reason in `problem`, for a text too long, too deep or not XML;
// a variable with a bad value is skipped and named in `problem`, the others are applied.
bool ApplyLastChange(const std::string& xml, AudioState* state, std::string* problem);
// One state variable of a renderer (as a LastChange event or an action's output names it),
// checked and applied; false with the reason for a value this plugin refuses. Variables it
// does not follow are ignored.
bool ApplyVariable(const std::string& name, const std::string& value, AudioState* state,
                   std::string* problem);
// "H:MM:SS" or "H:MM:SS.F..." (AVTransport's times) in whole seconds; nullopt otherwise
// (also for "NOT_IMPLEMENTED").
std::optional<int64_t> ParseTime(const std::string& text);
// Seconds as "H:MM:SS", for Seek.
std::string FormatTime(int64_t seconds);
// The dc:title of a DIDL-Lite text; nullopt when it has none or is refused.
std::optional<std::string> TitleOf(const std::string& didl);

}  // namespace hxf_upnp
