#include "CBusBroker.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <grp.h>
#include <unistd.h>

#include "BusValues.h"
#include "CPluginInfo.h"
#include "CSession.h"
#include "CWatch.h"
#include "PluginFiles.h"
#include "hxf_core_version.h"

namespace hxfd {

namespace {

using hxf_tool::ErrorName;

CBusBroker* Self(void* user_data) {
  return static_cast<CBusBroker*>(user_data);
}

// Introspection names every argument.
const sd_bus_vtable kBrokerVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("Search", "su", SD_BUS_PARAM(service) SD_BUS_PARAM(timeout_ms), "o",
                             SD_BUS_PARAM(search), &CBusBroker::OnSearch,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Listen", "s", SD_BUS_PARAM(service), "o", SD_BUS_PARAM(listen),
                             &CBusBroker::OnListen, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("GetDevices", "su", SD_BUS_PARAM(service) SD_BUS_PARAM(timeout_ms),
                             "aa{sv}", SD_BUS_PARAM(devices), &CBusBroker::OnGetDevices,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Subscribe", "s", SD_BUS_PARAM(service), "o", SD_BUS_PARAM(session),
                             &CBusBroker::OnSubscribe, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Request", "ssa{sv}u",
                             SD_BUS_PARAM(service) SD_BUS_PARAM(operation) SD_BUS_PARAM(properties)
                                 SD_BUS_PARAM(timeout_ms),
                             "a{sv}", SD_BUS_PARAM(result), &CBusBroker::OnRequest,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Monitor", "", "", &CBusBroker::OnMonitor, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Version", "s", &CBusBroker::GetVersion, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    // name, description, load state (loaded or failed), why it failed
    SD_BUS_PROPERTY("Plugins", "a(ssss)", &CBusBroker::GetPlugins, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("Services", "as", &CBusBroker::GetServices, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_PROPERTY("ServicesKnown", "b", &CBusBroker::GetServicesKnown, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    // Changes with every caller that comes or goes: read, never announced.
    SD_BUS_PROPERTY("Callers", "u", &CBusBroker::GetCallers, 0, 0), SD_BUS_VTABLE_END};

}  // namespace

// ---- life ----

CBusBroker::CBusBroker(sd_bus* bus, sd_event* event)
    : context_(bus, event), monitor_users_{0, geteuid()}, monitor_group_("hxf-monitor") {}

CBusBroker::~CBusBroker() {
  Stop();
}

int CBusBroker::Start(bool own_name) {
  int r = context_.Routes().Start(context_.Event());
  if (r >= 0)
    r = sd_bus_add_object_vtable(context_.Bus(), hxf_tool::Out(slot_), hxf_tool::kBrokerPath,
                                 hxf_tool::kBrokerInterface, kBrokerVtable, this);
  if (r >= 0) r = context_.Monitor().Start();
  // Each caller's objects for that caller only, in calls and in introspection.
  CCallerObjects& objects = context_.Objects();
  const std::string base = std::string(hxf_tool::kBrokerPath) + "/";
  if (r >= 0)
    r = objects.Serve(context_.Bus(), (base + "search").c_str(), hxf_tool::kSearchInterface,
                      CWatch::Vtable());
  if (r >= 0)
    r = objects.Serve(context_.Bus(), (base + "listen").c_str(), hxf_tool::kSearchInterface,
                      CWatch::Vtable());
  if (r >= 0)
    r = objects.Serve(context_.Bus(), (base + "session").c_str(), hxf_tool::kSessionInterface,
                      CSession::Vtable());
  // Followed before the name is owned: no caller can reach hxfd before its departure can.
  if (r >= 0) r = context_.Callers().Start();
  if (r >= 0 && own_name) r = sd_bus_request_name(context_.Bus(), hxf_tool::kBusName, 0);
  return r;
}

void CBusBroker::Stop() {
  context_.Callers().Stop();
  context_.Objects().Stop();
  slot_.reset();
  context_.Devices().Stop();
  context_.Routes().Stop();
}

void CBusBroker::PluginLoaded(const std::string& name, bool ok, const std::string& reason) {
  hxf_tool::PluginInfo info;
  info.path = hxf_tool::PluginPath(name);
  hxf_tool::ReadPluginInfo(info.path, &info.info);
  Plugin plugin;
  plugin.name = name;
  const auto description = info.info.find("description");
  if (description != info.info.end()) plugin.description = description->second;
  plugin.loaded = ok;
  plugin.reason = ok ? "" : reason;
  plugin.services = info.Services();
  if (ok) context_.Devices().AddProvider(name, plugin.services);
  plugins_.push_back(std::move(plugin));
  const int r = sd_bus_emit_properties_changed(context_.Bus(), hxf_tool::kBrokerPath,
                                               hxf_tool::kBrokerInterface, "Plugins", "Services",
                                               "ServicesKnown", nullptr);
  if (r < 0)
    std::fprintf(stderr, "hxfd: cannot announce the plugins' change: %s\n", std::strerror(-r));
  context_.Monitor().Event(hxf_tool::MonitorType::kPlugin, "", "", "", 0, [&](sd_bus_message* m) {
    return sd_bus_message_append(m, "a{sv}", 2, "name", "s", name.c_str(), "loaded", "b",
                                 static_cast<int>(ok));
  });
}

// ---- properties ----

int CBusBroker::GetVersion(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                           void*, sd_bus_error*) {
  return sd_bus_message_append(reply, "s", HXF_CORE_VERSION_STRING);
}

int CBusBroker::GetPlugins(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                           void* self, sd_bus_error*) {
  int r = sd_bus_message_open_container(reply, 'a', "(ssss)");
  for (const Plugin& plugin : Self(self)->plugins_) {
    if (r >= 0)
      r = sd_bus_message_append(reply, "(ssss)", plugin.name.c_str(), plugin.description.c_str(),
                                plugin.loaded ? "loaded" : "failed", plugin.reason.c_str());
  }
  return r < 0 ? r : sd_bus_message_close_container(reply);
}

int CBusBroker::GetServices(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                            void* self, sd_bus_error*) {
  // The declared services of the plugins that are loaded, each once, in load order.
  std::vector<std::string> services;
  for (const Plugin& plugin : Self(self)->plugins_) {
    if (!plugin.loaded) continue;
    for (const std::string& service : plugin.services) {
      if (std::find(services.begin(), services.end(), service) == services.end())
        services.push_back(service);
    }
  }
  int r = sd_bus_message_open_container(reply, 'a', "s");
  for (const std::string& service : services) {
    if (r >= 0) r = sd_bus_message_append(reply, "s", service.c_str());
  }
  return r < 0 ? r : sd_bus_message_close_container(reply);
}

int CBusBroker::GetServicesKnown(sd_bus*, const char*, const char*, const char*,
                                 sd_bus_message* reply, void* self, sd_bus_error*) {
  const std::vector<Plugin>& plugins = Self(self)->plugins_;
  const bool known = std::all_of(plugins.begin(), plugins.end(), [](const Plugin& plugin) {
    return !plugin.loaded || !plugin.services.empty();
  });
  return sd_bus_message_append(reply, "b", static_cast<int>(known));
}

int CBusBroker::GetCallers(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                           void* self, sd_bus_error*) {
  return sd_bus_message_append(reply, "u", static_cast<uint32_t>(Self(self)->Callers()));
}

// ---- methods ----

CCaller* CBusBroker::ReadService(sd_bus_message* m, std::string* service, sd_bus_error* error) {
  const char* name = nullptr;
  if (sd_bus_message_read(m, "s", &name) < 0) {
    Refuse(error, SD_BUS_ERROR_INVALID_ARGS, "the service name cannot be read");
    return nullptr;
  }
  if (*name == '\0') {
    Refuse(error, ErrorName(HXF_ERROR_INVALID_SERVICE_NAME), "the service name is empty");
    return nullptr;
  }
  *service = name;
  if (!context_.NameFits("the service name", *service, error)) return nullptr;
  return context_.Callers().Of(m, error);
}

int CBusBroker::OnSearch(sd_bus_message* m, void* self, sd_bus_error* error) {
  return Self(self)->StartWatch(m, false, error);
}

int CBusBroker::OnListen(sd_bus_message* m, void* self, sd_bus_error* error) {
  return Self(self)->StartWatch(m, true, error);
}

int CBusBroker::StartWatch(sd_bus_message* m, bool listen, sd_bus_error* error) {
  const char* service = nullptr;
  uint32_t timeout_ms = 0;
  int r = listen ? sd_bus_message_read(m, "s", &service)
                 : sd_bus_message_read(m, "su", &service, &timeout_ms);
  if (r < 0) return r;
  if (*service == '\0')
    return Refuse(error, ErrorName(HXF_ERROR_INVALID_SERVICE_NAME), "the service name is empty");
  if (!listen && timeout_ms == 0)
    return Refuse(error, ErrorName(HXF_ERROR_INVALID_PARAMETER), "timeout_ms must be above 0");
  if (!context_.NameFits("the service name", service, error)) return -EINVAL;
  if (!listen && timeout_ms > context_.Limit().search_timeout_ms)
    return RefuseLimit(error,
                       "timeout_ms " + std::to_string(timeout_ms) + " is above " +
                           std::to_string(context_.Limit().search_timeout_ms) + " ms",
                       "max-search-timeout-ms");
  CCaller* caller = context_.Callers().Of(m, error);
  if (caller == nullptr) return -EINVAL;
  return caller->StartWatch(m, service, listen, timeout_ms, error);
}

int CBusBroker::OnGetDevices(sd_bus_message* m, void* self, sd_bus_error* error) {
  const char* service = nullptr;
  uint32_t timeout_ms = 0;
  const int r = sd_bus_message_read(m, "su", &service, &timeout_ms);
  if (r < 0) return r;
  if (!CallTimeoutFits(timeout_ms, error)) return -EINVAL;
  if (!Self(self)->context_.NameFits("the service name", service, error)) return -EINVAL;
  CCaller* caller = Self(self)->context_.Callers().Of(m, error);
  if (caller == nullptr) return -EINVAL;
  return caller->GetDevices(m, service, timeout_ms, error);
}

int CBusBroker::OnSubscribe(sd_bus_message* m, void* self, sd_bus_error* error) {
  std::string service;
  CCaller* caller = Self(self)->ReadService(m, &service, error);
  if (caller == nullptr) return -EINVAL;
  return caller->Subscribe(m, service, error);
}

int CBusBroker::OnRequest(sd_bus_message* m, void* self, sd_bus_error* error) {
  std::string service;
  CCaller* caller = Self(self)->ReadService(m, &service, error);
  if (caller == nullptr) return -EINVAL;
  return caller->DirectRequest(m, service, error);
}

void CBusBroker::SetMonitorAccess(std::vector<uid_t> users, std::string group) {
  monitor_users_ = std::move(users);
  monitor_group_ = std::move(group);
}

bool CBusBroker::MayMonitor(sd_bus_message* m, std::string* why) const {
  // Every caller's requests, payloads and devices: for root, hxfd's own user and the group
  // named in the configuration only. The bus policy says as much; hxfd does not rely on it.
  sd_bus_creds* raw = nullptr;
  int r = sd_bus_query_sender_creds(
      m, SD_BUS_CREDS_EUID | SD_BUS_CREDS_UID | SD_BUS_CREDS_EGID | SD_BUS_CREDS_GID |
             SD_BUS_CREDS_SUPPLEMENTARY_GIDS | SD_BUS_CREDS_AUGMENT,
      &raw);
  // A direct connection (no bus daemon to ask) has one peer: its credentials.
  if (r < 0 && sd_bus_is_bus_client(sd_bus_message_get_bus(m)) <= 0)
    r = sd_bus_get_owner_creds(sd_bus_message_get_bus(m),
                               SD_BUS_CREDS_EUID | SD_BUS_CREDS_UID | SD_BUS_CREDS_EGID |
                                   SD_BUS_CREDS_GID | SD_BUS_CREDS_SUPPLEMENTARY_GIDS |
                                   SD_BUS_CREDS_AUGMENT,
                               &raw);
  std::unique_ptr<sd_bus_creds, sd_bus_creds* (*)(sd_bus_creds*)> creds(raw, &sd_bus_creds_unref);
  uid_t uid = 0;
  if (r < 0 || (sd_bus_creds_get_euid(raw, &uid) < 0 && sd_bus_creds_get_uid(raw, &uid) < 0)) {
    *why = "the caller's user cannot be told";
    return false;
  }
  if (std::find(monitor_users_.begin(), monitor_users_.end(), uid) != monitor_users_.end())
    return true;
  std::vector<gid_t> gids;
  gid_t gid = 0;
  if (sd_bus_creds_get_egid(raw, &gid) >= 0 || sd_bus_creds_get_gid(raw, &gid) >= 0)
    gids.push_back(gid);
  const gid_t* more = nullptr;
  const int n = sd_bus_creds_get_supplementary_gids(raw, &more);
  for (int i = 0; i < n; ++i) gids.push_back(more[i]);
  const struct group* group = monitor_group_.empty() ? nullptr : getgrnam(monitor_group_.c_str());
  if (group != nullptr && std::find(gids.begin(), gids.end(), group->gr_gid) != gids.end())
    return true;
  *why = "user " + std::to_string(uid) + " is not root, not hxfd's own user and not in group " +
         (monitor_group_.empty() ? std::string("(none configured)") : monitor_group_) +
         (group == nullptr && !monitor_group_.empty() ? " (no such group)" : "");
  return false;
}

int CBusBroker::OnMonitor(sd_bus_message* m, void* self, sd_bus_error* error) {
  CBusBroker* broker = Self(self);
  std::string why;
  if (!broker->MayMonitor(m, &why))
    return Refuse(error, SD_BUS_ERROR_ACCESS_DENIED, "the monitor shows every caller's traffic: " + why);
  CCaller* caller = broker->context_.Callers().Of(m, error);
  if (caller == nullptr) return -EINVAL;
  broker->context_.Monitor().Add(caller->Name());
  return sd_bus_reply_method_return(m, "");
}

}  // namespace hxfd
