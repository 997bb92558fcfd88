// Tasks for the thread that runs an sd-event loop, handed over from any other thread: the
// only way other threads reach the loop's sd-bus objects, which are not thread-safe.
// Post queues the task under `mutex_` and wakes the loop through an eventfd; the loop runs
// the queued tasks in order, outside the lock (a task may Post again).
#pragma once

#include <systemd/sd-event.h>

#include <deque>
#include <functional>
#include <thread>

#include "CLocks.h"

namespace hxf_tool {

class CLoopTasks {
 public:
  CLoopTasks() = default;
  ~CLoopTasks() { Stop(); }
  CLoopTasks(const CLoopTasks&) = delete;
  CLoopTasks& operator=(const CLoopTasks&) = delete;

  // On the loop's thread, before any Post: a negative errno on failure.
  int Start(sd_event* event);
  // On the loop's thread; tasks not run yet are dropped.
  void Stop();
  // Any thread.
  void Post(std::function<void()> task);
  // Whether the caller runs on the loop's thread (the one that called Start): a cheap check
  // for code that touches the loop's objects.
  bool OnLoopThread() const { return std::this_thread::get_id() == loop_thread_; }

 private:
  static int WakeUp(sd_event_source*, int fd, uint32_t, void* self);

  sd_event_source* source_ = nullptr;
  int fd_ = -1;
  std::thread::id loop_thread_;  // set by Start, before any other thread sees this object
  HXFramework::CMutex mutex_;  // any thread pushes, the loop's thread takes
  std::deque<std::function<void()>> tasks_ HXF_GUARDED_BY(mutex_);
};

}  // namespace hxf_tool
