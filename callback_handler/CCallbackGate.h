// Keeps a plugin's library mapped while the core's threads are inside a C callback. Every
// call of an application's or plugin's callback passes the gate in shared mode; before a
// plugin's library is closed, the unloading thread waits until every call that is under
// way has returned to the core (a callback's last instructions run in the library too, so
// a plugin cannot signal its own end safely). New calls may start meanwhile: they hold the
// gate only while they run.
#pragma once

#include <chrono>
#include <shared_mutex>

namespace HXFramework::Core {

class CCallbackGate {
 public:
  // Held for the duration of one C callback call.
  class CPass {
   public:
    CPass();
    ~CPass();
    CPass(const CPass&) = delete;
    CPass& operator=(const CPass&) = delete;
  };

  // Waits (at most `limit`) until no C callback call is under way on another thread. A
  // thread that is itself inside a callback (an unload from a callback) does not wait for
  // its own call. Returns whether the gate was found clear.
  static bool WaitUntilClear(std::chrono::milliseconds limit);

 private:
  static std::shared_timed_mutex& Gate();
};

}  // namespace HXFramework::Core
