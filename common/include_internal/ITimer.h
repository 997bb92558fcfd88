#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "TPLExport.h"

namespace HXFramework::TPL {

// A one-shot time-out timer: a cheap handle onto one shared timer service.
// - Start arms a new shot and returns its non-zero id; after timeout_ms the handler runs
//   once, on a thread of the timer facility, never inside Start. Several shots of one
//   timer may be armed at once; each fires or is stopped independently.
// - Stop(id) cancels that shot if it has not fired. It never waits for a running handler,
//   so it may be called from inside the handler. Once Stop returns, the timer no longer
//   holds the handler of a shot that had not fired. Unknown or old ids are ignored.
// - Deleting a timer stops all its armed shots; it may be deleted from inside its own
//   handler or while a handler runs.
// Start and Stop cost O(log n) in the number of armed shots of the whole process.
class HXF_TPL_API ITimer {
 public:
  static ITimer* Create(const std::string& name);

  virtual ~ITimer() = default;
  virtual uint32_t Start(std::function<void()> handler, uint32_t timeout_ms) = 0;
  virtual void Stop(uint32_t id) = 0;

  ITimer(const ITimer&) = delete;
  ITimer& operator=(const ITimer&) = delete;

 protected:
  ITimer() = default;
};

}  // namespace HXFramework::TPL
