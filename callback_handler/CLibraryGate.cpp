#include "CLibraryGate.h"

#include <dlfcn.h>

#include <unordered_map>

namespace HXFramework::Core {

namespace {
// The passes this thread holds, innermost first (callbacks may call the API, which may call
// further callbacks on the same thread).
thread_local const CLibraryGate::CPass* t_innermost = nullptr;
}  // namespace

const void* CLibraryGate::BaseOf(const void* code) {
  dl_find_object found{};
  if (code == nullptr || _dl_find_object(const_cast<void*>(code), &found) != 0) return nullptr;
  return found.dlfo_map_start;
}

CLibraryGate* CLibraryGate::For(const void* code) {
  const void* base = BaseOf(code);
  if (base == nullptr) return nullptr;
  // A request registers its result callback each time: most lookups find the last library
  // again. Gates are never destroyed, so a remembered one is always valid.
  thread_local const void* t_last_base = nullptr;
  thread_local CLibraryGate* t_last_gate = nullptr;
  if (base == t_last_base) return t_last_gate;
  // Never destroyed: callbacks run on pool threads until the process is gone. The lock
  // guards the registry only (registration time, never a callback's call).
  struct Registry {
    CMutex mutex;
    std::unordered_map<const void*, CLibraryGate*> gates HXF_GUARDED_BY(mutex);
  };
  static auto* registry = new Registry();
  CMutexLock lock(registry->mutex);
  CLibraryGate*& gate = registry->gates[base];
  if (gate == nullptr) gate = new CLibraryGate(base);
  t_last_base = base;
  t_last_gate = gate;
  return gate;
}

CLibraryGate::CPass::CPass(CLibraryGate* gate) : gate_(gate), outer_(t_innermost) {
  if (gate_ == nullptr) return;
  gate_->calls_.fetch_add(1);
  t_innermost = this;
}

CLibraryGate::CPass::~CPass() {
  if (gate_ == nullptr) return;
  t_innermost = outer_;
  gate_->calls_.fetch_sub(1);
  // Sequentially consistent with the waiter's increment of waiters_ and its check of
  // calls_: either the waiter sees the new count, or this sees the waiter.
  if (gate_->waiters_.load() > 0) {
    CMutexLock lock(gate_->mutex_);
    gate_->drained_.notify_all();
  }
}

bool CLibraryGate::InsideOnThisThread(const CLibraryGate* gate) {
  for (const CPass* pass = t_innermost; pass != nullptr; pass = pass->outer_) {
    if (pass->gate_ == gate) return true;
  }
  return false;
}

CLibraryGate::Verdict CLibraryGate::MayClose(const void* requester,
                                             std::chrono::milliseconds limit) {
  if (BaseOf(requester) == base_ || InsideOnThisThread(this)) return Verdict::kCallerInside;
  CMutexLock lock(mutex_);
  waiters_.fetch_add(1);
  const bool drained = drained_.wait_for(lock.Native(), limit, [&] { return calls_.load() == 0; });
  waiters_.fetch_sub(1);
  return drained ? Verdict::kClose : Verdict::kBusy;
}

}  // namespace HXFramework::Core
