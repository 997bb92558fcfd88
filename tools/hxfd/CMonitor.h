// org.hxf.Monitor1 at /org/hxf/Broker: the callers of Broker1.Monitor, and the Event signal
// each of them gets for every event of hxfd.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "MonitorTypes.h"
#include "SdBusHolders.h"

namespace hxfd {

class CMonitor {
 public:
  explicit CMonitor(sd_bus* bus) : bus_(bus) {}
  // Registers the interface (its signal, for introspection). A negative errno on failure.
  int Start();

  void Add(const std::string& caller) { monitors_.emplace(caller, Reader{}); }
  void Remove(const std::string& caller) { monitors_.erase(caller); }
  // A monitor that leaves more than `unread` events unread is dropped (0: never).
  void SetUnreadLimit(uint64_t unread) { unread_limit_ = unread; }
  size_t Count() const { return monitors_.size(); }

  // An Event to every monitor; `payload` appends one a{sv}.
  void Event(hxf_tool::MonitorType type, const std::string& caller, const std::string& service,
             const std::string& operation, uint64_t transaction,
             const std::function<int(sd_bus_message*)>& payload);
  // The same with an empty payload.
  void Event(hxf_tool::MonitorType type, const std::string& caller);

 private:
  sd_bus* bus_;
  hxf_tool::BusSlot slot_;
  // How far a monitor has read: every kPingEvery events it is pinged (org.freedesktop.DBus.Peer,
  // which every D-Bus library answers as it reads), and the events sent before the last ping
  // it answered are read. One that does not read would have the bus daemon, then hxfd, queue
  // every event for it.
  struct Reader {
    uint64_t sent = 0, read = 0, pinged_at = 0;
    hxf_tool::BusSlot ping;  // the ping waiting for its answer
  };
  static int OnPong(sd_bus_message* m, void* self, sd_bus_error*);
  // Sends one Event to `monitor`, or drops it; false when dropped.
  bool Deliver(const std::string& monitor, Reader& reader,
               const std::function<int(sd_bus_message*)>& fill);
  std::map<std::string, Reader> monitors_;
  uint64_t unread_limit_ = 4096;
};

// A signal of `path` to `owner` only (a signal with a destination reaches no other
// connection); a failure is logged.
void SendTo(sd_bus* bus, const std::string& owner, const std::string& path, const char* interface,
            const char* member, const std::function<int(sd_bus_message*)>& fill);

}  // namespace hxfd
