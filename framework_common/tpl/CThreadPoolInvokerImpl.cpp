#include "CThreadPoolInvokerImpl.h"

#include <utility>

namespace HXFramework::TPL {

namespace {
// The pool whose worker this thread is, if any.
thread_local const CThreadPoolInvokerImpl* t_worker_of = nullptr;
}  // namespace

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
  standby_wake_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

void CThreadPoolInvokerImpl::Invoke(std::function<void()>&& fn) {
  if (!fn) throw std::bad_function_call();
  std::condition_variable* wake = nullptr;
  {
    CMutexLock lock(mutex_);
    queue_.push_back(std::move(fn));
    queued_.store(queue_.size(), std::memory_order_release);
    if (spinning_) {
      // The spinner takes it.
    } else if (t_worker_of == this && queue_.size() == 1) {
      // A continuation: the posting worker takes it on return. The standby is the fallback;
      // it is woken only to start ticking again.
      if (standby_ && !standby_ticking_) wake = &standby_wake_;
    } else if (parked_ > 0) {
      wake = &wake_;
    } else if (standby_) {
      standby_called_ = true;  // every other worker is busy
      wake = &standby_wake_;
    }
  }
  if (wake != nullptr) wake->notify_one();
}

std::size_t CThreadPoolInvokerImpl::ParkedCount() {
  CMutexLock lock(mutex_);
  return parked_ + (standby_ ? 1 : 0);
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

void CThreadPoolInvokerImpl::_Park(CMutexLock& lock) {
  while (!stopping_ && queue_.empty()) {
    // Checked after every wake too: a standby that left to run work wakes one parked worker
    // to take over the watch, and continuations posted meanwhile wait for that watch.
    if (!standby_) {
      _StandBy(lock);
      return;
    }
    ++parked_;
    wake_.wait(lock.Native());
    --parked_;
  }
}

void CThreadPoolInvokerImpl::_StandBy(CMutexLock& lock) {
  standby_ = true;
  standby_ticking_ = true;
  int idle_ticks = 0;
  uint64_t taken_at_last_tick = taken_;
  for (;;) {
    if (stopping_) break;
    if (standby_called_) {
      if (!queue_.empty()) break;
      standby_called_ = false;  // someone else took that work meanwhile
    }
    if (!standby_ticking_) {
      // Until a continuation is left to a worker, or the standby is called for work.
      standby_wake_.wait(lock.Native());
      standby_ticking_ = true;
      idle_ticks = 0;
      taken_at_last_tick = taken_;
      continue;
    }
    const auto deadline = std::chrono::steady_clock::now() + kStandbyTick;
    bool ticked = false;
    while (!stopping_ && !standby_called_ && !ticked) {
      ticked = standby_wake_.wait_until(lock.Native(), deadline) == std::cv_status::timeout;
    }
    if (!ticked) continue;  // stopping, or called for work: seen at the top
    // Nothing taken from the queue for a whole tick while it holds work: its poster did not
    // come back for it. Take it.
    if (!queue_.empty() && taken_ == taken_at_last_tick) break;
    idle_ticks = taken_ == taken_at_last_tick ? idle_ticks + 1 : 0;
    if (idle_ticks >= kStandbyIdleTicks) standby_ticking_ = false;
    taken_at_last_tick = taken_;
  }
  standby_ = false;
  standby_ticking_ = false;
  standby_called_ = false;
  // Another parked worker takes over the watch: woken, it finds no work and parks again,
  // as the standby.
  if (!stopping_ && parked_ > 0) wake_.notify_one();
}

void CThreadPoolInvokerImpl::_WorkerLoop() {
  t_worker_of = this;
  CMutexLock lock(mutex_);
  for (;;) {
    if (!stopping_ && queue_.empty() && !spinning_) _Spin();
    if (!stopping_ && queue_.empty()) _Park(lock);
    if (queue_.empty()) {
      if (stopping_) return;  // everything accepted has run
      continue;               // woken to become the standby
    }
    std::function<void()> fn = std::move(queue_.front());
    queue_.pop_front();
    ++taken_;
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
