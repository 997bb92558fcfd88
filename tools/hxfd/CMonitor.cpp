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

void CMonitor::Event(hxf_tool::MonitorType type, const std::string& caller, const std::string& service,
                     const std::string& operation, uint64_t transaction,
                     const std::function<int(sd_bus_message*)>& payload) const {
  if (monitors_.empty()) return;
  const uint64_t now = NowUs();
  for (const std::string& monitor : monitors_) {
    SendTo(bus_, monitor, hxf_tool::kBrokerPath, hxf_tool::kMonitorInterface, "Event",
           [&](sd_bus_message* m) {
             const int r = sd_bus_message_append(m, "tsssst", now, hxf_tool::Name(type), caller.c_str(),
                                                 service.c_str(), operation.c_str(), transaction);
             return r < 0 ? r : payload(m);
           });
  }
}

void CMonitor::Event(hxf_tool::MonitorType type, const std::string& caller) const {
  Event(type, caller, "", "", 0,
        [](sd_bus_message* m) { return sd_bus_message_append(m, "a{sv}", 0); });
}

}  // namespace hxfd
