#include "CCallbackGate.h"

#include <mutex>

namespace HXFramework::Core {

namespace {
// How many callback calls this thread is inside (callbacks may call the API, which may
// call further callbacks on the same thread).
thread_local int t_depth = 0;
}  // namespace

std::shared_timed_mutex& CCallbackGate::Gate() {
  // Never destroyed: callbacks run on pool threads until the process is gone.
  static auto* gate = new std::shared_timed_mutex();
  return *gate;
}

CCallbackGate::CPass::CPass() {
  // Re-entrant calls on one thread take the gate once; a writer waiting in between cannot
  // deadlock them.
  if (t_depth++ == 0) Gate().lock_shared();
}

CCallbackGate::CPass::~CPass() {
  if (--t_depth == 0) Gate().unlock_shared();
}

bool CCallbackGate::WaitUntilClear(std::chrono::milliseconds limit) {
  if (t_depth > 0) {
    // Inside a callback ourselves: our own shared hold would keep the gate closed. Let it
    // go for the wait: the caller is our own callback's frame, which does not return to
    // the library being closed.
    Gate().unlock_shared();
    const bool clear = Gate().try_lock_for(limit);
    if (clear) Gate().unlock();
    Gate().lock_shared();
    return clear;
  }
  const bool clear = Gate().try_lock_for(limit);
  if (clear) Gate().unlock();
  return clear;
}

}  // namespace HXFramework::Core
