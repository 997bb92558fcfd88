// What every provider plugin of this repository needs around the C API: typed values in and
// out of property lists, endpoints, and the way a departure is reported. Header only: each
// plugin keeps its own copy, so that it exports nothing but its two entry points.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "CLocks.h"    // common/include_internal: locks clang's -Wthread-safety checks
#include "Presence.h"  // tools/common: the departure mark hxf and hxfd read
#include "Provider.h"  // tools/common: "S@PROVIDER" and the provider in the UI meta data
#include "hxf_core.h"

namespace hxf_plugin_kit {

using Value = std::variant<bool, int64_t, double, std::string>;

inline hxf_string View(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}
inline std::string Copy(hxf_string text) {
  return text.str != nullptr ? std::string(text.str, text.len) : std::string();
}
// The service a callback names, "S" also when a consumer used "S@PROVIDER".
inline std::string CopyService(hxf_string name) {
  return hxf_tool::BaseService(Copy(name));
}

inline hxf_property_h MakeProperty(const std::string& name, const Value& value) {
  return std::visit(
      [&](const auto& v) -> hxf_property_h {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, bool>) return hxf_property_create_bool(View(name), v);
        if constexpr (std::is_same_v<T, int64_t>) return hxf_property_create_int(View(name), v);
        if constexpr (std::is_same_v<T, double>) return hxf_property_create_double(View(name), v);
        if constexpr (std::is_same_v<T, std::string>)
          return hxf_property_create_string(View(name), View(v));
      },
      value);
}

inline void Push(hxf_property_list_h list, const std::string& name, const Value& value) {
  hxf_property_h property = MakeProperty(name, value);
  hxf_property_list_push_property(list, property, HXF_ERROR_NONE);
  hxf_property_destroy(property);
}

// The property's value; false for a type this kit does not know.
inline bool ReadProperty(hxf_property_h property, Value* value) {
  switch (hxf_property_get_type(property)) {
    case HXF_PROPERTY_TYPE_BOOL: {
      bool v = false;
      hxf_property_get_bool(property, &v);
      *value = v;
      return true;
    }
    case HXF_PROPERTY_TYPE_INT: {
      int64_t v = 0;
      hxf_property_get_int(property, &v);
      *value = v;
      return true;
    }
    case HXF_PROPERTY_TYPE_DOUBLE: {
      double v = 0;
      hxf_property_get_double(property, &v);
      *value = v;
      return true;
    }
    case HXF_PROPERTY_TYPE_STRING: {
      const char* v = nullptr;
      uint32_t length = 0;
      hxf_property_get_string(property, &v, &length);
      *value = std::string(v, length);
      return true;
    }
    default:
      return false;
  }
}

// The text of the string property `name` of `list`, or empty.
inline std::string FindText(hxf_property_list_h list, const char* name) {
  Value value;
  hxf_property_h property = hxf_property_list_find(list, hxf_string_from_cstr(name));
  if (property != nullptr && ReadProperty(property, &value) &&
      std::holds_alternative<std::string>(value))
    return std::get<std::string>(value);
  return "";
}

// A list named `operation` holding only the text of what went wrong.
inline hxf_property_list_h ErrorList(const std::string& operation, const std::string& problem) {
  hxf_property_list_h list = hxf_property_list_create(View(operation));
  Push(list, "error", problem);
  return list;
}

// How a device appears to consumers.
struct EndpointInfo {
  std::string id, name, interface_name, interface_type, address, ui_meta;
};

// The core reports every discovery as "found": an arrival or a departure seen while listening
// travels marked in the UI meta data, `presence` being hxf_tool::kPresenceArrived or kPresenceLeft.
// The meta data names `provider` (the plugin), so that consumers can reach it alone (Provider.h).
inline hxf_endpoint_h MakeEndpoint(const std::string& provider, const std::string& service,
                                   const EndpointInfo& device, const char* presence = nullptr) {
  hxf_endpoint_h endpoint = hxf_endpoint_create(View(service));
  hxf_endpoint_set_device_id(endpoint, View(device.id));
  hxf_endpoint_set_device_name(endpoint, View(device.name));
  hxf_endpoint_set_interface_name(endpoint, View(device.interface_name));
  hxf_endpoint_set_interface_type(endpoint, View(device.interface_type));
  hxf_endpoint_set_address(endpoint, View(device.address));
  hxf_endpoint_set_ui_meta(
      endpoint,
      View(hxf_tool::MarkPresence(hxf_tool::WithProvider(device.ui_meta, provider), presence)));
  return endpoint;
}

// Reports one device to the handler's searchers or listeners.
inline void ReportFound(const std::string& provider, hxf_service_handler_h handler,
                        const std::string& service, const EndpointInfo& device,
                        const char* presence = nullptr) {
  hxf_endpoint_h endpoint = MakeEndpoint(provider, service, device, presence);
  hxf_core_service_handler_report_device_found(handler, endpoint);
  hxf_endpoint_destroy(endpoint);
}

// The callbacks a provider gives each of its handlers.
struct HandlerCallbacks {
  hxf_service_handler_search_cb search;
  hxf_service_handler_search_stop_cb search_stop;
  hxf_service_handler_get_device_list_cb device_list;
  hxf_service_handler_listen_cb listen;
  hxf_service_handler_listen_stop_cb listen_stop;
  hxf_service_handler_add_device_cb add_device;
  hxf_service_handler_service_session_created_cb session_created;
  hxf_service_handler_set_request_service_cb request;
};

// Creates the handler `name`, gives it `callbacks` with `self` as their user data and
// subscribes it to `service` and to "service@provider", where requests for the devices this
// provider reported reach it alone. Null when the core refuses to create it.
inline hxf_service_handler_h CreateHandler(const std::string& provider, const std::string& name,
                                           const std::string& service,
                                           const HandlerCallbacks& callbacks, void* self) {
  hxf_service_handler_h handler = hxf_core_service_handler_create(View(name), self);
  if (handler == nullptr) return nullptr;
  hxf_core_service_handler_set_search_callback(handler, callbacks.search, self);
  hxf_core_service_handler_set_search_stop_callback(handler, callbacks.search_stop, self);
  hxf_core_service_handler_set_get_device_list_callback(handler, callbacks.device_list, self);
  hxf_core_service_handler_set_listen_callback(handler, callbacks.listen, self);
  hxf_core_service_handler_set_listen_stop_callback(handler, callbacks.listen_stop, self);
  hxf_core_service_handler_set_add_device_callback(handler, callbacks.add_device, self);
  hxf_core_service_handler_set_service_session_created_callback(handler, callbacks.session_created,
                                                                self);
  hxf_core_service_handler_set_request_service_callback(handler, callbacks.request, self);
  hxf_core_service_handler_subscribe_service(handler, View(service));
  hxf_core_service_handler_subscribe_service(
      handler, View(hxf_tool::ProviderService(service, provider)));
  return handler;
}

// The handlers a plugin made, each with the service it subscribed to.
using Handlers = std::vector<std::pair<std::string, hxf_service_handler_h>>;

// Unsubscribes and destroys `handlers`, and waits (at most `wait`) until the core has run the
// destroyed callback of each: that callback comes after a handler's last one, so from then on
// no core thread is in the plugin's code. False when the wait ran out.
// A destroyed handler stays in its service as an expired entry, and the service may pick
// that entry for the next session (after the plugin is loaded again, say): hence the
// unsubscribe, which ends the service until something names it again.
inline bool DestroyHandlers(const std::string& provider, const Handlers& handlers,
                            std::chrono::milliseconds wait) {
  struct Countdown {
    HXFramework::CMutex mutex;  // the core's thread counts down, the caller waits
    std::condition_variable done;
    size_t left HXF_GUARDED_BY(mutex) = 0;
  };
  // On the heap: a callback that comes after a wait that ran out must still find it (then
  // it is left behind on purpose).
  auto* countdown = new Countdown;
  const auto destroyed = [](hxf_service_handler_h, void* user_data) {
    auto* c = static_cast<Countdown*>(user_data);
    HXFramework::CMutexLock lock(c->mutex);
    --c->left;
    c->done.notify_all();
  };
  for (const auto& [service, handler] : handlers) {
    hxf_core_service_handler_unsubscribe_service(handler, View(service));
    hxf_core_service_handler_unsubscribe_service(
        handler, View(hxf_tool::ProviderService(service, provider)));
    HXFramework::CMutexLock lock(countdown->mutex);
    if (hxf_core_service_handler_destroy_async(handler, destroyed, countdown) == HXF_ERROR_NONE)
      ++countdown->left;
  }
  bool all = false;
  {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    HXFramework::CMutexLock lock(countdown->mutex);
    while (countdown->left != 0 &&
           countdown->done.wait_until(lock.Native(), deadline) == std::cv_status::no_timeout) {
    }
    all = countdown->left == 0;
  }
  if (all) delete countdown;
  return all;
}

// The plugin object behind CreatePlugin and DestroyPlugin, which the core calls in turn and
// never at once. A plain pointer, not a static object: a host that exits without unloading
// the plugin must not run a destructor that meets a plugin thread still running.
template <typename Plugin>
class Entry {
 public:
  static bool Create() {
    if (instance_ != nullptr) return false;
    instance_ = new Plugin;
    instance_->Start();  // returns at once; the plugin reports its load result when ready
    return true;
  }
  static bool Destroy() {
    if (instance_ == nullptr) return false;
    instance_->Stop();  // returns once no plugin code runs again
    delete instance_;
    instance_ = nullptr;
    return true;
  }

 private:
  static inline Plugin* instance_ = nullptr;
};

}  // namespace hxf_plugin_kit
