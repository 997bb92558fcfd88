// The departure mark: the core reports every discovery as "found", so a device that comes or
// goes while someone listens travels with its UI meta data wrapped as
// {"presence":"arrived"|"left","device":META}. Written by the plugins (plugins/kit), read by hxf
// and hxfd; spelt only here. Header-only, so that a plugin takes it without the tools' libraries.
#pragma once

#include <string>

namespace hxf_tool {

constexpr const char* kPresenceKey = "presence";
constexpr const char* kPresenceArrived = "arrived";
constexpr const char* kPresenceLeft = "left";

// `meta` marked with `presence` (kPresenceArrived or kPresenceLeft); null leaves it as it is.
inline std::string MarkPresence(const std::string& meta, const char* presence) {
  if (presence == nullptr) return meta;
  return std::string("{\"") + kPresenceKey + "\":\"" + presence +
         "\",\"device\":" + (meta.empty() ? "{}" : meta) + "}";
}

// Whether `ui_meta` carries the mark `presence`. Only the wrapper counts: it is always written
// first, so a provider's own meta data saying "presence" somewhere inside is no mark.
inline bool HasPresence(const std::string& ui_meta, const char* presence) {
  const std::string mark = std::string("{\"") + kPresenceKey + "\":\"" + presence + "\",";
  return ui_meta.compare(0, mark.size(), mark) == 0;
}

}  // namespace hxf_tool
