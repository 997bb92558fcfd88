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
  bool wake = false;
  {
    CMutexLock lock(mutex_);
    queue_.push_back(std::move(fn));
    queued_.store(queue_.size(), std::memory_order_release);
    wake = parked_ > 0 && !spinning_;  // a spinner takes it; a busy worker comes back for it
  }
  if (wake) wake_.notify_one();
}

void CThreadPoolInvokerImpl::_Spin() {
  spinning_ = true;
  mutex_.Unlock();
  const auto deadline = std::chrono::steady_clock::now() + kSpin;
  while (queued_.load(std::memory_order_acquire) == 0 &&
         std::chrono::steady_clock::now() < deadline) {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
  }
  mutex_.Lock();
  spinning_ = false;
}

void CThreadPoolInvokerImpl::_WorkerLoop() {
  CMutexLock lock(mutex_);
  for (;;) {
    if (!stopping_ && queue_.empty() && !spinning_) _Spin();
    while (!stopping_ && queue_.empty()) {
      ++parked_;
      wake_.wait(lock.Native());
      --parked_;
    }
    if (queue_.empty()) return;  // stopping, and everything accepted has run
    std::function<void()> fn = std::move(queue_.front());
    queue_.pop_front();
    queued_.store(queue_.size(), std::memory_order_release);
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
