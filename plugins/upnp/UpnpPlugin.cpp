#include "UpnpPlugin.h"

#include <dlfcn.h>
#include <glib-unix.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "hxf_host_platform.h"

namespace hxf_upnp {

namespace {

constexpr const char* kTag = "HXF_UPNP";
constexpr const char* kSwitchPower = "urn:schemas-upnp-org:service:SwitchPower:1";
constexpr const char* kDimming = "urn:schemas-upnp-org:service:Dimming:1";
constexpr uint32_t kRescanEveryMs = 1500;  // while an active search runs
constexpr uint32_t kMx = 1;                // seconds a device may wait before answering
constexpr uint32_t kListWaitMs = 2000;     // an empty cache is rescanned this long
// A request for an unknown device waits this long: answered "not found" before the time-out
// consumers usually give (hxf: 3000 ms), which would otherwise answer it first, without why.
constexpr uint32_t kFindWaitMs = 2500;
// Until a device's first event comes, its state is read again this often, this many times.
constexpr uint32_t kRereadEveryMs = 1000;
constexpr int kRereads = 5;
constexpr uint32_t kUnsubscribeMs = 300;   // the loop runs this long on unload for UNSUBSCRIBE
constexpr auto kDestroyWait = std::chrono::seconds(10);

Plugin* Self(void* user_data) {
  return static_cast<Plugin*>(user_data);
}

std::string HostOf(const std::string& url) {
  GUri* uri = g_uri_parse(url.c_str(), G_URI_FLAGS_NONE, nullptr);
  if (uri == nullptr) return "";
  std::string host = Text(g_uri_get_host(uri));
  g_uri_unref(uri);
  return host;
}

// GLib, GSSDP, GUPnP and libsoup register GObject types that outlive an unload: if dlclose
// unmapped them, the next load would register the same type names again and fail. They are
// kept mapped for the life of the process (RTLD_NODELETE on the copies already loaded).
void PinLibraries() {
  for (const char* library : {"libgupnp-1.6.so.0", "libgssdp-1.6.so.0", "libsoup-3.0.so.0",
                              "libgio-2.0.so.0", "libgobject-2.0.so.0", "libglib-2.0.so.0"}) {
    if (dlopen(library, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) == nullptr)
      dlog_print(DLOG_ERROR, kTag, "upnp: cannot pin %s: %s\n", library, dlerror());
  }
}

}  // namespace

// ---- threads ----

Plugin::Plugin() : Provider(kName, kTag) {}

void Plugin::Start() {
  PinLibraries();
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  thread_ = std::thread([this] { Run(); });
}

void Plugin::Stop() {
  Post([this] { Teardown(); });  // the last task: it ends the loop
  thread_.join();
  close(wake_fd_);
  DestroyServices(kDestroyWait);
}

void Plugin::Post(Task task) {
  HXFramework::CMutexLock lock(post_mutex_);
  if (stopping_) return;
  posted_.push_back(std::move(task));
  // Only the eventfd is touched here, never GLib: the plugin thread's source watching it
  // runs the queue. The queue itself is handed over under post_mutex_.
  if (posted_.size() == 1) {
    const uint64_t one = 1;
    if (write(wake_fd_, &one, sizeof one) != sizeof one)
      dlog_print(DLOG_ERROR, kTag, "upnp: cannot wake the plugin thread\n");
  }
}

gboolean Plugin::RunPosted(gint fd, GIOCondition, gpointer self) {
  Plugin* plugin = Self(self);
  uint64_t count = 0;
  if (read(fd, &count, sizeof count) < 0 && errno != EAGAIN)
    dlog_print(DLOG_ERROR, kTag, "upnp: cannot read the wake-up: %s\n", strerror(errno));
  std::deque<Task> tasks;
  {
    HXFramework::CMutexLock lock(plugin->post_mutex_);
    tasks.swap(plugin->posted_);
  }
  for (Task& task : tasks) {
    task();
    HXFramework::CMutexLock lock(plugin->post_mutex_);
    if (plugin->stopping_) break;  // posted before the stop, but Teardown has run
  }
  return G_SOURCE_CONTINUE;
}

void Plugin::AssertPluginThread() const {
  if (std::this_thread::get_id() != plugin_thread_) {
    dlog_print(DLOG_FATAL, kTag, "upnp: plugin-thread code ran on another thread\n");
    std::abort();
  }
}

void Plugin::Run() {
  plugin_thread_ = std::this_thread::get_id();
  GMainContext* context = g_main_context_new();
  g_main_context_push_thread_default(context);  // before any GUPnP object is made
  loop_ = g_main_loop_new(context, FALSE);
  // Tasks posted before this point left the eventfd readable: they run once the loop runs.
  wake_source_ = g_unix_fd_source_new(wake_fd_, G_IO_IN);
  g_source_set_callback(wake_source_, G_SOURCE_FUNC(&Plugin::RunPosted), this, nullptr);
  g_source_attach(wake_source_, context);
  const bool ready = Setup();
  SendLoadResult(ready);
  if (ready) {
    g_main_loop_run(loop_);  // until Teardown
  } else {
    Teardown();
  }
  {
    HXFramework::CMutexLock lock(post_mutex_);
    stopping_ = true;
  }
  g_source_destroy(wake_source_);
  g_source_unref(wake_source_);
  g_main_loop_unref(loop_);
  g_main_context_pop_thread_default(context);
  g_main_context_unref(context);
}

bool Plugin::Setup() {
  for (const char* name : kServices) {
    if (AddService(name) == nullptr) return false;
  }
  cancellable_ = g_cancellable_new();
  manager_ = gupnp_context_manager_create_full(GSSDP_UDA_VERSION_1_0, G_SOCKET_FAMILY_IPV4, 0);
  if (manager_ == nullptr) {
    dlog_print(DLOG_ERROR, kTag, "upnp: no context manager\n");
    return false;
  }
  const char* only = std::getenv("HXF_UPNP_IFACE");
  if (only != nullptr && *only != '\0') {
    GUPnPContextFilter* filter = gupnp_context_manager_get_context_filter(manager_);
    gupnp_context_filter_add_entry(filter, only);
    gupnp_context_filter_set_enabled(filter, TRUE);
    dlog_print(DLOG_INFO, kTag, "upnp: only on interface %s\n", only);
  }
  g_signal_connect(manager_, "context-available", G_CALLBACK(&Plugin::OnContextAvailable), this);
  g_signal_connect(manager_, "context-unavailable", G_CALLBACK(&Plugin::OnContextUnavailable),
                   this);
  dlog_print(DLOG_INFO, kTag, "upnp: started\n");
  return true;
}

void Plugin::Teardown() {
  AssertPluginThread();
  // Disconnect first: destroying a control point announces every device as unavailable.
  if (manager_ != nullptr) g_signal_handlers_disconnect_by_data(manager_, this);
  for (GUPnPControlPoint* point : control_points_)
    g_signal_handlers_disconnect_by_data(point, this);
  for (auto& [udn, device] : devices_) {
    Unsubscribe(&device);
    UnsubscribeAudio(&device);
  }
  if (cancellable_ != nullptr) g_cancellable_cancel(cancellable_);
  for (guint id : sources_) {
    // Source ids belong to their context: g_source_remove would look in the default one.
    if (GSource* source = g_main_context_find_source_by_id(g_main_loop_get_context(loop_), id))
      g_source_destroy(source);
  }
  sources_.clear();
  // Let the UNSUBSCRIBE messages and the cancelled calls finish, for a bounded time: the
  // loop sleeps until something is due or the timer ends it, not in 10 ms naps.
  GMainContext* context = g_main_loop_get_context(loop_);
  bool waited = false;
  GSource* timer = g_timeout_source_new(kUnsubscribeMs);
  g_source_set_callback(
      timer,
      [](gpointer flag) {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &waited, nullptr);
  g_source_attach(timer, context);
  while (!waited) g_main_context_iteration(context, TRUE);
  g_source_destroy(timer);
  g_source_unref(timer);
  for (auto& [udn, device] : devices_) Forget(&device);
  devices_.clear();
  for (GUPnPControlPoint* point : control_points_) g_object_unref(point);
  control_points_.clear();
  if (manager_ != nullptr) g_object_unref(manager_);
  manager_ = nullptr;
  if (cancellable_ != nullptr) g_object_unref(cancellable_);
  cancellable_ = nullptr;
  {
    HXFramework::CMutexLock lock(post_mutex_);
    stopping_ = true;  // no more posts: the core's late callbacks are dropped
  }
  g_main_loop_quit(loop_);
}

void Plugin::After(uint32_t ms, Task task) {
  struct Timer {
    Plugin* plugin;
    Task task;
    guint id = 0;
  };
  auto* timer = new Timer{this, std::move(task)};
  GSource* source = g_timeout_source_new(ms);
  g_source_set_callback(
      source,
      [](gpointer data) -> gboolean {
        auto* t = static_cast<Timer*>(data);
        t->plugin->sources_.erase(t->id);
        t->task();
        return G_SOURCE_REMOVE;
      },
      timer, [](gpointer data) { delete static_cast<Timer*>(data); });
  timer->id = g_source_attach(source, g_main_loop_get_context(loop_));
  sources_.insert(timer->id);
  g_source_unref(source);
}

// ---- discovery ----

void Plugin::OnContextAvailable(GUPnPContextManager* manager, GUPnPContext* context,
                                gpointer self) {
  Plugin* plugin = Self(self);
  GUPnPControlPoint* point = gupnp_control_point_new(context, "upnp:rootdevice");
  g_signal_connect(point, "device-proxy-available", G_CALLBACK(&Plugin::OnDeviceAvailable), self);
  g_signal_connect(point, "device-proxy-unavailable", G_CALLBACK(&Plugin::OnDeviceUnavailable),
                   self);
  gssdp_resource_browser_set_mx(GSSDP_RESOURCE_BROWSER(point), kMx);
  gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(point), TRUE);
  gupnp_context_manager_manage_control_point(manager, point);
  plugin->control_points_.push_back(point);
  dlog_print(DLOG_INFO, kTag, "upnp: searching on %s (%s)\n",
             gssdp_client_get_interface(GSSDP_CLIENT(context)),
             gssdp_client_get_host_ip(GSSDP_CLIENT(context)));
}

void Plugin::OnContextUnavailable(GUPnPContextManager*, GUPnPContext* context, gpointer self) {
  Plugin* plugin = Self(self);
  const std::string iface = Text(gssdp_client_get_interface(GSSDP_CLIENT(context)));
  dlog_print(DLOG_INFO, kTag, "upnp: interface %s is gone\n", iface.c_str());
  std::vector<std::string> roots;
  for (const auto& [udn, device] : plugin->devices_) {
    if (device.IsRoot() && device.endpoint.interface_name == iface) roots.push_back(udn);
  }
  for (const std::string& root : roots) plugin->RemoveRoot(root);
  for (auto it = plugin->control_points_.begin(); it != plugin->control_points_.end(); ++it) {
    if (gupnp_control_point_get_context(*it) == context) {
      g_signal_handlers_disconnect_by_data(*it, self);
      g_object_unref(*it);
      plugin->control_points_.erase(it);
      break;
    }
  }
}

void Plugin::OnDeviceAvailable(GUPnPControlPoint* point, GUPnPDeviceProxy* proxy, gpointer self) {
  Plugin* plugin = Self(self);
  GUPnPDeviceInfo* info = GUPNP_DEVICE_INFO(proxy);
  const std::string root = Text(gupnp_device_info_get_udn(info));
  if (plugin->devices_.count(root) != 0) return;
  const std::string iface =
      Text(gssdp_client_get_interface(GSSDP_CLIENT(gupnp_control_point_get_context(point))));
  plugin->AddDevice(info, root, iface);
  GList* embedded = gupnp_device_info_list_devices(info);
  for (GList* item = embedded; item != nullptr; item = item->next)
    plugin->AddDevice(GUPNP_DEVICE_INFO(item->data), root, iface);
  g_list_free_full(embedded, g_object_unref);
  plugin->RetryPending();
}

void Plugin::OnDeviceUnavailable(GUPnPControlPoint*, GUPnPDeviceProxy* proxy, gpointer self) {
  Self(self)->RemoveRoot(Text(gupnp_device_info_get_udn(GUPNP_DEVICE_INFO(proxy))));
}

void Plugin::AddDevice(GUPnPDeviceInfo* info, const std::string& root_udn,
                       const std::string& iface) {
  const std::string udn = Text(gupnp_device_info_get_udn(info));
  if (udn.empty() || devices_.count(udn) != 0) return;
  Device device;
  device.info = GUPNP_DEVICE_INFO(g_object_ref(info));
  device.root_udn = root_udn;
  device.location = Text(gupnp_device_info_get_location(info));
  device.device_type = Text(gupnp_device_info_get_device_type(info));
  device.manufacturer = Take(gupnp_device_info_get_manufacturer(info));
  device.model = Take(gupnp_device_info_get_model_name(info));
  device.serial = Take(gupnp_device_info_get_serial_number(info));
  device.presentation_url = Take(gupnp_device_info_get_presentation_url(info));
  device.endpoint.id = udn;
  device.endpoint.name = Take(gupnp_device_info_get_friendly_name(info));
  device.endpoint.address = HostOf(device.location);
  device.endpoint.interface_name = iface;
  device.endpoint.interface_type = "upnp";
  device.endpoint.ui_meta = nlohmann::json{
      {"device_type", device.device_type},
      {"model", device.model},
      {"manufacturer",
       device.manufacturer}}.dump();
  if (GUPnPServiceInfo* power = gupnp_device_info_get_service(info, kSwitchPower))
    device.power = GUPNP_SERVICE_PROXY(power);  // the reference returned is ours
  if (GUPnPServiceInfo* dimming = gupnp_device_info_get_service(info, kDimming))
    device.dimming = GUPNP_SERVICE_PROXY(dimming);
  FindRenderer(info, device.device_type, &device.renderer);
  Device& added = devices_.emplace(udn, std::move(device)).first->second;
  dlog_print(DLOG_INFO, kTag, "upnp: found %s (%s) at %s%s\n", added.endpoint.name.c_str(),
             udn.c_str(), added.location.c_str(), added.IsLight() ? ", a light" : "");
  Subscribe(&added);
  SubscribeAudio(&added);
  ReadUntilEvented(udn, kRereads);
  for (const char* service : kServices) {
    if (!added.Offers(service)) continue;
    Activity& activity = FindService(service)->record;
    if (activity.searching && activity.reported.insert(udn).second)
      Report(service, added, nullptr);
    if (activity.listening) Report(service, added, hxf_tool::kPresenceArrived);
  }
}

void Plugin::ReadUntilEvented(const std::string& udn, int rereads) {
  const auto found = devices_.find(udn);
  if (found == devices_.end() || found->second.Evented()) return;
  const bool light = found->second.IsLight(), renderer = found->second.IsRenderer();
  if (!light && !renderer) return;  // no state of its own (a media server, a root device)
  if (light) ReadLightState(udn);
  if (renderer) ReadAudio(udn);
  if (rereads > 0) After(kRereadEveryMs, [this, udn, rereads] { ReadUntilEvented(udn, rereads - 1); });
}

void Plugin::StateReadFailed(const std::string& udn, const std::string& failed,
                             const GError* error) {
  dlog_print(DLOG_WARN, kTag, "upnp: cannot read the state of %s: %s: %s\n", udn.c_str(),
             failed.c_str(), error != nullptr ? error->message : "no answer");
  CheckAlive(udn);
}

void Plugin::RemoveRoot(const std::string& root_udn) {
  for (auto it = devices_.begin(); it != devices_.end();) {
    Device& device = it->second;
    if (device.root_udn != root_udn) {
      ++it;
      continue;
    }
    dlog_print(DLOG_INFO, kTag, "upnp: %s (%s) is gone\n", device.endpoint.name.c_str(),
               device.endpoint.id.c_str());
    for (const char* service : kServices) {
      if (device.Offers(service) && FindService(service)->record.listening)
        Report(service, device, hxf_tool::kPresenceLeft);
    }
    Unsubscribe(&device);
    UnsubscribeAudio(&device);
    Forget(&device);
    it = devices_.erase(it);
  }
}

void Plugin::Forget(Device* device) {
  if (device->power != nullptr) g_object_unref(device->power);
  if (device->dimming != nullptr) g_object_unref(device->dimming);
  if (device->info != nullptr) g_object_unref(device->info);
  ReleaseRenderer(&device->renderer);
  device->power = device->dimming = nullptr;
  device->info = nullptr;
}

void Plugin::Rescan() {
  for (GUPnPControlPoint* point : control_points_)
    gssdp_resource_browser_rescan(GSSDP_RESOURCE_BROWSER(point));
}

void Plugin::Report(const std::string& service, const Device& device, const char* presence) {
  AssertPluginThread();
  ReportDevice(*FindService(service), device.endpoint, presence);
}

void Plugin::OnSearch(Service& service) {
  const bool already = service.record.searching;
  service.record.searching = true;
  for (const auto& [udn, device] : devices_) {
    if (!device.Offers(service.name)) continue;
    Report(service.name, device, nullptr);  // known, at once (to a searcher that joins too)
    service.record.reported.insert(udn);
  }
  Rescan();
  if (!already) After(kRescanEveryMs, [this, &service] { RescanWhileSearching(service); });
}

void Plugin::RescanWhileSearching(Service& service) {
  if (!service.record.searching) return;  // the core's search timer ended it
  Rescan();
  After(kRescanEveryMs, [this, &service] { RescanWhileSearching(service); });
}

void Plugin::OnListen(Service& service) {
  service.record.listening = true;
  for (const auto& [udn, device] : devices_) {
    if (device.Offers(service.name)) Report(service.name, device, nullptr);
  }
  Rescan();
}

void Plugin::ListDevices(Service& service, bool rescanned) {
  std::vector<const hxf_plugin_kit::EndpointInfo*> devices;
  for (const auto& [udn, device] : devices_) {
    if (device.Offers(service.name)) devices.push_back(&device.endpoint);
  }
  if (!ReportDeviceList(service, devices) && !rescanned) {
    // Nothing known yet: look, then answer from what came.
    Rescan();
    After(kListWaitMs, [this, &service] { ListDevices(service, true); });
  }
}

// ---- requests ----

void Plugin::Answer(const std::string& service, hxf_transaction_h transaction,
                    hxf_property_list_h result, hxf_error_e error) {
  SendResult(*FindService(service), transaction, result, error);
}

void Plugin::Notify(const std::string& service, hxf_property_list_h state) {
  SendNotification(*FindService(service), state);
}

Device* Plugin::Target(const std::string& service, const std::string& device_id) {
  if (!device_id.empty()) {
    const auto found = devices_.find(device_id);
    return found != devices_.end() && found->second.Offers(service) ? &found->second : nullptr;
  }
  for (auto& [udn, device] : devices_) {
    if (device.Offers(service)) return &device;
  }
  return nullptr;
}

void Plugin::Request(const std::string& service, hxf_transaction_h transaction,
                     const List& request) {
  const std::string operation = hxf_property_list_get_name(request.get());
  const std::string device_id = hxf_plugin_kit::FindText(request.get(), "device_id");
  Device* device = Target(service, device_id);
  if (device == nullptr) {
    // Each process that loads the plugin starts knowing nothing: look, and wait (bounded).
    pending_.push_back(Pending{service, transaction, request, device_id});
    Rescan();
    After(kFindWaitMs, [this, transaction] {
      for (auto it = pending_.begin(); it != pending_.end(); ++it) {
        if (it->transaction != transaction) continue;
        const std::string what =
            it->device_id.empty() ? "no " + it->service + " device" : "no device " + it->device_id;
        Answer(it->service, transaction,
               hxf_plugin_kit::ErrorList(hxf_property_list_get_name(it->request.get()),
                                         what + " found on the network"),
               HXF_ERROR_NOT_FOUND);
        pending_.erase(it);
        return;
      }
    });
    return;
  }
  if (service == kRootDevices && operation == "get") {
    Describe(transaction, *device);
  } else if (service == kLights && operation == "get") {
    GetLight("get", transaction, device->endpoint.id);
  } else if (service == kLights && operation == "set") {
    SetLight(transaction, request.get(), device);
  } else if (service == kAudio) {
    AudioRequest(operation, transaction, request.get(), device);
  } else {
    RefuseOperation(*FindService(service), transaction, operation,
                    service == kLights ? "get or set" : "get");
  }
}

void Plugin::RetryPending() {
  std::vector<Pending> waiting;
  waiting.swap(pending_);
  for (Pending& pending : waiting) {
    if (Target(pending.service, pending.device_id) != nullptr) {
      Request(pending.service, pending.transaction, pending.request);
    } else {
      pending_.push_back(std::move(pending));
    }
  }
}

}  // namespace hxf_upnp
