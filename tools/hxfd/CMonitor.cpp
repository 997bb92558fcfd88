#include "CMonitor.h"

#include <chrono>
#include <cstdio>
#include <cstring>

#include "BusValues.h"

namespace hxfd {

namespace {

const sd_bus_vtable kMonitorVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_SIGNAL_WITH_NAMES("Event", "tssssta{sv}",
                             SD_BUS_PARAM(timestamp_us) SD_BUS_PARAM(type) SD_BUS_PARAM(caller)
                                 SD_BUS_PARAM(service) SD_BUS_PARAM(operation)
                                     SD_BUS_PARAM(transaction) SD_BUS_PARAM(payload),
                             0),
    SD_BUS_VTABLE_END};

uint64_t NowUs() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

}  // namespace

void SendTo(sd_bus* bus, const std::string& owner, const std::string& path, const char* interface,
            const char* member, const std::function<int(sd_bus_message*)>& fill) {
  hxf_tool::BusMessage m;
  int r = sd_bus_message_new_signal(bus, hxf_tool::Out(m), path.c_str(), interface, member);
  if (r >= 0) r = sd_bus_message_set_destination(m.get(), owner.c_str());
  if (r >= 0) r = fill(m.get());
  if (r >= 0) r = sd_bus_send(bus, m.get(), nullptr);
  if (r < 0)
    std::fprintf(stderr, "hxfd: cannot send %s to %s: %s\n", member, owner.c_str(),
                 std::strerror(-r));
}

int CMonitor::Start() {
  return sd_bus_add_object_vtable(bus_, hxf_tool::Out(slot_), hxf_tool::kBrokerPath,
                                  hxf_tool::kMonitorInterface, kMonitorVtable, this);
}

void CMonitor::Event(hxf_tool::MonitorType type, const std::string& caller,
                     const std::string& service, const std::string& operation,
                     uint64_t transaction, const std::function<int(sd_bus_message*)>& payload) {
  if (monitors_.empty()) return;
  const uint64_t now = NowUs();
  for (auto it = monitors_.begin(); it != monitors_.end();) {
    const bool kept = Deliver(it->first, it->second, [&](sd_bus_message* m) {
      const int r = sd_bus_message_append(m, "tsssst", now, hxf_tool::Name(type), caller.c_str(),
                                          service.c_str(), operation.c_str(), transaction);
      return r < 0 ? r : payload(m);
    });
    it = kept ? std::next(it) : monitors_.erase(it);
  }
}

bool CMonitor::Deliver(const std::string& monitor, Reader& reader,
                       const std::function<int(sd_bus_message*)>& fill) {
  constexpr uint64_t kPingEvery = 64;
  if (unread_limit_ != 0 && reader.sent - reader.read >= unread_limit_) {
    std::fprintf(stderr,
                 "hxfd: monitor %s dropped: it left %llu events unread (limit "
                 "max-monitor-unread in hxfd.conf); it gets no more\n",
                 monitor.c_str(), static_cast<unsigned long long>(reader.sent - reader.read));
    return false;
  }
  SendTo(bus_, monitor, hxf_tool::kBrokerPath, hxf_tool::kMonitorInterface, "Event", fill);
  ++reader.sent;
  if (reader.ping == nullptr && reader.sent - reader.read >= kPingEvery) {
    reader.pinged_at = reader.sent;
    const int r = sd_bus_call_method_async(bus_, hxf_tool::Out(reader.ping), monitor.c_str(), "/",
                                           "org.freedesktop.DBus.Peer", "Ping", &CMonitor::OnPong,
                                           this, "");
    if (r < 0) reader.ping.reset();
  }
  return true;
}

int CMonitor::OnPong(sd_bus_message*, void* self, sd_bus_error*) {
  auto* monitor = static_cast<CMonitor*>(self);
  for (auto& [name, reader] : monitor->monitors_) {
    if (reader.ping == nullptr || sd_bus_get_current_slot(monitor->bus_) != reader.ping.get())
      continue;
    // An error answers too: the monitor read the ping.
    reader.read = reader.pinged_at;
    reader.ping.reset();
    break;
  }
  return 0;
}

void CMonitor::Event(hxf_tool::MonitorType type, const std::string& caller) {
  Event(type, caller, "", "", 0,
        [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 0); });
}

}  // namespace hxfd
