// Which provider reported a device, and how to reach that provider alone. A session is opened
// on one handler of its service, so with two plugins offering "lights" a request would reach
// whichever subscribed first. Hence the convention the plugin kit and the tools share: a
// provider's handler subscribes to its service S and to "S@PROVIDER" (PROVIDER being the
// plugin's name), and every endpoint it reports carries {"provider":"PROVIDER",...} first in its
// UI meta data (inside the departure mark's "device" too, Presence.h). A consumer subscribes to
// "S@PROVIDER" to request a device of that provider; searches, listens and device lists stay on
// S. Header-only, so that a plugin takes it without the tools' libraries.
#pragma once

#include <string>

#include "Presence.h"

namespace hxf_tool {

constexpr const char* kProviderKey = "provider";
constexpr char kProviderSeparator = '@';

// "S@PROVIDER": the name only `provider`'s handler of `service` subscribes to.
inline std::string ProviderService(const std::string& service, const std::string& provider) {
  return service + kProviderSeparator + provider;
}

// The service part of a name that may be "S@PROVIDER".
inline std::string BaseService(const std::string& name) {
  return name.substr(0, name.find(kProviderSeparator));
}

// `meta` with "provider" written first: an empty meta becomes {"provider":"P"}; a meta that is
// no JSON object is left as it is (its device then has no provider the tools can read).
inline std::string WithProvider(const std::string& meta, const std::string& provider) {
  const std::string entry = std::string("\"") + kProviderKey + "\":\"" + provider + "\"";
  if (meta.empty()) return "{" + entry + "}";
  if (meta[0] != '{') return meta;
  const size_t next = meta.find_first_not_of(" \t\r\n", 1);
  const bool empty_object = next != std::string::npos && meta[next] == '}';
  return "{" + entry + (empty_object ? "" : ",") + meta.substr(1);
}

// The provider `ui_meta` names, or empty. Only where the kit writes it counts: first in the
// meta data, or first in the departure mark's "device".
inline std::string ProviderOf(const std::string& ui_meta) {
  size_t at = 0;
  for (const char* presence : {kPresenceArrived, kPresenceLeft}) {
    if (HasPresence(ui_meta, presence)) {
      const std::string wrapper =
          std::string("{\"") + kPresenceKey + "\":\"" + presence + "\",\"device\":";
      at = wrapper.size();
    }
  }
  const std::string start = std::string("{\"") + kProviderKey + "\":\"";
  if (ui_meta.compare(at, start.size(), start) != 0) return "";
  const size_t begin = at + start.size();
  const size_t end = ui_meta.find('"', begin);
  return end == std::string::npos ? "" : ui_meta.substr(begin, end - begin);
}

}  // namespace hxf_tool
