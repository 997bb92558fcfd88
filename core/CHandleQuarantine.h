// Allocation for objects whose address is a public handle (clients, service handlers,
// sessions, transactions). A handle outlives its object in the hands of applications and
// plugins: a late answer naming a finished transaction, a call with a destroyed client.
// Such a stale handle must be "not found", never another object. So the memory of a
// destroyed object is not returned at once: the object is destructed at once, but its
// address stays out of use until HandleQuarantineDepth() later objects of the same type have
// retired. Registries that key entries by handle must therefore expect a dead entry under the key
// of a newcomer once the quarantine has let the address go: such an entry counts as absent.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "CLocks.h"

namespace HXFramework::Core {

// How many retired addresses of each type stay out of use (4096). Tests lower it so that
// addresses come back within a few objects instead of thousands.
inline std::atomic<std::size_t>& HandleQuarantineDepth() {
  static std::atomic<std::size_t> depth{4096};
  return depth;
}

template <typename T>
class CHandleQuarantine {
 public:
  template <typename... Args>
  static std::shared_ptr<T> Make(Args&&... args) {
    void* memory = ::operator new(sizeof(T));
    T* object = nullptr;
    try {
      object = new (memory) T(std::forward<Args>(args)...);
    } catch (...) {
      ::operator delete(memory);
      throw;
    }
    return std::shared_ptr<T>(object, [](T* retired) {
      retired->~T();
      Instance().Retire(retired);
    });
  }

 private:
  static CHandleQuarantine& Instance() {
    // Never destroyed: objects retire from pool threads while the process exits.
    static CHandleQuarantine* instance = new CHandleQuarantine();
    return *instance;
  }

  void Retire(void* memory) HXF_EXCLUDES(mutex_) {
    void* released = nullptr;    // the steady state: one address in, one out
    std::vector<void*> lowered;  // more only after the depth was lowered (no allocation else)
    {
      CMutexLock lock(mutex_);
      retired_.push_back(memory);
      const std::size_t depth = HandleQuarantineDepth().load(std::memory_order_relaxed);
      while (retired_.size() > depth) {
        if (released == nullptr) {
          released = retired_.front();
        } else {
          lowered.push_back(retired_.front());
        }
        retired_.pop_front();
      }
    }
    ::operator delete(released);  // null is fine
    for (void* address : lowered) ::operator delete(address);
  }

  CMutex mutex_;  // guards retired_ only; nothing else is done under it
  std::deque<void*> retired_ HXF_GUARDED_BY(mutex_);
};

}  // namespace HXFramework::Core
