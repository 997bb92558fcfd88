// What every object of hxfd shares, on the bus thread: the bus and its loop, the core's routes,
// the monitor and the callers.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <string>

#include "CCallers.h"
#include "CCoreRoutes.h"
#include "CMonitor.h"

namespace hxfd {

// A D-Bus caller waits 25 s for an answer unless it says otherwise (the default of libdbus,
// sd-bus and GDBus); a time-out that long would be answered after the caller gave up.
constexpr uint32_t kCallTimeoutMs = 25000;

class CBusContext {
 public:
  CBusContext(sd_bus* bus, sd_event* event)
      : bus_(bus), event_(event), monitor_(bus), callers_(*this) {}
  CBusContext(const CBusContext&) = delete;
  CBusContext& operator=(const CBusContext&) = delete;

  sd_bus* Bus() const { return bus_; }
  sd_event* Event() const { return event_; }
  CCoreRoutes& Routes() { return routes_; }
  CMonitor& Monitor() { return monitor_; }
  CCallers& Callers() { return callers_; }
  // A new object path under the broker's: /org/hxf/Broker/KIND/N.
  std::string NewPath(const char* kind);

 private:
  sd_bus* bus_;
  sd_event* event_;
  uint64_t next_object_ = 1;
  // Destroyed in reverse: the callers (their core clients, objects and tokens) first.
  CCoreRoutes routes_;
  CMonitor monitor_;
  CCallers callers_;
};

// Sets `error` to `name` with `message`; returns a negative errno for the handler to return.
int Refuse(sd_bus_error* error, const char* name, const std::string& message);
// A method answered only when the core answers must be answered before the caller gives up.
bool CallTimeoutFits(uint32_t timeout_ms, sd_bus_error* error);
hxf_string View(const std::string& text);

}  // namespace hxfd
