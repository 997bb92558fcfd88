#include "SimWorker.h"

namespace hxf_sim {

void Worker::Start() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopping_ = false;
  thread_ = std::thread([this] { Run(); });
}

void Worker::Stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
  std::lock_guard<std::mutex> lock(mutex_);
  tasks_.clear();
}

void Worker::Post(Task task, uint32_t delay_ms) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopping_) return;
  tasks_.emplace(std::make_pair(Clock::now() + std::chrono::milliseconds(delay_ms), sequence_++),
                 std::move(task));
  wake_.notify_all();
}

void Worker::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_) {
    if (tasks_.empty()) {
      wake_.wait(lock);
      continue;
    }
    auto next = tasks_.begin();
    if (Clock::now() < next->first.first) {
      wake_.wait_until(lock, next->first.first);
      continue;
    }
    Task task = std::move(next->second);
    tasks_.erase(next);
    lock.unlock();  // tasks call the core, which may call back and post
    task();
    task = nullptr;
    lock.lock();
  }
}

}  // namespace hxf_sim
