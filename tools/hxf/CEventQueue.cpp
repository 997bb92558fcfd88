#include "CEventQueue.h"

namespace hxf_tool {

void CEventQueue::Push(Event event) {
  std::lock_guard<std::mutex> lock(mutex_);
  events_.push_back(std::move(event));
  cv_.notify_all();
}

bool CEventQueue::Next(Event* event, Clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!cv_.wait_until(lock, deadline, [&] { return !events_.empty(); })) return false;
  *event = std::move(events_.front());
  events_.pop_front();
  return true;
}

}  // namespace hxf_tool
