// Allocation for objects whose address is a public handle (clients, service handlers,
// sessions, transactions). A handle outlives its object in the hands of applications and
// plugins: a late answer naming a finished transaction, a call with a destroyed client.
// Such a stale handle must be "not found", never another object. So the memory of a
// destroyed object is not returned at once: the object is destructed at once, but its
// address stays out of use until kDepth later objects of the same type have retired.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace HXFramework::Core {

template <typename T>
class CHandleQuarantine {
 public:
  static constexpr std::size_t kDepth = 4096;

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

  void Retire(void* memory) {
    void* released = nullptr;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      retired_.push_back(memory);
      if (retired_.size() <= kDepth) return;
      released = retired_.front();
      retired_.pop_front();
    }
    ::operator delete(released);
  }

  std::mutex mutex_;  // guards retired_ only; nothing else is done under it
  std::deque<void*> retired_;
};

}  // namespace HXFramework::Core
