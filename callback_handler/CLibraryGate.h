// When may a plugin's library be closed? The whole policy, applied by the plugin's unload
// (CPlugin::_UnloadDelegate) once "DestroyPlugin" has returned:
//
//   At that moment                                           | The library
//   ---------------------------------------------------------+--------------------------------
//   no call into its code is under way                       | closed at once
//   a call into its code runs on another thread: a callback  | closed when the call is back in
//     it registered, or one of its entry points              |   the core (waits at most the
//                                                            |   limit; still busy: left open)
//   this thread is inside a call into its code, or the       | left open: the caller returns
//     unload was asked for from its own code                 |   into it
//   only other code runs: the application's callbacks,      | does not count: closed at once
//     other plugins' callbacks                               |
//
// Which library a callback belongs to is known when it is registered: the library whose
// mapping holds the callback's function (For). Every call of that callback passes that
// library's gate (CPass), and only calls into a library's own code hold it open.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>

#include "CLocks.h"

namespace HXFramework::Core {

class CLibraryGate {
 public:
  // The gate of the library (or executable) whose code holds `code`; null when no loaded
  // object holds it. Gates live as long as the process: a library loaded again at the same
  // address has the same gate.
  static CLibraryGate* For(const void* code);

  // Held by one call into the gate's library, for its whole duration. A null gate is no-op.
  class CPass {
   public:
    explicit CPass(CLibraryGate* gate);
    ~CPass();
    CPass(const CPass&) = delete;
    CPass& operator=(const CPass&) = delete;

   private:
    friend class CLibraryGate;
    CLibraryGate* gate_;
    const CPass* outer_;  // the pass this thread held before, for calls nested in calls
  };

  enum class Verdict { kClose, kBusy, kCallerInside };

  // The policy above, for an unload asked for from `requester` (a return address). Waits at
  // most `limit` for calls under way on other threads.
  Verdict MayClose(const void* requester, std::chrono::milliseconds limit);

 private:
  explicit CLibraryGate(const void* base) : base_(base) {}
  static const void* BaseOf(const void* code);
  static bool InsideOnThisThread(const CLibraryGate* gate);

  const void* base_;             // where the library is mapped
  std::atomic<int> calls_{0};    // calls into the library under way, on every thread
  std::atomic<int> waiters_{0};  // unloads waiting for calls_ to drop
  // Only for the waiting unload: a pass that ends while somebody waits takes it before
  // notifying, so that the waiter, between its check and its wait, cannot miss the wake-up.
  CMutex mutex_;
  std::condition_variable drained_;
};

}  // namespace HXFramework::Core
