// The event types of hxfd's monitor, spelt once for hxfd, `hxf monitor --type`, the completion
// and the docs. Header-only: hxf's command-line reader takes it without the core.
#pragma once

#include <cstddef>

namespace hxf_tool {

// What hxfd's org.hxf.Monitor1 Event signal reports, and what `hxf monitor --type` selects.
enum class MonitorType { kSearch, kFound, kLost, kRequest, kResult, kNotification, kPlugin, kClientGone };
inline constexpr const char* kMonitorTypes[] = {"search", "found",        "lost",   "request",
                                                "result", "notification", "plugin", "client-gone"};
static_assert(sizeof kMonitorTypes / sizeof *kMonitorTypes ==
              static_cast<size_t>(MonitorType::kClientGone) + 1);
constexpr const char* Name(MonitorType type) {
  return kMonitorTypes[static_cast<size_t>(type)];
}

}  // namespace hxf_tool
