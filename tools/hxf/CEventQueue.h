// What the core's callbacks (or hxfd's signals) tell the tool, handed from their threads to the
// main thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "CLocks.h"
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

// The main thread's one loop and the one way to hand it work. Any thread Pushes an event,
// copied in whole so that no handle of a callback outlives the callback, and wakes the loop
// through an eventfd; the thread that made the queue (the owner) waits in poll() on that
// eventfd and on a signalfd for SIGINT and SIGTERM, so that Ctrl-C comes through the same loop
// as an event (kInterrupt, ahead of any event still queued: it stops a command at once).
class CEventQueue {
 public:
  using Clock = std::chrono::steady_clock;

  // Blocks SIGINT and SIGTERM in the calling thread, and so in every thread made from it later
  // (make the queue before any other thread), and takes them through a signalfd.
  CEventQueue();
  ~CEventQueue();
  CEventQueue(const CEventQueue&) = delete;
  CEventQueue& operator=(const CEventQueue&) = delete;

  // Any thread.
  void Push(Event event);
  // Any thread: the owner's Until looks at its condition again.
  void Wake();
  // The owner: the next event, or false when `deadline` passes first.
  bool Next(Event* event, Clock::time_point deadline);
  // The owner: waits until `done()` holds, which another thread makes so and then Wakes.
  // Events and stop signals that come meanwhile stay queued for Next.
  void Until(const std::function<bool()>& done);
  // The owner: whether SIGINT or SIGTERM came, up to now.
  bool Interrupted();

 private:
  void _AssertOwner() const;
  // One wait in poll() for a wake-up or a signal, at most until `deadline`.
  void _Wait(Clock::time_point deadline);
  // Queues a kInterrupt for each stop signal taken, without waiting.
  void _TakeSignals();

  const std::thread::id owner_;
  int wake_fd_ = -1;
  int signal_fd_ = -1;
  bool interrupted_ = false;  // the owner's only
  HXFramework::CMutex mutex_;
  std::deque<Event> events_ HXF_GUARDED_BY(mutex_);
};

}  // namespace hxf_tool
