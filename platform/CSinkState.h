// Where the host's log and trace lines go: a sink and its user data, replaced by a setter
// while other threads write lines. Writers share the lock while they call the sink; the
// setter takes it alone, so once it returns the old sink and its user data are no longer in
// use. Never destroyed: threads of the framework may still write while the process exits.
#pragma once

#include "CLocks.h"

namespace HXFramework::Host {

template <typename Sink, Sink kInitial>
struct CSinkState {
  CSharedMutex mutex;
  Sink sink HXF_GUARDED_BY(mutex) = kInitial;
  void* user_data HXF_GUARDED_BY(mutex) = nullptr;

  static CSinkState& Get() {
    static CSinkState* state = new CSinkState();
    return *state;
  }
};

}  // namespace HXFramework::Host
