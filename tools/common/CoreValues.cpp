#include "CoreValues.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "Presence.h"
#include "hxf_host_platform.h"

namespace hxf_tool {

std::string Copy(hxf_string text) {
  return text.str != nullptr ? std::string(text.str, text.len) : std::string();
}

Device ReadDevice(hxf_endpoint_h e) {
  return Device{hxf_endpoint_get_service_name(e),   hxf_endpoint_get_device_id(e),
                hxf_endpoint_get_device_name(e),    hxf_endpoint_get_interface_name(e),
                hxf_endpoint_get_interface_type(e), hxf_endpoint_get_address(e),
                hxf_endpoint_get_ui_meta(e)};
}

std::vector<PropertyValue> ReadProperties(hxf_property_list_h list) {
  std::vector<PropertyValue> properties;
  for (hxf_property_h p = hxf_property_list_get_first(list); p != nullptr;
       p = hxf_property_list_get_next(list, p)) {
    PropertyValue property{hxf_property_get_name(p), nullptr};
    switch (hxf_property_get_type(p)) {
      case HXF_PROPERTY_TYPE_BOOL: {
        bool v = false;
        hxf_property_get_bool(p, &v);
        property.value = v;
        break;
      }
      case HXF_PROPERTY_TYPE_INT: {
        int64_t v = 0;
        hxf_property_get_int(p, &v);
        property.value = v;
        break;
      }
      case HXF_PROPERTY_TYPE_DOUBLE: {
        double v = 0;
        hxf_property_get_double(p, &v);
        property.value = v;  // written back shortest-exact: it reads back as the same double
        break;
      }
      default: {
        const char* v = "";
        uint32_t length = 0;
        hxf_property_get_string(p, &v, &length);
        property.value = std::string(v, length);
      }
    }
    properties.push_back(std::move(property));
  }
  return properties;
}

hxf_property_list_h MakeList(const std::string& name,
                             const std::vector<PropertyValue>& properties) {
  const auto view = [](const std::string& text) {
    return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
  };
  hxf_property_list_h list = hxf_property_list_create(view(name));
  for (const PropertyValue& p : properties) {
    const hxf_string key = view(p.name);
    hxf_property_h property =
        p.value.is_boolean()          ? hxf_property_create_bool(key, p.value.get<bool>())
        : p.value.is_number_integer() ? hxf_property_create_int(key, p.value.get<int64_t>())
        : p.value.is_number()
            ? hxf_property_create_double(key, p.value.get<double>())
            : hxf_property_create_string(key, view(p.value.get_ref<const std::string&>()));
    hxf_property_list_push_property(list, property, HXF_ERROR_NONE);
    hxf_property_destroy(property);
  }
  return list;
}

bool IsDeparture(const Device& device) {
  return HasPresence(device.ui_meta, kPresenceLeft);
}
bool IsArrival(const Device& device) {
  return HasPresence(device.ui_meta, kPresenceArrived);
}

const char* CodeName(int code) {
  return code >= 0 && code < kCodeRange ? hxf_error_name(static_cast<hxf_error>(code)) : nullptr;
}

int LogThreshold(const std::string& level) {
  if (level == "debug") return DLOG_UNKNOWN;  // every line, whatever its priority
  if (level == "info") return DLOG_INFO;
  if (level == "error") return DLOG_ERROR;
  return DLOG_SILENT;
}

bool ShowLogLine(int priority, const char* tag, int threshold) {
  // The priority first: hxfd asks this of every line the core writes.
  if (priority >= threshold) return true;
  if (priority < DLOG_ERROR) return false;
  return std::strcmp(tag, "HXF_FW") != 0 && std::strcmp(tag, "HXF_TPL_CONTEXT") != 0;
}

std::string LogLine(int priority, const char* tag, const char* text,
                    std::chrono::system_clock::time_point when) {
  // The platform's own letters: verbose and anything unknown are V.
  const char letter = priority == DLOG_DEBUG   ? 'D'
                      : priority == DLOG_INFO  ? 'I'
                      : priority == DLOG_WARN  ? 'W'
                      : priority == DLOG_ERROR ? 'E'
                      : priority == DLOG_FATAL ? 'F'
                                               : 'V';
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch());
  const time_t seconds = static_cast<time_t>(ms.count() / 1000);
  tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%02d:%02d:%02d.%03d %c ", local.tm_hour, local.tm_min,
                local.tm_sec, static_cast<int>(ms.count() % 1000), letter);
  std::string line = std::string(stamp) + tag + ": " + text;
  if (!line.empty() && line.back() == '\n') line.pop_back();
  return line;
}

}  // namespace hxf_tool
