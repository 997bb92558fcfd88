// What the core's callbacks tell the tool, handed from the core's threads to the main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "CoreValues.h"

namespace hxf_tool {

struct Event {
  enum Kind {
    kLoaded,
    kFound,
    kList,
    kResult,
    kNotification,
    kRefused,
    kMonitor,
    kBrokerGone,
    kInterrupt
  };
  explicit Event(Kind event_kind = kInterrupt) : kind(event_kind) {}

  Kind kind;
  int code = 0;                           // load result, discovery result or error
  std::string name;                       // plugin or service name
  std::vector<Device> devices;            // kFound (one), kList (many)
  std::string list_name;                  // kResult, kNotification; kMonitor: the operation
  std::vector<PropertyValue> properties;  // kResult, kNotification; kMonitor: the payload
  uint64_t transaction = 0;               // kResult, kNotification, kMonitor
  // kMonitor: when the broker saw it (microseconds since the epoch), what it was and whose.
  uint64_t timestamp_us = 0;
  std::string type, caller;
  // kRefused: a call the broker refused after accepting it (`name` the service, `code` why).
  // kBrokerGone: the broker left the bus; nothing more will come.
};

// The hand-off between the core's threads (and the signal thread), which Push, and the
// tool's main thread, which takes: events are copied in whole, so no handle of a callback
// outlives the callback, and one mutex guards the queue.
class CEventQueue {
 public:
  using Clock = std::chrono::steady_clock;

  void Push(Event event);
  // The next event, or false when `deadline` passes first.
  bool Next(Event* event, Clock::time_point deadline);

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Event> events_;
};

}  // namespace hxf_tool
