#include "SimWorker.h"

#include <cstdio>
#include <cstdlib>

namespace hxf_sim {

void Worker::Start() {
  HXFramework::CMutexLock lock(mutex_);
  stopping_ = false;
  thread_ = std::thread([this] { Run(); });
}

void Worker::Stop() {
  {
    HXFramework::CMutexLock lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
  HXFramework::CMutexLock running(running_);  // a RunNow under way ends first
  HXFramework::CMutexLock lock(mutex_);
  tasks_.clear();
}

void Worker::Post(Task task, uint32_t delay_ms) {
  HXFramework::CMutexLock lock(mutex_);
  if (stopping_) return;
  tasks_.emplace(std::make_pair(Clock::now() + std::chrono::milliseconds(delay_ms), sequence_++),
                 std::move(task));
  wake_.notify_all();
}

namespace {
// The worker whose task runs on this thread through RunNow, if any.
thread_local const Worker* t_running_now = nullptr;
}  // namespace

void Worker::RunNow(const Task& task) {
  HXFramework::CMutexLock running(running_);
  {
    HXFramework::CMutexLock lock(mutex_);
    if (stopping_) return;
  }
  t_running_now = this;
  task();
  t_running_now = nullptr;
}

void Worker::AssertOnWorker() const {
  if (std::this_thread::get_id() != worker_id_ && t_running_now != this) {
    std::fprintf(stderr, "sim: worker-only code ran on another thread\n");
    std::abort();
  }
}

void Worker::Run() {
  worker_id_ = std::this_thread::get_id();
  HXFramework::CMutexLock lock(mutex_);
  while (!stopping_) {
    if (tasks_.empty()) {
      wake_.wait(lock.Native());
      continue;
    }
    auto next = tasks_.begin();
    if (Clock::now() < next->first.first) {
      wake_.wait_until(lock.Native(), next->first.first);  // the next task's time, no sooner
      continue;
    }
    Task task = std::move(next->second);
    tasks_.erase(next);
    lock.Unlock();  // tasks call the core, which may call back and post
    {
      HXFramework::CMutexLock running(running_);
      task();
      task = nullptr;
    }
    lock.Lock();
  }
}

}  // namespace hxf_sim
