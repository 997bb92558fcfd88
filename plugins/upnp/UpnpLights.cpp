// The operations: "get" on "upnp" (the description), "get" and "set" on "lights" (SOAP
// actions on SwitchPower:1 and Dimming:1), and the lights' GENA events. Plugin thread only.
#include <libsoup/soup.h>

#include "UpnpPlugin.h"
#include "hxf_host_platform.h"

namespace hxf_upnp {

namespace {

using hxf_plugin_kit::ErrorList;
using hxf_plugin_kit::Push;
using hxf_plugin_kit::Value;

constexpr const char* kTag = "HXF_UPNP";
constexpr int64_t kMaxBrightness = 100;  // Dimming:1 load levels are percentages

// The new power and brightness a "set" asks for, checked before anything is sent.
struct LightChange {
  std::optional<bool> power;
  std::optional<int64_t> brightness;
};

std::string CheckChange(hxf_property_list_h request, const Device& device, LightChange* change) {
  for (hxf_property_h p = hxf_property_list_get_first(request); p != nullptr;
       p = hxf_property_list_get_next(request, p)) {
    const std::string name = hxf_property_get_name(p);
    Value value;
    if (name == "device_id") continue;
    if (!hxf_plugin_kit::ReadProperty(p, &value)) return "unreadable value for " + name;
    if (name == "power") {
      if (!std::holds_alternative<bool>(value)) return "power takes a bool";
      change->power = std::get<bool>(value);
    } else if (name == "brightness") {
      if (!std::holds_alternative<int64_t>(value)) return "brightness takes an int";
      const int64_t level = std::get<int64_t>(value);
      if (level < 0 || level > kMaxBrightness)
        return "brightness " + std::to_string(level) + " is out of range 0..100";
      if (device.dimming == nullptr) return device.endpoint.name + " cannot be dimmed";
      change->brightness = level;
    } else {
      return "unknown property " + name + " (power, brightness)";
    }
  }
  if (!change->power && !change->brightness) return "nothing to set (power, brightness)";
  return "";
}

}  // namespace

void Plugin::Call(GUPnPServiceProxy* proxy, const char* name, GUPnPServiceProxyAction* action,
                  std::function<void(GUPnPServiceProxyAction*, const GError*)> done) {
  struct Ongoing {
    Plugin* plugin;
    GUPnPServiceProxy* proxy;  // held until the call ends
    GUPnPServiceProxyAction* action;
    std::function<void(GUPnPServiceProxyAction*, const GError*)> done;
  };
  // The control URL is a new string each time.
  const std::string url = Take(gupnp_service_info_get_control_url(GUPNP_SERVICE_INFO(proxy)));
  dlog_print(DLOG_DEBUG, kTag, "upnp: SOAP %s to %s\n", name, url.c_str());
  auto* call = new Ongoing{this, GUPNP_SERVICE_PROXY(g_object_ref(proxy)), action, std::move(done)};
  gupnp_service_proxy_call_action_async(
      proxy, action, cancellable_,
      [](GObject* source, GAsyncResult* result, gpointer data) {
        auto* c = static_cast<Ongoing*>(data);
        GError* error = nullptr;
        // The action returned is the one passed in, borrowed: it is released once, below.
        GUPnPServiceProxyAction* finished =
            gupnp_service_proxy_call_action_finish(GUPNP_SERVICE_PROXY(source), result, &error);
        // The device's SOAP fault (its UPnP error code and text) shows once the result is
        // read; GUPnP keeps it, so the caller's own reading meets it again.
        if (finished != nullptr && error == nullptr)
          gupnp_service_proxy_action_get_result(finished, &error, nullptr);
        // A call cancelled by Teardown answers nothing: the plugin is going away.
        if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
          c->done(error == nullptr ? finished : nullptr, error);
        if (error != nullptr) g_error_free(error);
        gupnp_service_proxy_action_unref(c->action);
        g_object_unref(c->proxy);
        delete c;
      },
      call);
}

void Plugin::CallFailed(const std::string& service, const std::string& operation,
                        hxf_transaction_h transaction, const std::string& what, const GError* error,
                        const std::string& udn) {
  std::string text = error != nullptr ? what + ": " + error->message : what;
  // A SOAP fault: the device's own error code (701 for a transition it cannot make...).
  if (error != nullptr && error->domain == GUPNP_CONTROL_ERROR)
    text += " (UPnP error " + std::to_string(error->code) + ")";
  Answer(service, transaction, ErrorList(operation, text), HXF_ERROR_OPERATION_FAILED);
  CheckAlive(udn);
}

void Plugin::Describe(hxf_transaction_h transaction, const Device& device) {
  hxf_property_list_h list = hxf_property_list_create(hxf_string_from_cstr("get"));
  Push(list, "device_id", device.endpoint.id);
  Push(list, "name", device.endpoint.name);
  Push(list, "device_type", device.device_type);
  Push(list, "manufacturer", device.manufacturer);
  Push(list, "model", device.model);
  Push(list, "serial", device.serial);
  Push(list, "presentation_url", device.presentation_url);
  Push(list, "location", device.location);
  Answer(kRootDevices, transaction, list, HXF_ERROR_NONE);
}

void Plugin::ReadLight(const std::string& udn, ReadDone done) {
  // Power, then the level where the light can be dimmed; the device may be gone by the time
  // an answer comes. `changed` tells whether a value read differed from the one known.
  struct Read {
    std::string udn;
    ReadDone done;
    bool changed = false;
  };
  auto read = std::make_shared<Read>(Read{udn, std::move(done)});
  const auto level = [this, read] {
    const auto found = devices_.find(read->udn);
    if (found == devices_.end() || found->second.dimming == nullptr) {
      read->done("", nullptr, read->changed);
      return;
    }
    Call(found->second.dimming, "GetLoadLevelStatus",
         gupnp_service_proxy_action_new("GetLoadLevelStatus", nullptr),
         [this, read](GUPnPServiceProxyAction* action, const GError* error) {
           guint value = 0;
           GError* read_error = nullptr;
           if (action == nullptr ||
               !gupnp_service_proxy_action_get_result(action, &read_error, "retLoadlevelStatus",
                                                      G_TYPE_UINT, &value, nullptr)) {
             read->done("GetLoadLevelStatus failed", error != nullptr ? error : read_error, false);
             if (read_error != nullptr) g_error_free(read_error);
             return;
           }
           const auto again = devices_.find(read->udn);
           if (again != devices_.end() && again->second.brightness != int64_t{value}) {
             again->second.brightness = value;
             read->changed = true;
           }
           read->done("", nullptr, read->changed);
         });
  };
  const auto device = devices_.find(udn);
  if (device == devices_.end()) {  // a byebye (or a failed probe) came while a call was out
    read->done("the device is gone", nullptr, false);
    return;
  }
  Call(device->second.power, "GetStatus", gupnp_service_proxy_action_new("GetStatus", nullptr),
       [this, read, level](GUPnPServiceProxyAction* action, const GError* error) {
         gboolean on = FALSE;
         GError* read_error = nullptr;
         if (action == nullptr ||
             !gupnp_service_proxy_action_get_result(action, &read_error, "ResultStatus",
                                                    G_TYPE_BOOLEAN, &on, nullptr)) {
           read->done("GetStatus failed", error != nullptr ? error : read_error, false);
           if (read_error != nullptr) g_error_free(read_error);
           return;
         }
         const auto found = devices_.find(read->udn);
         if (found != devices_.end() && found->second.power_on != (on != FALSE)) {
           found->second.power_on = on != FALSE;
           read->changed = true;
         }
         level();
       });
}

void Plugin::GetLight(const std::string& operation, hxf_transaction_h transaction,
                      const std::string& udn) {
  ReadLight(udn, [this, operation, transaction, udn](const std::string& failed, const GError* error,
                                                     bool) {
    if (!failed.empty()) {
      CallFailed(kLights, operation, transaction, failed, error, udn);
      return;
    }
    const auto found = devices_.find(udn);
    if (found == devices_.end()) {
      Answer(kLights, transaction, ErrorList(operation, "device " + udn + " is gone"),
             HXF_ERROR_OPERATION_FAILED);
      return;
    }
    const Device& device = found->second;
    hxf_property_list_h list = hxf_property_list_create(hxf_plugin_kit::View(operation));
    Push(list, "device_id", device.endpoint.id);
    if (device.power_on) Push(list, "power", *device.power_on);
    if (device.brightness) Push(list, "brightness", *device.brightness);
    Answer(kLights, transaction, list, HXF_ERROR_NONE);
  });
}

void Plugin::SetLight(hxf_transaction_h transaction, hxf_property_list_h request, Device* device) {
  LightChange change;
  const std::string problem = CheckChange(request, *device, &change);
  if (!problem.empty()) {  // refused before any SOAP call
    Answer(kLights, transaction, ErrorList("set", problem), HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  const std::string udn = device->endpoint.id;
  // Power first, then the level; then the new state is read back and answered.
  auto level = [this, transaction, udn, change] {
    const auto found = devices_.find(udn);
    if (!change.brightness || found == devices_.end()) {
      GetLight("set", transaction, udn);
      return;
    }
    Call(found->second.dimming, "SetLoadLevelTarget",
         gupnp_service_proxy_action_new("SetLoadLevelTarget", "newLoadlevelTarget", G_TYPE_UINT,
                                        static_cast<guint>(*change.brightness), nullptr),
         [this, transaction, udn](GUPnPServiceProxyAction* action, const GError* error) {
           if (action == nullptr) {
             CallFailed(kLights, "set", transaction, "SetLoadLevelTarget failed", error, udn);
             return;
           }
           GetLight("set", transaction, udn);
         });
  };
  if (!change.power) {
    level();
    return;
  }
  Call(device->power, "SetTarget",
       gupnp_service_proxy_action_new("SetTarget", "newTargetValue", G_TYPE_BOOLEAN,
                                      static_cast<gboolean>(*change.power), nullptr),
       [this, transaction, udn, level](GUPnPServiceProxyAction* action, const GError* error) {
         if (action == nullptr) {
           CallFailed(kLights, "set", transaction, "SetTarget failed", error, udn);
           return;
         }
         level();
       });
}

// ---- GENA ----

void Plugin::Subscribe(Device* device) {
  if (!device->IsLight()) return;
  // GUPnP renews each subscription itself, on the interval the device granted.
  gupnp_service_proxy_add_notify(device->power, "Status", G_TYPE_BOOLEAN, &Plugin::OnNotify, this);
  gupnp_service_proxy_set_subscribed(device->power, TRUE);
  if (device->dimming != nullptr) {
    gupnp_service_proxy_add_notify(device->dimming, "LoadLevelStatus", G_TYPE_UINT,
                                   &Plugin::OnNotify, this);
    gupnp_service_proxy_set_subscribed(device->dimming, TRUE);
  }
}

void Plugin::ReadLightState(const std::string& udn) {
  ReadLight(udn, [this, udn](const std::string& failed, const GError* error, bool changed) {
    const auto found = devices_.find(udn);
    if (!failed.empty()) {
      StateReadFailed(udn, failed, error);
    } else if (found != devices_.end() && (changed || !found->second.announced)) {
      NotifyState(found->second);
    }
  });
}

void Plugin::Unsubscribe(Device* device) {
  if (!device->IsLight()) return;  // as Subscribe
  gupnp_service_proxy_remove_notify(device->power, "Status", &Plugin::OnNotify, this);
  gupnp_service_proxy_set_subscribed(device->power, FALSE);
  if (device->dimming != nullptr) {
    gupnp_service_proxy_remove_notify(device->dimming, "LoadLevelStatus", &Plugin::OnNotify, this);
    gupnp_service_proxy_set_subscribed(device->dimming, FALSE);
  }
}

void Plugin::OnNotify(GUPnPServiceProxy* proxy, const char* variable, GValue* value,
                      gpointer self) {
  Plugin* plugin = static_cast<Plugin*>(self);
  for (auto& [udn, device] : plugin->devices_) {
    if (device.power == proxy && g_strcmp0(variable, "Status") == 0) {
      device.power_on = g_value_get_boolean(value) != FALSE;
    } else if (device.dimming == proxy && g_strcmp0(variable, "LoadLevelStatus") == 0) {
      device.brightness = g_value_get_uint(value);
    } else {
      continue;
    }
    device.evented.insert(proxy);
    // Each service sends its first event on its own: watchers hear of the light once
    // both are known (or once the plugin's own read has them).
    if (device.StateKnown()) plugin->NotifyState(device);
    return;
  }
}

void Plugin::NotifyState(Device& device) {
  device.announced = true;
  hxf_property_list_h state = hxf_property_list_create(hxf_string_from_cstr("state"));
  Push(state, "device_id", device.endpoint.id);
  if (device.power_on) Push(state, "power", *device.power_on);
  if (device.brightness) Push(state, "brightness", *device.brightness);
  Notify(kLights, state);
}

void Plugin::CheckAlive(const std::string& udn) {
  const auto found = devices_.find(udn);
  if (found == devices_.end()) return;
  const std::string root = found->second.root_udn;
  GUPnPContext* context = gupnp_device_info_get_context(found->second.info);
  SoupMessage* message = soup_message_new(SOUP_METHOD_GET, found->second.location.c_str());
  if (message == nullptr) return;
  struct Check {
    Plugin* plugin;
    std::string root;
    SoupMessage* message;
  };
  auto* check = new Check{this, root, message};
  soup_session_send_and_read_async(
      gupnp_context_get_session(context), message, G_PRIORITY_DEFAULT, cancellable_,
      [](GObject* session, GAsyncResult* result, gpointer data) {
        auto* c = static_cast<Check*>(data);
        GError* error = nullptr;
        GBytes* body = soup_session_send_and_read_finish(SOUP_SESSION(session), result, &error);
        const bool cancelled = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED);
        const bool alive =
            body != nullptr && SOUP_STATUS_IS_SUCCESSFUL(soup_message_get_status(c->message));
        if (!cancelled && !alive) {
          dlog_print(DLOG_INFO, kTag, "upnp: the description of %s cannot be fetched: %s\n",
                     c->root.c_str(), error != nullptr ? error->message : "bad status");
          c->plugin->RemoveRoot(c->root);
        }
        if (body != nullptr) g_bytes_unref(body);
        if (error != nullptr) g_error_free(error);
        g_object_unref(c->message);
        delete c;
      },
      check);
}

}  // namespace hxf_upnp
