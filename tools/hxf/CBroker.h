// The broker the commands talk to: the core in this process (CCoreBroker), or hxfd over
// D-Bus (CBusClient). Its methods are called on the main thread and return at once with
// HXF_ERROR_NONE or the code that refused the call; what the broker answers later arrives
// as events on the queue the broker was given.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CEventQueue.h"

namespace hxf_tool {

class CBroker {
 public:
  virtual ~CBroker() = default;

  // kFound events: a device each, or HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT without one when
  // the search ended before finding any.
  virtual int Search(const std::string& service, uint32_t timeout_ms) = 0;
  virtual void StopSearch(const std::string& service) = 0;
  // kFound events until stopped; departures and arrivals are marked in the device's UI meta.
  virtual int Listen(const std::string& service) = 0;
  virtual void StopListen(const std::string& service) = 0;
  // One kList event (HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT without devices when none came in
  // time), or a kRefused event.
  virtual int AskDevices(const std::string& service, uint32_t timeout_ms) = 0;
  // `*session` names the new session; its notifications arrive as kNotification events.
  virtual int Subscribe(const std::string& service, uint64_t* session) = 0;
  // One kResult event carrying `*transaction`.
  virtual int Request(uint64_t session, const std::string& operation,
                      const std::vector<PropertyValue>& properties, uint32_t timeout_ms,
                      uint64_t* transaction) = 0;
  // kMonitor events: everything the broker sees, whoever caused it. Only a broker that
  // serves other processes has them.
  virtual int Monitor() = 0;
  // The services the broker's plugins offer, when it can tell: false when it cannot (a
  // plugin that does not declare its services may offer any).
  virtual bool OfferedServices(std::vector<std::string>* services) {
    (void)services;
    return false;
  }
  // The providers (plugin names) that may offer `service`, when the tool must reach each on
  // its own ("S@PROVIDER", Provider.h). False when the broker routes requests to the provider
  // of their device itself (hxfd does), or cannot tell.
  virtual bool Providers(const std::string& service, std::vector<std::string>* providers) {
    (void)service;
    (void)providers;
    return false;
  }
  // A plugin the broker was asked to load: its description, its load state ("loaded" or
  // "failed") and why it failed.
  struct LoadedPlugin {
    std::string name, description, state, reason;
  };
  // The plugins the broker was asked to load, in load order, when it can tell (hxfd does).
  virtual bool LoadedPlugins(std::vector<LoadedPlugin>* plugins) {
    (void)plugins;
    return false;
  }
};

}  // namespace hxf_tool
