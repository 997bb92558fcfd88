// The broker object, /org/hxf/Broker of org.hxf.Broker: org.hxf.Broker1's methods, which make
// each caller's watches (CWatch), sessions (CSession) and waiting calls (CCaller), and its
// properties. It owns what every object shares (CBusContext): the core's routes to the bus
// thread, the monitor (CMonitor) and the callers (CCallers).
//
// Threads: everything here runs on the bus thread (the sd-event loop). The core's callbacks
// reach it through CCoreRoutes only.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <sys/types.h>

#include <string>
#include <vector>

#include "CBusContext.h"
#include "SdBusHolders.h"

namespace hxfd {

class CBusBroker {
 public:
  CBusBroker(sd_bus* bus, sd_event* event);
  ~CBusBroker();
  CBusBroker(const CBusBroker&) = delete;
  CBusBroker& operator=(const CBusBroker&) = delete;

  // On the thread that runs the loop: registers the objects, follows the callers and, when
  // `own_name`, asks for the bus name. A negative errno on failure.
  int Start(bool own_name = true);
  // Destroys every caller's clients; the loop must not run any more.
  void Stop();
  // Records a plugin's load, or its failure and why: the Plugins and Services properties
  // change (PropertiesChanged) and monitors hear of it.
  void PluginLoaded(const std::string& name, bool ok, const std::string& reason = "");

  // Who may call Monitor: these users (by default root and hxfd's own) and the members of
  // `group` (the configuration's monitor-group, by default hxf-monitor).
  void SetMonitorAccess(std::vector<uid_t> users, std::string group);
  // The limits of every caller (before Start).
  void SetLimits(const Limits& limits) {
    context_.Limit() = limits;
    context_.Monitor().SetUnreadLimit(limits.monitor_unread);
  }

  // Runs `task` on the bus thread (any thread).
  void Post(std::function<void()> task) { context_.Routes().Post(std::move(task)); }
  // Bus thread: how many callers hxfd holds state for, and its tokens to the core.
  size_t Callers() const { return context_.Callers().Count(); }

  // Method handlers and property getters, named in the vtable.
  static int OnSearch(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnListen(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnGetDevices(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnSubscribe(sd_bus_message* m, void* self, sd_bus_error* error);
  // Broker1.Request: a request on the caller's own session of the service, for callers that
  // make one call per connection (busctl, gdbus, scripts).
  static int OnRequest(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnMonitor(sd_bus_message* m, void* self, sd_bus_error* error);
  static int GetVersion(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void*, sd_bus_error*);
  static int GetPlugins(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void* self, sd_bus_error*);
  static int GetServices(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* self, sd_bus_error*);
  static int GetServicesKnown(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                              void* self, sd_bus_error*);
  static int GetCallers(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void* self, sd_bus_error*);

 private:
  struct Plugin {  // an entry of the Plugins property
    std::string name, description, reason;
    bool loaded = false;
    std::vector<std::string> services;  // declared; empty: it may offer any
  };
  // Reads the service name that starts `m` and finds or makes its caller; null (with the
  // error set) on an empty name.
  CCaller* ReadService(sd_bus_message* m, std::string* service, sd_bus_error* error);
  int StartWatch(sd_bus_message* m, bool listen, sd_bus_error* error);
  // Whether the caller of `m` may see every caller's traffic; `why` set when not.
  bool MayMonitor(sd_bus_message* m, std::string* why) const;

  mutable CBusContext context_;
  hxf_tool::BusSlot slot_;
  std::vector<Plugin> plugins_;  // in load order
  std::vector<uid_t> monitor_users_;
  std::string monitor_group_;
};

}  // namespace hxfd
