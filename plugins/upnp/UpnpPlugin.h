// The UPnP provider: service "lights" (devices with SwitchPower:1, and Dimming:1 where they
// have it), service "audio" (media renderers, UpnpAudio.h) and service "upnp" (every root
// device), found and driven through GUPnP.
//
// Threads: every GLib, GSSDP, GUPnP and libsoup call runs on the plugin's own thread, which
// runs its own GMainContext (the thread default there). The core's callbacks are the plugin
// kit's (Provider): they copy what they need and post a task to that thread (Post); answers
// go back through the core's hxf_core_service_handler_* functions, which any thread may call.
#pragma once

#include <libgupnp/gupnp.h>

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CLocks.h"
#include "PluginKit.h"
#include "UpnpAudio.h"
#include "hxf_core.h"

namespace hxf_upnp {

constexpr const char* kLights = "lights";
constexpr const char* kRootDevices = "upnp";
constexpr const char* kAudio = "audio";
constexpr const char* kServices[] = {kLights, kAudio, kRootDevices};

inline std::string Text(const char* text) {
  return text != nullptr ? text : "";
}
// For the GUPnP getters that return a newly allocated string (transfer full).
inline std::string Take(char* text) {
  std::string copy = Text(text);
  g_free(text);
  return copy;
}

// What the plugin knows of one device; owned refs, released by Forget.
struct Device {
  hxf_plugin_kit::EndpointInfo endpoint;  // id = UDN, address = host of the description URL
  std::string root_udn;                   // the root device it belongs to (its own UDN for a root)
  std::string location;                   // the description URL
  std::string device_type, manufacturer, model, serial, presentation_url;
  GUPnPDeviceInfo* info = nullptr;
  GUPnPServiceProxy* power = nullptr;    // SwitchPower:1, or null
  GUPnPServiceProxy* dimming = nullptr;  // Dimming:1, or null
  Renderer renderer;                     // a media renderer's services, or nulls
  std::optional<bool> power_on;          // last known, from answers and events
  std::optional<int64_t> brightness;
  bool announced = false;  // its state has been told to watchers once
  // The services whose events have come since subscribing. Each service has a subscription
  // of its own, answered on its own: once every one has sent an event, GENA reaches the
  // plugin and no more reads are needed.
  std::set<GUPnPServiceProxy*> evented;

  // Power known, and the level too where it can be dimmed: the state watchers are told.
  bool StateKnown() const { return power_on && (dimming == nullptr || brightness); }

  bool Evented() const {
    for (GUPnPServiceProxy* proxy : {power, dimming, renderer.rendering, renderer.transport}) {
      if (proxy != nullptr && evented.count(proxy) == 0) return false;
    }
    return true;
  }

  bool IsRoot() const { return root_udn == endpoint.id; }
  bool IsLight() const { return power != nullptr; }
  bool IsRenderer() const { return renderer.transport != nullptr; }
  bool Offers(const std::string& service) const {
    if (service == kAudio) return IsRenderer();
    return service == kLights ? IsLight() : service == kRootDevices && IsRoot();
  }
};

// What the plugin keeps per service: whether a search or a listen runs, and the devices the
// search under way has reported (a device that says byebye and comes back while it runs, as
// rygel does as it starts, is reported once).
struct Activity {
  bool searching = false;
  bool listening = false;
  std::set<std::string> reported;
};

class Plugin : public hxf_plugin_kit::Provider<Plugin, Activity> {
 public:
  static constexpr const char* kName = "upnp";

  Plugin();
  // Starts the plugin thread, which sets everything up and reports the load result.
  void Start();
  // Returns once no plugin code runs any more and every handler is destroyed.
  void Stop();

 private:
  friend class hxf_plugin_kit::Provider<Plugin, Activity>;
  using List = hxf_plugin_kit::List;
  struct Pending {  // a request for a device not found yet
    std::string service;
    hxf_transaction_h transaction;
    List request;
    std::string device_id;
  };

  // Any thread: runs `task` on the plugin thread; dropped once the plugin is stopping.
  void Post(Task task);
  // Stops the process when the caller is not the plugin thread: for code that touches GLib
  // or what only that thread may.
  void AssertPluginThread() const;
  // The plugin thread's source on wake_fd_: runs what was posted.
  static gboolean RunPosted(gint fd, GIOCondition, gpointer self);

  // ---- plugin thread ----
  void Run();
  bool Setup();
  void Teardown();
  // Runs `task` after `ms` on the plugin thread; the source is removed by Teardown.
  void After(uint32_t ms, Task task);
  void Rescan();

  static void OnContextAvailable(GUPnPContextManager*, GUPnPContext* context, gpointer self);
  static void OnContextUnavailable(GUPnPContextManager*, GUPnPContext* context, gpointer self);
  static void OnDeviceAvailable(GUPnPControlPoint*, GUPnPDeviceProxy* proxy, gpointer self);
  static void OnDeviceUnavailable(GUPnPControlPoint*, GUPnPDeviceProxy* proxy, gpointer self);
  void AddDevice(GUPnPDeviceInfo* info, const std::string& root_udn, const std::string& iface);
  // Forgets a root device and its embedded devices, reporting their departure to listeners.
  void RemoveRoot(const std::string& root_udn);
  void Forget(Device* device);
  void Report(const std::string& service, const Device& device, const char* presence);

  // The kit's hooks.
  void OnSearch(Service& service);
  void OnSearchStop(Service& service) {
    service.record.searching = false;
    service.record.reported.clear();
  }
  void OnListen(Service& service);
  void OnListenStop(Service& service) { service.record.listening = false; }
  void OnDeviceList(Service& service) { ListDevices(service, false); }
  void OnRequest(Service& service, hxf_transaction_h transaction, const List& request) {
    Request(service.name, transaction, request);
  }

  void RescanWhileSearching(Service& service);
  void ListDevices(Service& service, bool rescanned);
  void Request(const std::string& service, hxf_transaction_h transaction, const List& request);
  // The kit's SendResult and SendNotification for the service named `service`.
  void Answer(const std::string& service, hxf_transaction_h transaction, hxf_property_list_h result,
              hxf_error_e error);
  void Notify(const std::string& service, hxf_property_list_h state);
  Device* Target(const std::string& service, const std::string& device_id);
  void RetryPending();

  // UpnpLights.cpp: the "lights" and "upnp" operations, and GENA events.
  void Describe(hxf_transaction_h transaction, const Device& device);
  // Reads a light's power and brightness into its state; `done` gets what failed (empty on
  // success) with the error, and whether a value read was news.
  using ReadDone = std::function<void(const std::string& failed, const GError*, bool changed)>;
  void ReadLight(const std::string& udn, ReadDone done);
  void GetLight(const std::string& operation, hxf_transaction_h transaction,
                const std::string& udn);
  void SetLight(hxf_transaction_h transaction, hxf_property_list_h request, Device* device);
  void Subscribe(Device* device);
  // Reads the light's state and tells watchers what is news.
  void ReadLightState(const std::string& udn);
  // GUPnP drops the events that come before the answer to its SUBSCRIBE, and a device sends
  // its first one at once: once subscribed, the state is read now and again after
  // kRereadEveryMs, `rereads` times at most, until an event shows that GENA reaches the
  // plugin, so a change made meanwhile is not missed.
  void ReadUntilEvented(const std::string& udn, int rereads);
  // A read of the state failed: logged, and the device checked.
  void StateReadFailed(const std::string& udn, const std::string& failed, const GError* error);
  void Unsubscribe(Device* device);
  static void OnNotify(GUPnPServiceProxy* proxy, const char* variable, GValue* value,
                       gpointer self);
  void NotifyState(Device& device);
  // A SOAP call of `operation` on `service` failed: answers OPERATION_FAILED with `what` and
  // the error (with the device's UPnP error code where it sent one), then checks whether the
  // device is still there.
  void CallFailed(const std::string& service, const std::string& operation,
                  hxf_transaction_h transaction, const std::string& what, const GError* error,
                  const std::string& udn);
  // A request failed: if the device's description can no longer be fetched, it is gone.
  void CheckAlive(const std::string& udn);
  // Calls `action` (named `name`) on `proxy`, taking over the caller's reference to it;
  // `done` runs on the plugin thread with the finished action (borrowed), or null and the
  // error.
  void Call(GUPnPServiceProxy* proxy, const char* name, GUPnPServiceProxyAction* action,
            std::function<void(GUPnPServiceProxyAction*, const GError*)> done);

  // UpnpAudio.cpp: the "audio" operations on media renderers, and their LastChange events.
  // `done` gets what failed (empty on success) with the error.
  using AudioDone = std::function<void(const std::string& failed, const GError*)>;
  // Runs steps[next...] in turn on the renderer `udn`, each result read into its state and
  // into `read`: what this sequence itself read, which events that come meanwhile (one may
  // be older than the read: a renderer's first event after a subscription) do not change.
  void RunAudio(const std::string& udn, std::shared_ptr<const std::vector<AudioStep>> steps,
                size_t next, std::shared_ptr<AudioState> read, AudioDone done);
  // Runs `steps`, then reads the whole state back (also into `read`), and tells watchers
  // what is news.
  void RunAndTell(const std::string& udn, std::vector<AudioStep> steps,
                  std::shared_ptr<AudioState> read, AudioDone done);
  void AudioRequest(const std::string& operation, hxf_transaction_h transaction,
                    hxf_property_list_h request, Device* device);
  void SubscribeAudio(Device* device);
  // Reads the renderer's state and tells watchers what is news.
  void ReadAudio(const std::string& udn);
  void UnsubscribeAudio(Device* device);
  static void OnLastChange(GUPnPServiceProxy* proxy, const char* variable, GValue* value,
                           gpointer self);
  // Tells watchers the renderer's state, unless they have been told it already.
  void NotifyAudio(Device& device);

  std::thread thread_;
  HXFramework::CMutex post_mutex_;  // for Post from any thread
  std::deque<Task> posted_ HXF_GUARDED_BY(post_mutex_);
  bool stopping_ HXF_GUARDED_BY(post_mutex_) = false;
  std::thread::id plugin_thread_;  // set by Run before its first task
  int wake_fd_ = -1;  // an eventfd: made by Start, closed by Stop after the thread has ended

  // Plugin thread only.
  GMainLoop* loop_ = nullptr;
  GSource* wake_source_ = nullptr;
  GCancellable* cancellable_ = nullptr;
  GUPnPContextManager* manager_ = nullptr;
  std::vector<GUPnPControlPoint*> control_points_;
  std::map<std::string, Device> devices_;  // by UDN
  std::vector<Pending> pending_;
  std::set<guint> sources_;  // timers still to run
};

}  // namespace hxf_upnp
