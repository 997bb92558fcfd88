// The simulator's own thread: runs posted tasks in due-time order. Callbacks from the core
// only post here and return, so no simulation work runs on the core's threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace hxf_sim {

class Worker {
 public:
  using Task = std::function<void()>;

  void Start();
  // Runs no further task and joins the thread; later posts are dropped.
  void Stop();
  void Post(Task task, uint32_t delay_ms = 0);

 private:
  using Clock = std::chrono::steady_clock;
  void Run();

  std::mutex mutex_;  // guards tasks_, sequence_ and stopping_
  std::condition_variable wake_;
  std::multimap<std::pair<Clock::time_point, uint64_t>, Task> tasks_;  // (due, posting order)
  uint64_t sequence_ = 0;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace hxf_sim
