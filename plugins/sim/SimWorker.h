// The simulator's own thread: runs posted tasks in due-time order. Callbacks from the core
// post here and return, except a request, whose work is smaller than a hand-off: it runs on
// the calling thread, never at the same time as a task of the worker (RunNow).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>

#include "CLocks.h"

namespace hxf_sim {

class Worker {
 public:
  using Task = std::function<void()>;

  void Start();
  // Runs no further task and joins the thread; later posts are dropped.
  void Stop();
  void Post(Task task, uint32_t delay_ms = 0);
  // Runs `task` on the calling thread, never while a posted task or another RunNow runs;
  // dropped after Stop. Not from a task (the worker's lock is not recursive).
  void RunNow(const Task& task);
  // Stops the process when the caller is not the worker: for code that touches what only
  // the worker may.
  void AssertOnWorker() const;

 private:
  using Clock = std::chrono::steady_clock;
  void Run();

  HXFramework::CMutex running_;  // held while a task runs, on the worker or in RunNow
  HXFramework::CMutex mutex_;    // taken after running_ when both are
  std::condition_variable wake_;  // the one hand-off: Post wakes the worker
  // (due, posting order)
  std::multimap<std::pair<Clock::time_point, uint64_t>, Task> tasks_ HXF_GUARDED_BY(mutex_);
  uint64_t sequence_ HXF_GUARDED_BY(mutex_) = 0;
  bool stopping_ HXF_GUARDED_BY(mutex_) = false;
  std::thread thread_;
  std::thread::id worker_id_;  // set by the worker before its first task
};

}  // namespace hxf_sim
