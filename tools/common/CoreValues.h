// The core's endpoints and property lists as plain values, copied out of a callback so that
// no handle outlives it. Shared by the hxf tool and the hxfd daemon.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hxf_core.h"

namespace hxf_tool {

struct Device {
  std::string service, id, name, interface_name, interface_type, address, ui_meta;
};

// A property as the core delivered it: bool, 64-bit integer, double or text, kept exactly.
struct PropertyValue {
  std::string name;
  nlohmann::json value;
};

std::string Copy(hxf_string text);
Device ReadDevice(hxf_endpoint_h endpoint);
std::vector<PropertyValue> ReadProperties(hxf_property_list_h list);
// A new list named `name` holding `properties`, each with its own type; the caller
// destroys it.
hxf_property_list_h MakeList(const std::string& name, const std::vector<PropertyValue>& properties);
// Whether the provider marked the device as gone ("left") or new ("arrived") in its UI meta
// data, as a listen reports it (Presence.h).
bool IsDeparture(const Device& device);
bool IsArrival(const Device& device);

// The name of a core error code ("HXF_ERROR_TIMED_OUT"), as the common library gives it; null
// for a number that is no code (a plugin may pass any number through).
const char* CodeName(int code);
// Every number below this may be an error code: hxf_error_e's values fit in four bits, and
// only those may be made into one in C++.
constexpr int kCodeRange = 16;

// The platform log priority that `level` shows from: debug every line, info, error; empty
// none.
int LogThreshold(const std::string& level);
// Whether a log line is shown: the core's own lines from the threshold up; a plugin's error
// lines always, so that a failed load says why.
bool ShowLogLine(int priority, const char* tag, int threshold);
// A log line as hxf and hxfd show it, without a newline: "12:34:56.789 E HXF_FW: text", the
// local time `when` to the millisecond, the priority's letter (V D I W E F) and the tag.
std::string LogLine(int priority, const char* tag, const char* text,
                    std::chrono::system_clock::time_point when);

}  // namespace hxf_tool
