// The "audio" service on UPnP media renderers (MediaRenderer:1 and later, with
// RenderingControl and AVTransport): what the plugin knows of a renderer, and the readers of
// what renderers send, each bounded. Everything here comes from the network and is checked:
// a value out of range or of an unknown form is refused, never taken.
#pragma once

#include <libgupnp/gupnp.h>

#include <cstdint>
#include <functional>
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

// A media renderer's two services (owned references) and what is known of it.
struct Renderer {
  GUPnPServiceProxy* rendering = nullptr;  // RenderingControl
  GUPnPServiceProxy* transport = nullptr;  // AVTransport
  AudioState state;
  // What watchers were told last (without the position), once they have been told.
  std::optional<AudioState> told;
};
// Fills `renderer` when the device of `device_type` is a MediaRenderer with both services.
void FindRenderer(GUPnPDeviceInfo* info, const std::string& device_type, Renderer* renderer);
void ReleaseRenderer(Renderer* renderer);

// One SOAP action of a sequence on a renderer: on its AVTransport (`transport`) or its
// RenderingControl, made when its turn comes, and its result read into the state (null:
// nothing to read but the success).
struct AudioStep {
  bool transport;
  const char* name;
  std::function<GUPnPServiceProxyAction*()> make;
  std::function<bool(GUPnPServiceProxyAction*, AudioState*, GError**)> read;
};

// Bounds on what a renderer sends.
constexpr size_t kMaxEventBytes = 64 * 1024;  // a LastChange event, a DIDL-Lite text
constexpr int kMaxXmlDepth = 8;               // elements nested deeper are refused

// Applies a LastChange event (the XML text inside the GENA property) of instance 0 to
// `state`. False, with the reason in `problem`, for a text too long, too deep or not XML;
// a variable with a bad value is skipped and named in `problem`, the others are applied.
bool ApplyLastChange(const std::string& xml, AudioState* state, std::string* problem);
// "H:MM:SS" or "H:MM:SS.F..." (AVTransport's times) in whole seconds; nullopt otherwise
// (also for "NOT_IMPLEMENTED").
std::optional<int64_t> ParseTime(const std::string& text);
// Seconds as "H:MM:SS", for Seek.
std::string FormatTime(int64_t seconds);
// The dc:title of a DIDL-Lite text; nullopt when it has none or is refused.
std::optional<std::string> TitleOf(const std::string& didl);

}  // namespace hxf_upnp
