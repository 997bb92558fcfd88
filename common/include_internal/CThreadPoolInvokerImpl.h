#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
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
// most kSpin) watching the queue, then parks on the condition variable; Invoke wakes a
// parked worker only when no worker is spinning, since the spinner takes the function
// without the cost of parking and waking a thread.
class HXF_TPL_API CThreadPoolInvokerImpl {
 public:
  explicit CThreadPoolInvokerImpl(std::size_t thread_count);
  ~CThreadPoolInvokerImpl();

  // An empty function throws std::bad_function_call.
  void Invoke(std::function<void()>&& fn) HXF_EXCLUDES(mutex_);
  std::size_t ThreadCount() const { return workers_.size(); }

  // How long an idle worker looks for work before it parks.
  static constexpr std::chrono::microseconds kSpin{10};

  CThreadPoolInvokerImpl(const CThreadPoolInvokerImpl&) = delete;
  CThreadPoolInvokerImpl& operator=(const CThreadPoolInvokerImpl&) = delete;

 private:
  void _WorkerLoop() HXF_EXCLUDES(mutex_);
  // Spins (the lock released) until work is queued or kSpin has passed.
  void _Spin() HXF_REQUIRES(mutex_);

  CMutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_ HXF_GUARDED_BY(mutex_);
  bool stopping_ HXF_GUARDED_BY(mutex_) = false;
  std::size_t parked_ HXF_GUARDED_BY(mutex_) = 0;  // workers waiting on wake_
  bool spinning_ HXF_GUARDED_BY(mutex_) = false;   // a worker is in _Spin
  // The queue's length, also read by the spinner without the lock (written under it).
  std::atomic<std::size_t> queued_{0};
  std::vector<std::thread> workers_;
};

}  // namespace HXFramework::TPL
