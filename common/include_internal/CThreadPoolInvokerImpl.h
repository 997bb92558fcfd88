#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "CLocks.h"
#include "TPLExport.h"

namespace HXFramework::TPL {

// A fixed set of worker threads fed from one FIFO queue.
// Contract: Invoke takes ownership, never runs the function inline, and every accepted
// function runs exactly once on a worker. Functions of different callers may run
// concurrently. An exception escaping a function is swallowed; the worker lives on.
// Destruction runs what is still queued, then joins the workers.
// Waking: a worker that runs out of work first spins for a moment (one worker at a time, at
// most kSpin) watching the queue, then parks. Invoke wakes a parked worker only when no
// worker is spinning, since the spinner takes the function without the cost of parking and
// waking a thread, and only when the function is not a worker's continuation:
// - A function a worker posts into an empty queue is left for that worker, which takes it
//   when its own function returns (a request's second hand-off is posted from the
//   provider's callback, which then returns): waking another thread for it would cost a
//   wake-up and a park for nothing. A second posting of the same worker wakes as usual, so
//   a fan-out still runs in parallel.
// - In case the poster does not return soon (its function blocks after posting), one parked
//   worker is the standby: it wakes every kStandbyTick while the pool is busy, and takes a
//   function that waited in the queue for a whole tick. A standby that has seen
//   kStandbyIdleTicks ticks without work parks without a time-out until the next continuation
//   is left to a worker.
class HXF_TPL_API CThreadPoolInvokerImpl {
 public:
  explicit CThreadPoolInvokerImpl(std::size_t thread_count);
  ~CThreadPoolInvokerImpl();

  // An empty function throws std::bad_function_call.
  void Invoke(std::function<void()>&& fn) HXF_EXCLUDES(mutex_);
  std::size_t ThreadCount() const { return workers_.size(); }
  // Workers parked now (the standby included): for tests that need the pool idle.
  std::size_t ParkedCount() HXF_EXCLUDES(mutex_);

  // How long an idle worker looks for work before it parks.
  static constexpr std::chrono::microseconds kSpin{10};
  // How often the standby looks at the queue, and how many idle looks it takes to stop.
  static constexpr std::chrono::milliseconds kStandbyTick{1};
  static constexpr int kStandbyIdleTicks = 100;

  CThreadPoolInvokerImpl(const CThreadPoolInvokerImpl&) = delete;
  CThreadPoolInvokerImpl& operator=(const CThreadPoolInvokerImpl&) = delete;

 private:
  void _WorkerLoop() HXF_EXCLUDES(mutex_);
  // Spins (the lock released) until work is queued or kSpin has passed.
  void _Spin() HXF_REQUIRES(mutex_);
  // Parks the calling worker until there is work (or the pool stops): as the standby if
  // there is none, else as an ordinary parked worker.
  void _Park(CMutexLock& lock) HXF_REQUIRES(mutex_);
  void _StandBy(CMutexLock& lock) HXF_REQUIRES(mutex_);

  CMutex mutex_;
  std::condition_variable wake_;     // ordinary parked workers wait here
  std::condition_variable standby_wake_;  // the standby waits here
  std::deque<std::function<void()>> queue_ HXF_GUARDED_BY(mutex_);
  bool stopping_ HXF_GUARDED_BY(mutex_) = false;
  std::size_t parked_ HXF_GUARDED_BY(mutex_) = 0;  // workers waiting on wake_
  bool spinning_ HXF_GUARDED_BY(mutex_) = false;   // a worker is in _Spin
  bool standby_ HXF_GUARDED_BY(mutex_) = false;    // a worker waits on standby_wake_
  bool standby_ticking_ HXF_GUARDED_BY(mutex_) = false;  // ... with a time-out
  bool standby_called_ HXF_GUARDED_BY(mutex_) = false;   // ... and is called for work
  uint64_t taken_ HXF_GUARDED_BY(mutex_) = 0;  // functions taken from the queue so far
  // The queue's length, also read by the spinner without the lock (written under it).
  std::atomic<std::size_t> queued_{0};
  std::vector<std::thread> workers_;
};

}  // namespace HXFramework::TPL
