#include "CLoopTasks.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace hxf_tool {

int CLoopTasks::Start(sd_event* event) {
  loop_thread_ = std::this_thread::get_id();
  fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (fd_ < 0) return -errno;
  return sd_event_add_io(event, &source_, fd_, EPOLLIN, &CLoopTasks::WakeUp, this);
}

void CLoopTasks::Stop() {
  if (source_ != nullptr) source_ = sd_event_source_disable_unref(source_);
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  HXFramework::CMutexLock lock(mutex_);
  tasks_.clear();
}

void CLoopTasks::Post(std::function<void()> task) {
  {
    HXFramework::CMutexLock lock(mutex_);
    tasks_.push_back(std::move(task));
    // Tasks already queued were woken for, and WakeUp reads the eventfd before it takes the
    // queue: it takes this one with them, one write and one wake-up for the lot.
    if (tasks_.size() > 1) return;
  }
  const uint64_t one = 1;
  if (write(fd_, &one, sizeof one) != sizeof one)
    std::fprintf(stderr, "cannot wake the bus thread: %s\n", std::strerror(errno));
}

int CLoopTasks::WakeUp(sd_event_source*, int fd, uint32_t, void* self) {
  uint64_t count = 0;
  if (read(fd, &count, sizeof count) < 0 && errno != EAGAIN) return -errno;
  auto* tasks = static_cast<CLoopTasks*>(self);
  std::deque<std::function<void()>> ready;
  {
    HXFramework::CMutexLock lock(tasks->mutex_);
    ready.swap(tasks->tasks_);
  }
  for (auto& task : ready) task();
  return 0;
}

}  // namespace hxf_tool
