#pragma once

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
class HXF_TPL_API CThreadPoolInvokerImpl {
 public:
  explicit CThreadPoolInvokerImpl(std::size_t thread_count);
  ~CThreadPoolInvokerImpl();

  // An empty function throws std::bad_function_call.
  void Invoke(std::function<void()>&& fn) HXF_EXCLUDES(mutex_);
  std::size_t ThreadCount() const { return workers_.size(); }

  CThreadPoolInvokerImpl(const CThreadPoolInvokerImpl&) = delete;
  CThreadPoolInvokerImpl& operator=(const CThreadPoolInvokerImpl&) = delete;

 private:
  void _WorkerLoop() HXF_EXCLUDES(mutex_);

  CMutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> queue_ HXF_GUARDED_BY(mutex_);
  bool stopping_ HXF_GUARDED_BY(mutex_) = false;
  std::vector<std::thread> workers_;
};

}  // namespace HXFramework::TPL
