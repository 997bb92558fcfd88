// Thread-safe list of event descriptions, with bounded waits.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace HXFramework::Test {

class EventLog {
 public:
  void Add(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
    cv_.notify_all();
  }
  std::vector<std::string> Get() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  int Count(const std::string& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& e : events_) n += e == event ? 1 : 0;
    return n;
  }
  // Number of events starting with `prefix`.
  int CountPrefix(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& e : events_) n += e.rfind(prefix, 0) == 0 ? 1 : 0;
    return n;
  }
  bool WaitPrefix(const std::string& prefix, int n) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(10), [&] {
      int count = 0;
      for (const auto& e : events_) count += e.rfind(prefix, 0) == 0 ? 1 : 0;
      return count >= n;
    });
  }
  bool WaitCount(const std::string& event, int n) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::seconds(10), [&] {
      int count = 0;
      for (const auto& e : events_) count += e == event ? 1 : 0;
      return count >= n;
    });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::string> events_;
};

}  // namespace HXFramework::Test
