#include "CEventQueue.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace hxf_tool {

namespace {

sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

void Drain(int fd) {
  uint64_t count = 0;
  while (read(fd, &count, sizeof count) > 0) {
  }
}

}  // namespace

CEventQueue::CEventQueue() : owner_(std::this_thread::get_id()) {
  const sigset_t set = StopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // inherited by every thread made from here on
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  signal_fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (wake_fd_ < 0 || signal_fd_ < 0) {
    std::fprintf(stderr, "hxf: cannot make the event loop: %s\n", std::strerror(errno));
    std::exit(1);
  }
}

CEventQueue::~CEventQueue() {
  close(wake_fd_);
  close(signal_fd_);
}

void CEventQueue::_AssertOwner() const {
  if (std::this_thread::get_id() != owner_) {
    std::fprintf(stderr, "hxf: the event queue was waited on off its own thread\n");
    std::abort();
  }
}

void CEventQueue::Push(Event event) {
  {
    HXFramework::CMutexLock lock(mutex_);
    events_.push_back(std::move(event));
  }
  Wake();
}

void CEventQueue::Wake() {
  const uint64_t one = 1;
  if (write(wake_fd_, &one, sizeof one) != sizeof one)
    std::fprintf(stderr, "hxf: cannot wake the main thread: %s\n", std::strerror(errno));
}

void CEventQueue::_TakeSignals() {
  signalfd_siginfo info;
  while (read(signal_fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    interrupted_ = true;
    HXFramework::CMutexLock lock(mutex_);
    events_.push_front(Event{Event::kInterrupt});
  }
}

void CEventQueue::_Wait(Clock::time_point deadline) {
  int timeout_ms = -1;
  if (deadline != Clock::time_point::max()) {
    const auto left = deadline - Clock::now();
    // Rounded up: woken before the deadline, the caller would only wait again.
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    timeout_ms = static_cast<int>(std::clamp<decltype(ms)>(ms, 0, INT_MAX));
  }
  pollfd fds[] = {{wake_fd_, POLLIN, 0}, {signal_fd_, POLLIN, 0}};
  if (poll(fds, 2, timeout_ms) < 0 && errno != EINTR)
    std::fprintf(stderr, "hxf: cannot wait for events: %s\n", std::strerror(errno));
  Drain(wake_fd_);  // before the caller looks again, so that no Push after that is missed
}

bool CEventQueue::Next(Event* event, Clock::time_point deadline) {
  _AssertOwner();
  for (;;) {
    _TakeSignals();
    {
      HXFramework::CMutexLock lock(mutex_);
      if (!events_.empty()) {
        *event = std::move(events_.front());
        events_.pop_front();
        return true;
      }
    }
    if (Clock::now() >= deadline) return false;
    _Wait(deadline);
  }
}

void CEventQueue::Until(const std::function<bool()>& done) {
  _AssertOwner();
  while (!done()) {
    _TakeSignals();
    _Wait(Clock::time_point::max());
  }
}

bool CEventQueue::Interrupted() {
  _AssertOwner();
  _TakeSignals();
  return interrupted_;
}

}  // namespace hxf_tool
