// A device's fields, spelt once for hxf, hxfd and the docs (the other shared words: the error
// names in BusValues.h, the monitor's event types in MonitorTypes.h, the departure mark in
// Presence.h). tests/tool/VocabularyTest.cpp checks the docs and the completion against them.
#pragma once

#include <string>

#include "CoreValues.h"

namespace hxf_tool {

// A device's fields, with the same keys in a D-Bus a{sv} and in hxf's JSON, in the order D-Bus
// carries them. The name is device_name everywhere (hxf's JSON said "name" before).
struct DeviceField {
  const char* key;
  std::string Device::*member;
};
inline constexpr DeviceField kDeviceFields[] = {
    {"device_id", &Device::id},
    {"device_name", &Device::name},
    {"address", &Device::address},
    {"interface_name", &Device::interface_name},
    {"interface_type", &Device::interface_type},
    {"ui_meta", &Device::ui_meta},
    {"service", &Device::service}};

}  // namespace hxf_tool
