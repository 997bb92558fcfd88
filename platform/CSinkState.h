// Where the host's log and trace lines go: a sink and its user data, replaced by a setter
// while other threads write lines. Writers share the lock while they call the sink; Set
// takes it alone, so once it returns the old sink and its user data are no longer in use.
// Whether the initial sink was replaced is also kept in an atomic, read without the lock:
// a line nobody will see costs one load and takes no lock (a line that read it just before
// a Set counts as written before it). Never destroyed: threads of the framework may still
// write while the process exits.
#pragma once

#include <atomic>

#include "CLocks.h"

namespace HXFramework::Host {

template <typename Sink, Sink kInitial>
struct CSinkState {
  CSharedMutex mutex;
  Sink sink HXF_GUARDED_BY(mutex) = kInitial;
  void* user_data HXF_GUARDED_BY(mutex) = nullptr;
  std::atomic<bool> replaced{false};

  // Installs `new_sink` with `data`; null puts the initial sink back.
  void Set(Sink new_sink, void* data) HXF_EXCLUDES(mutex) {
    CWriteLock lock(mutex);
    sink = new_sink != nullptr ? new_sink : kInitial;
    user_data = new_sink != nullptr ? data : nullptr;
    replaced.store(sink != kInitial, std::memory_order_release);
  }
  bool Replaced() const { return replaced.load(std::memory_order_acquire); }

  static CSinkState& Get() {
    static CSinkState* state = new CSinkState();
    return *state;
  }
};

}  // namespace HXFramework::Host
