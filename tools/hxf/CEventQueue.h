// What the core's callbacks tell the tool, handed from the core's threads to the main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "CoreValues.h"

namespace hxf_tool {

struct Event {
  enum Kind { kLoaded, kFound, kList, kResult, kNotification, kInterrupt };
  explicit Event(Kind event_kind = kInterrupt) : kind(event_kind) {}

  Kind kind;
  int code = 0;                           // load result, discovery result or error
  std::string name;                       // plugin or service name
  std::vector<Device> devices;            // kFound (one), kList (many)
  std::string list_name;                  // kResult, kNotification
  std::vector<PropertyValue> properties;  // kResult, kNotification
  void* transaction = nullptr;
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
