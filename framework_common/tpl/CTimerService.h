#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <queue>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "CLocks.h"

namespace HXFramework::TPL {

class CThreadPoolInvokerImpl;

// The one timer service behind every ITimer: a min-heap of deadlines watched by one thread.
// Due handlers are handed to the service's own dispatch pool, so a slow handler delays
// neither the clock nor other handlers. Stopped shots leave their heap entries behind
// (lazy deletion); the heap is rebuilt when stale entries outnumber live ones.
class CTimerService {
 public:
  using Clock = std::chrono::steady_clock;
  // Ids of the armed shots of one timer; owned by the timer, guarded by the service lock.
  // A timer mostly has one shot armed at a time (a transaction's time-out): the first ids are
  // kept inline, so that arming one allocates nothing here; the rest go to a hash set.
  class ShotSet {
   public:
    void Insert(uint32_t id) {
      if (inline_count_ < inline_.size()) {
        inline_[inline_count_++] = id;
      } else {
        more_.insert(id);
      }
    }
    void Erase(uint32_t id) {
      for (std::size_t i = 0; i < inline_count_; ++i) {
        if (inline_[i] != id) continue;
        inline_[i] = inline_[--inline_count_];
        return;
      }
      more_.erase(id);
    }
    bool Empty() const { return inline_count_ == 0 && more_.empty(); }
    std::size_t Size() const { return inline_count_ + more_.size(); }
    // One of the ids; the set must not be empty.
    uint32_t Any() const { return inline_count_ != 0 ? inline_[0] : *more_.begin(); }

   private:
    std::array<uint32_t, 2> inline_{};
    std::size_t inline_count_ = 0;
    std::unordered_set<uint32_t> more_;  // the rest, allocated only when there are more
  };

  static CTimerService& GetInstance();
  CTimerService();
  ~CTimerService();

  uint32_t Start(ShotSet* owner, std::function<void()> handler, uint32_t timeout_ms)
      HXF_EXCLUDES(mutex_);
  void Stop(ShotSet* owner, uint32_t id) HXF_EXCLUDES(mutex_);
  // Stops every armed shot of `owner`; afterwards the service never touches `owner` again.
  void StopAll(ShotSet* owner) HXF_EXCLUDES(mutex_);

  CTimerService(const CTimerService&) = delete;
  CTimerService& operator=(const CTimerService&) = delete;

 private:
  struct Shot {
    Clock::time_point deadline;
    std::function<void()> handler;
    ShotSet* owner;
  };
  struct HeapEntry {
    Clock::time_point deadline;
    uint32_t id;
    bool operator>(const HeapEntry& other) const {
      return deadline != other.deadline ? deadline > other.deadline : id > other.id;
    }
  };

  uint32_t _NextId() HXF_REQUIRES(mutex_);
  std::function<void()> _Remove(std::unordered_map<uint32_t, Shot>::iterator shot)
      HXF_REQUIRES(mutex_);
  void _CompactIfStale() HXF_REQUIRES(mutex_);
  void _Run() HXF_EXCLUDES(mutex_);

  // Guards the fields below and every ShotSet (whose owners reach them only through the
  // service's methods, so only there are they touched).
  CMutex mutex_;
  std::condition_variable wake_;
  std::unordered_map<uint32_t, Shot> shots_ HXF_GUARDED_BY(mutex_);
  std::priority_queue<HeapEntry, std::vector<HeapEntry>, std::greater<HeapEntry>> heap_
      HXF_GUARDED_BY(mutex_);
  uint32_t last_id_ HXF_GUARDED_BY(mutex_) = 0;
  bool stopping_ HXF_GUARDED_BY(mutex_) = false;
  CThreadPoolInvokerImpl* dispatch_;
  std::thread thread_;
};

}  // namespace HXFramework::TPL
