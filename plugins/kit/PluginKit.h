// What a C++ provider plugin needs around the C API: typed values in and out of property
// lists, endpoints, the way a departure is reported, and a provider skeleton (Provider) that
// owns the handlers and turns the core's callbacks into calls on the plugin's own thread.
// Header only: each plugin keeps its own copy, so that it exports nothing but its two entry
// points. Installed with the package as hxf::plugin-kit.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "CLocks.h"    // common/include_internal: locks clang's -Wthread-safety checks
#include "Presence.h"  // tools/common: the departure mark hxf and hxfd read
#include "Provider.h"  // tools/common: "S@PROVIDER" and the provider in the UI meta data
#include "hxf_core.h"
#include "hxf_host_platform.h"

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
// provider reported reach it alone. Null when the core refuses to create it. `created`, when
// given, gets the handler before it subscribes: the callbacks may run from then on.
inline hxf_service_handler_h CreateHandler(const std::string& provider, const std::string& name,
                                           const std::string& service,
                                           const HandlerCallbacks& callbacks, void* self,
                                           hxf_service_handler_h* created = nullptr) {
  hxf_service_handler_h handler = hxf_core_service_handler_create(View(name), self);
  if (handler == nullptr) return nullptr;
  if (created != nullptr) *created = handler;
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
  hxf_core_service_handler_subscribe_service(handler,
                                             View(hxf_tool::ProviderService(service, provider)));
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

// A property list copied out of the callback that lent it; destroyed with its last holder.
using List = std::shared_ptr<void>;
inline List CopyList(hxf_property_list_h list) {
  return List(hxf_property_list_copy(list), &hxf_property_list_destroy);
}

// What a device added by a consumer (hxf_core_service_handler_set_add_device_callback) says.
inline EndpointInfo CopyEndpoint(hxf_endpoint_h endpoint) {
  const auto text = [](const char* field) { return std::string(field != nullptr ? field : ""); };
  return {text(hxf_endpoint_get_device_id(endpoint)),
          text(hxf_endpoint_get_device_name(endpoint)),
          text(hxf_endpoint_get_interface_name(endpoint)),
          text(hxf_endpoint_get_interface_type(endpoint)),
          text(hxf_endpoint_get_address(endpoint)),
          text(hxf_endpoint_get_ui_meta(endpoint))};
}

// The record of a plugin that keeps nothing per service.
struct NoRecord {};

// The skeleton of a provider: one handler per service, and the core's callbacks for them.
//
//   class Plugin : public hxf_plugin_kit::Provider<Plugin, Record> { ... };
//
// Each service's handler has the service's entry (Service: its name, its handler and the
// plugin's Record for it) as user data, so that a callback knows its service without a lookup.
// Every callback copies what it keeps and hands the call to the plugin:
//   - Plugin::Post(Task) runs a task on the plugin's own thread, its one hand-off;
//   - Plugin::PostRequest(Task) does it for a request: Post, unless the plugin has its own (one
//     that answers on the core's thread, say);
//   - the task calls the plugin's hook with the service: OnSearch, OnSearchStop, OnListen,
//     OnListenStop, OnDeviceList (Service&), OnRequest(Service&, hxf_transaction_h, const
//     List&) and OnAddDevice(Service&, EndpointInfo). A hook the plugin does not have is the
//     kit's: it does nothing, and OnRequest refuses every operation.
// A name that is neither a service of the plugin nor "S@PROVIDER" of one (a device added to
// another service, say) is refused alike by every plugin: a log line, and nothing else happens.
// The plugin calls AddService and the helpers below where its hooks run (a service may be
// added before the load result is reported or later, once the plugin learns of it), and
// DestroyServices from Stop, once its own thread has ended.
template <typename Plugin, typename Record = NoRecord>
class Provider {
 public:
  using Task = std::function<void()>;
  struct Service {
    Provider* provider = nullptr;
    std::string name;  // S, also when the core's callback named "S@PROVIDER"
    hxf_service_handler_h handler = nullptr;
    Record record{};  // the plugin's, on its thread
  };

  // `name` is the plugin's (libhxf-plugin-NAME.so), `tag` its log tag.
  Provider(std::string name, std::string tag) : name_(std::move(name)), tag_(std::move(tag)) {}
  Provider(const Provider&) = delete;
  Provider& operator=(const Provider&) = delete;

  const std::string& Name() const { return name_; }

 protected:
  ~Provider() = default;

  // Creates the handler "NAME-S" for the service S, subscribed to S and "S@NAME". Null, with
  // a log line, when the core refuses it.
  Service* AddService(const std::string& service) {
    auto entry = std::make_unique<Service>();
    entry->provider = this;
    entry->name = service;
    hxf_service_handler_h handler =
        CreateHandler(name_, name_ + "-" + service, service,
                      {&Provider::CoreSearch, &Provider::CoreSearchStop, &Provider::CoreDeviceList,
                       &Provider::CoreListen, &Provider::CoreListenStop, &Provider::CoreAddDevice,
                       &Provider::CoreSessionCreated, &Provider::CoreRequest},
                      entry.get(), &entry->handler);
    if (handler == nullptr) {
      dlog_print(DLOG_ERROR, tag_.c_str(), "%s: cannot create a handler for %s\n", name_.c_str(),
                 service.c_str());
      return nullptr;
    }
    return services_.emplace(service, std::move(entry)).first->second.get();
  }

  // The service S; null when the plugin does not offer it.
  Service* FindService(const std::string& service) const {
    const auto found = services_.find(service);
    return found != services_.end() ? found->second.get() : nullptr;
  }
  size_t ServiceCount() const { return services_.size(); }

  void SendLoadResult(bool loaded) const {
    hxf_core_plugin_send_load_result(
        View(name_), loaded ? HXF_PLUGIN_LOAD_RESULT_SUCCESS : HXF_PLUGIN_LOAD_RESULT_FAILED);
  }

  // Unsubscribes and destroys every handler, waiting at most `wait` (DestroyHandlers); a log
  // line when the wait ran out. For Stop, after the plugin's thread has ended.
  void DestroyServices(std::chrono::milliseconds wait) {
    Handlers handlers;
    for (const auto& [name, service] : services_) handlers.emplace_back(name, service->handler);
    if (!DestroyHandlers(name_, handlers, wait))
      dlog_print(DLOG_ERROR, tag_.c_str(), "%s: handlers not destroyed in time\n", name_.c_str());
  }

  // One device found, to the service's searchers or listeners (`presence`: MakeEndpoint).
  void ReportDevice(const Service& service, const EndpointInfo& device,
                    const char* presence = nullptr) const {
    ReportFound(name_, service.handler, service.name, device, presence);
  }

  // The service's device list; false when `devices` is empty: an empty list cannot be
  // reported (the consumer's request then times out), so nothing is.
  bool ReportDeviceList(const Service& service,
                        const std::vector<const EndpointInfo*>& devices) const {
    if (devices.empty()) return false;
    hxf_endpoint_list_h list = hxf_endpoint_list_create();
    for (const EndpointInfo* device : devices) {
      hxf_endpoint_h endpoint = MakeEndpoint(name_, service.name, *device);
      hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
      hxf_endpoint_destroy(endpoint);
    }
    hxf_core_service_handler_report_device_list(service.handler, list);
    hxf_endpoint_list_destroy(list);
    return true;
  }

  // Answers `transaction` with `result`, which it destroys.
  void SendResult(const Service& service, hxf_transaction_h transaction, hxf_property_list_h result,
                  hxf_error_e error) const {
    hxf_core_service_handler_send_request_result(service.handler, View(service.name), result,
                                                 transaction, error);
    hxf_property_list_destroy(result);
  }
  // A failed result: the list `operation` holding `problem` as its "error".
  void Refuse(const Service& service, hxf_transaction_h transaction, const std::string& operation,
              const std::string& problem, hxf_error_e error) const {
    SendResult(service, transaction, ErrorList(operation, problem), error);
  }
  // An operation the service does not have; `known` lists those it has ("get or set").
  void RefuseOperation(const Service& service, hxf_transaction_h transaction,
                       const std::string& operation, const std::string& known) const {
    Refuse(service, transaction, operation, "unknown operation " + operation + " (" + known + ")",
           HXF_ERROR_INVALID_PARAMETER);
  }

  // Tells every session of the service `state`, which it destroys; no transaction: no request
  // is answered by it.
  void SendNotification(const Service& service, hxf_property_list_h state) const {
    hxf_core_service_handler_notify(service.handler, View(service.name), state, nullptr,
                                    HXF_ERROR_NONE);
    hxf_property_list_destroy(state);
  }

  // The kit's hooks, for those the plugin does not have.
  void PostRequest(Task task) { AsPlugin().Post(std::move(task)); }
  void OnSearch(Service&) {}
  void OnSearchStop(Service&) {}
  void OnListen(Service&) {}
  void OnListenStop(Service&) {}
  void OnDeviceList(Service&) {}
  void OnAddDevice(Service&, EndpointInfo) {}
  void OnRequest(Service& service, hxf_transaction_h transaction, const List& request) {
    RefuseOperation(service, transaction, hxf_property_list_get_name(request.get()), "none");
  }

 private:
  Plugin& AsPlugin() { return static_cast<Plugin&>(*this); }

  // The service a callback's `name` is, S or "S@PROVIDER"; null, with a log line, when it is
  // another. Core threads: reads only what AddService wrote before it subscribed.
  static Service* Accept(void* user_data, const std::string& name) {
    auto* service = static_cast<Service*>(user_data);
    if (hxf_tool::BaseService(name) == service->name) return service;
    const Provider& provider = *service->provider;
    dlog_print(DLOG_ERROR, provider.tag_.c_str(), "%s: no service %s here (handler of %s)\n",
               provider.name_.c_str(), name.c_str(), service->name.c_str());
    return nullptr;
  }
  // Runs `hook` on the plugin's thread with the service that `name` names.
  template <typename Hook>
  static void Hand(void* user_data, const std::string& name, Hook hook) {
    if (Service* service = Accept(user_data, name)) {
      Plugin& plugin = service->provider->AsPlugin();
      plugin.Post([&plugin, service, hook] { hook(plugin, *service); });
    }
  }

  // The core's callbacks (its threads): copy, post, return.
  static void CoreSearch(hxf_service_handler_h, hxf_string name, void* user_data) {
    Hand(user_data, Copy(name), [](Plugin& plugin, Service& service) { plugin.OnSearch(service); });
  }
  static void CoreSearchStop(hxf_service_handler_h, hxf_string name, void* user_data) {
    Hand(user_data, Copy(name),
         [](Plugin& plugin, Service& service) { plugin.OnSearchStop(service); });
  }
  static void CoreDeviceList(hxf_service_handler_h, hxf_string name, void* user_data) {
    Hand(user_data, Copy(name),
         [](Plugin& plugin, Service& service) { plugin.OnDeviceList(service); });
  }
  static void CoreListen(hxf_service_handler_h, hxf_string name, void* user_data) {
    Hand(user_data, Copy(name), [](Plugin& plugin, Service& service) { plugin.OnListen(service); });
  }
  static void CoreListenStop(hxf_service_handler_h, hxf_string name, void* user_data) {
    Hand(user_data, Copy(name),
         [](Plugin& plugin, Service& service) { plugin.OnListenStop(service); });
  }
  static void CoreAddDevice(hxf_service_handler_h, hxf_endpoint_h endpoint, void* user_data) {
    const char* service_name = hxf_endpoint_get_service_name(endpoint);
    Hand(user_data, service_name != nullptr ? service_name : "",
         [device = CopyEndpoint(endpoint)](Plugin& plugin, Service& service) {
           plugin.OnAddDevice(service, device);
         });
  }
  static void CoreSessionCreated(hxf_service_handler_h, hxf_service_session_h, void*) {}
  // A request names no service: its handler's is the one.
  static void CoreRequest(hxf_service_handler_h, hxf_transaction_h transaction,
                          hxf_property_list_h properties, void* user_data) {
    auto* service = static_cast<Service*>(user_data);
    Plugin& plugin = service->provider->AsPlugin();
    // The list is lent for this call only.
    plugin.PostRequest([&plugin, service, transaction, request = CopyList(properties)] {
      plugin.OnRequest(*service, transaction, request);
    });
  }

  const std::string name_;
  const std::string tag_;
  // By name; written by AddService before the service's handler subscribes, read on the
  // plugin's thread.
  std::map<std::string, std::unique_ptr<Service>> services_;
};

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
