// What every object of hxfd shares, on the bus thread: the bus and its loop, the core's routes,
// the monitor and the callers.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "CCallerObjects.h"
#include "CCallers.h"
#include "CCoreRoutes.h"
#include "CDeviceRoutes.h"
#include "CMonitor.h"

namespace hxfd {

// A D-Bus caller waits 25 s for an answer unless it says otherwise (the default of libdbus,
// sd-bus and GDBus); a time-out that long would be answered after the caller gave up.
constexpr uint32_t kCallTimeoutMs = 25000;

// What one caller may hold and send, and what a monitor may leave unread; hxfd.conf sets
// them (hxfd(1), LIMITS). A call beyond one is refused org.hxf.Error.LimitsExceeded, naming it.
struct Limits {
  uint32_t sessions = 256;             // per caller: Subscribe's, and Request's one per service
  uint32_t watches = 256;              // per caller: searches and listens
  uint32_t pending = 1024;             // per caller: device lists and requests awaiting the core
  uint32_t name_bytes = 255;           // a service, operation or property name
  uint32_t text_bytes = 64 * 1024;     // a text value
  uint32_t request_bytes = 1 << 20;    // a request's names and values together
  uint32_t search_timeout_ms = 3600 * 1000;  // a search's time-out
  uint32_t monitor_unread = 4096;      // events a monitor has not read: it is dropped beyond
};

// Who still needs a provider's search of a service (a listen, or a search or a device list).
// The core tells every provider to stop when any one client stops, even while others still
// search: hxfd tells the core only when the last one that needs it ends.
class CProviderSearches {
 public:
  void Begin(const std::string& service, bool listen) { ++needs_[{service, listen}].count; }
  // Whether the core is to be told to stop now: `stops` says the one ending would stop it; a
  // stop held back while others still searched is owed to the last one.
  bool End(const std::string& service, bool listen, bool stops) {
    const auto found = needs_.find({service, listen});
    if (found == needs_.end()) return stops;
    Need& need = found->second;
    if (--need.count > 0) {
      need.stop_owed = need.stop_owed || stops;
      return false;
    }
    const bool stop = stops || need.stop_owed;
    needs_.erase(found);
    return stop;
  }
  size_t Count() const { return needs_.size(); }

 private:
  struct Need {
    int count = 0;
    bool stop_owed = false;
  };
  std::map<std::pair<std::string, bool>, Need> needs_;
};

class CBusContext {
 public:
  CBusContext(sd_bus* bus, sd_event* event)
      : bus_(bus), event_(event), devices_(*this), monitor_(bus), callers_(*this) {}
  CBusContext(const CBusContext&) = delete;
  CBusContext& operator=(const CBusContext&) = delete;

  sd_bus* Bus() const { return bus_; }
  sd_event* Event() const { return event_; }
  CCoreRoutes& Routes() { return routes_; }
  CMonitor& Monitor() { return monitor_; }
  CCallers& Callers() { return callers_; }
  CCallerObjects& Objects() { return objects_; }
  CProviderSearches& Searches() { return searches_; }
  CDeviceRoutes& Devices() { return devices_; }
  Limits& Limit() { return limits_; }
  // Whether `name` (the service's, the operation's...: `what`) is short enough; `error` set
  // when not, quoting only its start.
  bool NameFits(const char* what, const std::string& name, sd_bus_error* error) const;
  // A new object path under the broker's, /org/hxf/Broker/KIND/ID: ID is random (64 bits), so
  // that no caller can guess another's objects.
  std::string NewPath(const char* kind);

 private:
  sd_bus* bus_;
  sd_event* event_;
  CProviderSearches searches_;
  Limits limits_;
  CCallerObjects objects_;  // outlives the callers' objects
  // Destroyed in reverse: the callers (their core clients, objects and tokens) first.
  CCoreRoutes routes_;
  CDeviceRoutes devices_;
  CMonitor monitor_;
  CCallers callers_;
};

// hxfd's own error for a call beyond one of its limits (Limits).
constexpr const char* kErrorLimitsExceeded = "org.hxf.Error.LimitsExceeded";
// `text` as an error quotes it: the first bytes only.
std::string Quoted(const std::string& text);
// Refuses with kErrorLimitsExceeded: what went beyond, and the limit's key in hxfd.conf.
int RefuseLimit(sd_bus_error* error, const std::string& what, const char* key);

// Sets `error` to `name` with `message`; returns a negative errno for the handler to return.
int Refuse(sd_bus_error* error, const char* name, const std::string& message);
// A method answered only when the core answers must be answered before the caller gives up.
bool CallTimeoutFits(uint32_t timeout_ms, sd_bus_error* error);
hxf_string View(const std::string& text);
// Destroys `client` once the work already queued on it has run. A synchronous destroy drops
// what it finds queued, so a stop sent just before was lost and the provider searched on for
// nobody.
void DestroyAfterQueuedWork(hxf_client_h client);

}  // namespace hxfd
