// Fuzzes the UPnP plugin's readers of what media renderers send (plugins/upnp/
// UpnpAudioReaders.h): the input is a LastChange event, a DIDL-Lite text and a time at once,
// and, after its first byte, a value of the state variable that byte names. Whatever comes,
// each reader returns and keeps its promises: an event refused whole says why and leaves the
// state as it was; a state read holds only values in range (a volume 0..100, a known transport
// state, a URI and a title of 1 to 2048 bytes, times of at most 999999:59:59); a time read
// writes out as a time that reads back the same.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "AudioVocabulary.h"
#include "UpnpAudioReaders.h"

namespace {

namespace audio = hxf_tool::audio;
using hxf_upnp::AudioState;

constexpr int64_t kMaxTime = int64_t{999999} * 3600 + 59 * 60 + 59;

void Check(bool condition) {
  if (!condition) std::abort();
}

void CheckText(const std::optional<std::string>& text) {
  if (text) Check(!text->empty() && text->size() <= audio::kMaxUriLength);
}

void CheckState(const AudioState& state) {
  if (state.volume) Check(*state.volume >= audio::kMinVolume && *state.volume <= audio::kMaxVolume);
  if (state.transport_state) {
    bool known = false;
    for (const audio::TransportState& name : audio::kTransportStates)
      known = known || *state.transport_state == name.name;
    Check(known);
  }
  CheckText(state.uri);
  CheckText(state.title);
  for (const auto& time : {state.position, state.duration})
    if (time) Check(*time >= 0 && *time <= kMaxTime);
}

// A state with every field set, so that the resets are reached too.
AudioState Full() {
  AudioState state;
  state.volume = 50;
  state.muted = true;
  state.transport_state = "playing";
  state.uri = "http://renderer/a.mp3";
  state.title = "A";
  state.position = 1;
  state.duration = 2;
  return state;
}

void Event(const std::string& xml) {
  for (const AudioState& before : {AudioState{}, Full()}) {
    AudioState state = before;
    std::string problem;
    if (hxf_upnp::ApplyLastChange(xml, &state, &problem)) {
      CheckState(state);
    } else {
      Check(!problem.empty());
      Check(state == before);
    }
  }
}

// `text` as an XML attribute value.
std::string Escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

constexpr const char* kVariables[] = {
    "Volume", "Mute", "TransportState", "AVTransportURI", "AVTransportURIMetaData",
    "CurrentTrackMetaData", "CurrentMediaDuration", "CurrentTrackDuration",
    "RelativeTimePosition", "VolumeDB"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);

  // The whole input as an event, a DIDL-Lite text and a time.
  Event(input);
  const auto title = hxf_upnp::TitleOf(input);
  CheckText(title);
  if (title) Check(input.size() <= hxf_upnp::kMaxEventBytes);
  const auto time = hxf_upnp::ParseTime(input);
  if (time) {
    Check(*time >= 0 && *time <= kMaxTime);
    Check(hxf_upnp::ParseTime(hxf_upnp::FormatTime(*time)) == time);
  }

  if (size == 0) return 0;
  // A variable the first byte names, the rest its value: applied alone, and inside an event
  // of instance 0 on the Master channel.
  const char* name = kVariables[data[0] % (sizeof kVariables / sizeof kVariables[0])];
  const std::string value = input.substr(1);
  AudioState state = Full();
  std::string problem;
  if (!hxf_upnp::ApplyVariable(name, value, &state, &problem)) {
    Check(problem.rfind(std::string(name) + " \"", 0) == 0);
    state = Full();
  }
  CheckState(state);
  Event("<Event><InstanceID val=\"0\"><" + std::string(name) + " channel=\"Master\" val=\"" +
        Escaped(value) + "\"/></InstanceID></Event>");

  // Any number of seconds in range, written and read back.
  if (size >= 8) {
    uint64_t bits = 0;
    std::memcpy(&bits, data, sizeof bits);
    const int64_t seconds = static_cast<int64_t>(bits % static_cast<uint64_t>(kMaxTime + 1));
    Check(hxf_upnp::ParseTime(hxf_upnp::FormatTime(seconds)) == seconds);
  }
  return 0;
}
