// The simulated home: services, devices and their typed properties with ranges.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "PluginKit.h"

namespace hxf_sim {

using hxf_plugin_kit::Value;

// A numeric property that changes on its own, as a measured value does: every `every_ms` it
// moves by `step` up or down (at random, within its range) and subscribers are notified.
struct Drift {
  double step = 0;
  uint32_t every_ms = 0;
};

struct Property {
  std::string name;
  Value value;
  std::optional<double> min;  // numeric properties only
  std::optional<double> max;
  bool read_only = false;      // "set" refuses it
  std::optional<Drift> drift;  // numeric properties only
};

enum class Response { kNormal, kSlow, kNever };

// What a speaker tells of itself: the "audio" service's properties (AudioVocabulary.h), each
// present or not, as hxf_tool::audio::StateList reads them.
struct SpeakerState {
  std::optional<int64_t> volume;
  std::optional<bool> muted;
  std::optional<std::string> transport_state, uri, title;
  std::optional<int64_t> position, duration;  // seconds

  bool operator==(const SpeakerState& other) const {
    return volume == other.volume && muted == other.muted &&
           transport_state == other.transport_state && uri == other.uri &&
           title == other.title && position == other.position && duration == other.duration;
  }
  bool operator!=(const SpeakerState& other) const { return !(*this == other); }
};

// A device of the "audio" service: instead of free properties it has the service's words
// (SimSpeaker.h carries out its operations). Media is named by its URI and never fetched:
// every media loaded lasts `media_duration` seconds and says no title.
struct Speaker {
  enum class Transport { kNoMedia, kStopped, kPlaying, kPaused };
  using Clock = std::chrono::steady_clock;

  int64_t volume = 25;           // 0..100
  bool muted = false;
  int64_t media_duration = 180;  // seconds, 1..hxf_tool::audio::kMaxPosition
  std::string uri;               // the media loaded; empty while there is none
  Transport transport = Transport::kNoMedia;
  int64_t position = 0;          // seconds; while playing, where it was at `since`
  Clock::time_point since;       // while playing: when it was at `position`
  uint64_t generation = 0;       // bumped by every change of what plays and where
  std::optional<SpeakerState> told;  // what subscribers were told last
};

// A device as consumers see it (id, name, interface, address, UI meta data as JSON text),
// the service it offers and how it behaves.
struct Device : hxf_plugin_kit::EndpointInfo {
  std::string service;
  std::vector<Property> properties;
  std::optional<Speaker> speaker;  // every device of the service "audio", and only those
  Response response = Response::kNormal;
  uint32_t response_ms = 0;      // delay of a slow device's answers
  uint32_t arrive_after_ms = 0;  // 0: present from the start; else appears while listening
  uint32_t depart_after_ms = 0;  // 0: never leaves; else leaves while listening
};

struct Model {
  uint32_t search_latency_ms = 150;  // between two devices reported by an active search
  std::vector<Device> devices;

  std::vector<std::string> Services() const;
  Device* Find(const std::string& service, const std::string& id);
  // The ids of the devices of `service`, in the model's order (those that arrive later too).
  std::vector<std::string> Ids(const std::string& service) const;
};

// The service whose devices are speakers.
inline constexpr const char* kAudioService = "audio";

// The embedded default home: three services, eight devices.
Model DefaultModel();

// Reads a model from a JSON file. On failure returns nothing and sets `error` to
// "PATH:LINE: problem", LINE being the line of the offending key or value. Refused: JSON
// errors, duplicate keys, unknown keys (the nearest known key is suggested), wrong types,
// values out of range, two devices with the same id in one service, two properties of one
// device with the same name, nesting deeper than 100 objects and arrays.
std::optional<Model> LoadModel(const std::string& path, std::string* error);
// The same for a text already read; `path` names it in the error.
std::optional<Model> ParseModel(const std::string& text, const std::string& path,
                                std::string* error);

// Moves a drifting property one step, up when `up` (down at the top of its range, and the
// other way round); the value stays a multiple of the step's decimals.
void DriftStep(Property* property, bool up);

// Checks `value` against the property's type and range; returns an empty text when it may
// be applied, else what is wrong. An integer is accepted for a double property.
std::string Validate(const Property& property, const Value& value);

std::string ToText(const Value& value);

}  // namespace hxf_sim
