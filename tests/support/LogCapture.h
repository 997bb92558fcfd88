// Captures every platform-log and scope-trace line while alive (installs the host sinks).
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "hxf_host_platform.h"

namespace HXFramework::Test {

struct LogLine {
  int priority;
  std::string tag;
  std::string text;
};

struct TraceLine {
  std::string location;
  std::string text;
};

class LogCapture {
 public:
  explicit LogCapture(bool enable_trace = true) {
    hxf_host_log_set_sink(&LogCapture::OnLog, this);
    if (enable_trace) hxf_host_trace_set_sink(&LogCapture::OnTrace, this);
  }
  ~LogCapture() {
    hxf_host_log_set_sink(nullptr, nullptr);
    hxf_host_trace_set_sink(nullptr, nullptr);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<TraceLine> Traces() {
    std::lock_guard<std::mutex> lock(mutex_);
    return traces_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
    traces_.clear();
  }

  // Number of platform-log lines whose text equals `text` exactly.
  int Count(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    int count = 0;
    for (const auto& line : lines_) count += line.text == text ? 1 : 0;
    return count;
  }
  // Number of platform-log lines containing `part`.
  int CountContaining(const std::string& part) {
    std::lock_guard<std::mutex> lock(mutex_);
    int count = 0;
    for (const auto& line : lines_) count += line.text.find(part) != std::string::npos ? 1 : 0;
    return count;
  }
  // Whether a platform-log line contains `part`.
  bool Contains(const std::string& part) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& line : lines_) {
      if (line.text.find(part) != std::string::npos) return true;
    }
    return false;
  }
  // The first platform-log line containing `part`, or an empty line.
  LogLine Find(const std::string& part) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& line : lines_) {
      if (line.text.find(part) != std::string::npos) return line;
    }
    return LogLine{-1, "", ""};
  }
  // Waits (bounded) until a platform-log line contains `part` (and `also`, if given).
  bool WaitFor(const std::string& part, const std::string& also = std::string(),
               std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      for (const auto& line : lines_) {
        if (line.text.find(part) != std::string::npos &&
            line.text.find(also) != std::string::npos) {
          return true;
        }
      }
      return false;
    });
  }

 private:
  static void OnLog(int priority, const char* tag, const char* text, void* self) {
    auto* capture = static_cast<LogCapture*>(self);
    std::lock_guard<std::mutex> lock(capture->mutex_);
    capture->lines_.push_back(LogLine{priority, tag, text});
    capture->changed_.notify_all();
  }
  static void OnTrace(const char* location, const char* text, void* self) {
    auto* capture = static_cast<LogCapture*>(self);
    std::lock_guard<std::mutex> lock(capture->mutex_);
    capture->traces_.push_back(TraceLine{location, text});
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<LogLine> lines_;
  std::vector<TraceLine> traces_;
};

// Waits (bounded) until `done` holds; `done` is evaluated under `mutex`.
inline bool WaitUntil(std::mutex& mutex, std::condition_variable& cv,
                      const std::function<bool()>& done,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  std::unique_lock<std::mutex> lock(mutex);
  return cv.wait_for(lock, timeout, done);
}

}  // namespace HXFramework::Test
