#include "CThreadPoolInvokerImpl.h"

#include <utility>

namespace HXFramework::TPL {

CThreadPoolInvokerImpl::CThreadPoolInvokerImpl(std::size_t thread_count) {
  if (thread_count == 0) thread_count = 1;
  workers_.reserve(thread_count);
  for (std::size_t i = 0; i < thread_count; ++i) {
    workers_.emplace_back([this] { _WorkerLoop(); });
  }
}

CThreadPoolInvokerImpl::~CThreadPoolInvokerImpl() {
  {
    CMutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

void CThreadPoolInvokerImpl::Invoke(std::function<void()>&& fn) {
  if (!fn) throw std::bad_function_call();
  {
    CMutexLock lock(mutex_);
    queue_.push_back(std::move(fn));
  }
  wake_.notify_one();
}

void CThreadPoolInvokerImpl::_WorkerLoop() {
  CMutexLock lock(mutex_);
  for (;;) {
    while (!stopping_ && queue_.empty()) wake_.wait(lock.Native());
    if (queue_.empty()) return;  // stopping, and everything accepted has run
    std::function<void()> fn = std::move(queue_.front());
    queue_.pop_front();
    // The queue lock is never held while a function runs: functions post to the pool.
    lock.Unlock();
    try {
      fn();
    } catch (...) {
      // A task's failure is its own business; the worker must survive it.
    }
    fn = nullptr;  // release captures before re-taking the lock (their destructors may post)
    lock.Lock();
  }
}

}  // namespace HXFramework::TPL
