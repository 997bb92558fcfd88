#include "CTimerService.h"

#include <utility>

#include "CThreadPoolInvokerImpl.h"
#include "LeakySingleton.h"

namespace HXFramework::TPL {

namespace {
constexpr std::size_t kDispatchThreads = 2;
constexpr std::size_t kMinStaleBeforeCompaction = 1024;
}  // namespace

CTimerService& CTimerService::GetInstance() {
  return LeakySingleton<CTimerService>();
}

CTimerService::CTimerService()
    : dispatch_(new CThreadPoolInvokerImpl(kDispatchThreads)), thread_([this] { _Run(); }) {}

CTimerService::~CTimerService() {
  {
    CMutexLock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  thread_.join();
  delete dispatch_;
}

uint32_t CTimerService::_NextId() {
  // Ids wrap after 2^32 shots; skip 0 ("no timer") and ids still armed.
  do {
    ++last_id_;
  } while (last_id_ == 0 || shots_.count(last_id_) != 0);
  return last_id_;
}

uint32_t CTimerService::Start(ShotSet* owner, std::function<void()> handler, uint32_t timeout_ms) {
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  bool earliest = false;
  uint32_t id = 0;
  {
    CMutexLock lock(mutex_);
    id = _NextId();
    shots_.emplace(id, Shot{deadline, std::move(handler), owner});
    owner->Insert(id);
    earliest = heap_.empty() || deadline < heap_.top().deadline;
    heap_.push(HeapEntry{deadline, id});
  }
  if (earliest) wake_.notify_one();
  return id;
}

std::function<void()> CTimerService::_Remove(std::unordered_map<uint32_t, Shot>::iterator shot) {
  std::function<void()> handler = std::move(shot->second.handler);
  shot->second.owner->Erase(shot->first);
  shots_.erase(shot);
  return handler;
}

void CTimerService::_CompactIfStale() {
  if (heap_.size() < kMinStaleBeforeCompaction || heap_.size() < 2 * shots_.size()) return;
  std::vector<HeapEntry> live;
  live.reserve(shots_.size());
  for (const auto& [id, shot] : shots_) live.push_back(HeapEntry{shot.deadline, id});
  heap_ = decltype(heap_)(std::greater<HeapEntry>(), std::move(live));
}

void CTimerService::Stop(ShotSet* owner, uint32_t id) {
  std::function<void()> released;
  {
    CMutexLock lock(mutex_);
    auto shot = shots_.find(id);
    if (shot == shots_.end() || shot->second.owner != owner) return;
    released = _Remove(shot);
    _CompactIfStale();
  }
  // The handler's captures are destroyed outside the lock: their destructors may use timers.
}

void CTimerService::StopAll(ShotSet* owner) {
  std::vector<std::function<void()>> released;
  {
    CMutexLock lock(mutex_);
    released.reserve(owner->Size());
    while (!owner->Empty()) {
      const uint32_t id = owner->Any();
      auto shot = shots_.find(id);
      if (shot == shots_.end()) {
        owner->Erase(id);
        continue;
      }
      released.push_back(_Remove(shot));
    }
    _CompactIfStale();
  }
}

void CTimerService::_Run() {
  CMutexLock lock(mutex_);
  while (!stopping_) {
    if (heap_.empty()) {
      wake_.wait(lock.Native());
      continue;
    }
    const HeapEntry next = heap_.top();
    auto shot = shots_.find(next.id);
    if (shot == shots_.end() || shot->second.deadline != next.deadline) {
      heap_.pop();  // stopped shot
      continue;
    }
    if (Clock::now() < next.deadline) {
      wake_.wait_until(lock.Native(), next.deadline);
      continue;
    }
    heap_.pop();
    std::function<void()> handler = _Remove(shot);
    // Hand-off: the handler leaves the map under the lock, so Stop can no longer reach it;
    // it runs on a dispatch thread, never on the thread that armed it.
    lock.Unlock();
    dispatch_->Invoke(std::move(handler));
    lock.Lock();
  }
}

}  // namespace HXFramework::TPL
