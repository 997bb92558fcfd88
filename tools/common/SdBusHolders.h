// Owning holders for sd-bus and sd-event objects: each releases its one reference when it goes,
// so no code path forgets an unref or does one twice. An event source is disabled as well,
// so that its handler cannot run once its holder is gone.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>

namespace hxf_tool {

struct SlotUnref {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
struct SourceUnref {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
struct TrackUnref {
  void operator()(sd_bus_track* track) const { sd_bus_track_unref(track); }
};

using BusSlot = std::unique_ptr<sd_bus_slot, SlotUnref>;
using BusMessage = std::unique_ptr<sd_bus_message, MessageUnref>;
using EventSource = std::unique_ptr<sd_event_source, SourceUnref>;
using BusTrack = std::unique_ptr<sd_bus_track, TrackUnref>;

// A new reference to `message`, held.
inline BusMessage Hold(sd_bus_message* message) {
  return BusMessage(sd_bus_message_ref(message));
}

// Fills a holder through an sd-bus out-parameter: sd_bus_add_match(bus, Out(slot), ...).
template <typename Holder>
class OutParam {
 public:
  explicit OutParam(Holder& holder) : holder_(holder) {}
  ~OutParam() { holder_.reset(raw_); }
  OutParam(const OutParam&) = delete;
  OutParam& operator=(const OutParam&) = delete;
  operator typename Holder::pointer *() { return &raw_; }  // NOLINT: used as the out-parameter

 private:
  Holder& holder_;
  typename Holder::pointer raw_ = nullptr;
};
template <typename Holder>
OutParam<Holder> Out(Holder& holder) {
  return OutParam<Holder>(holder);
}

}  // namespace hxf_tool
