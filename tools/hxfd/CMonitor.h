// org.hxf.Monitor1 at /org/hxf/Broker: the callers of Broker1.Monitor, and the Event signal
// each of them gets for every event of hxfd.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "MonitorTypes.h"
#include "SdBusHolders.h"

namespace hxfd {

class CMonitor {
 public:
  explicit CMonitor(sd_bus* bus) : bus_(bus) {}
  // Registers the interface (its signal, for introspection). A negative errno on failure.
  int Start();

  void Add(const std::string& caller) { monitors_.insert(caller); }
  void Remove(const std::string& caller) { monitors_.erase(caller); }

  // An Event to every monitor; `payload` appends one a{sv}.
  void Event(hxf_tool::MonitorType type, const std::string& caller, const std::string& service,
             const std::string& operation, uint64_t transaction,
             const std::function<int(sd_bus_message*)>& payload) const;
  // The same with an empty payload.
  void Event(hxf_tool::MonitorType type, const std::string& caller) const;

 private:
  sd_bus* bus_;
  hxf_tool::BusSlot slot_;
  std::set<std::string> monitors_;
};

// A signal of `path` to `owner` only (a signal with a destination reaches no other
// connection); a failure is logged.
void SendTo(sd_bus* bus, const std::string& owner, const std::string& path, const char* interface,
            const char* member, const std::function<int(sd_bus_message*)>& fill);

}  // namespace hxfd
