// The tool's session: signals, the broker (the core in this process, or hxfd over D-Bus),
// and a clean stop on every path (also Ctrl-C). Whatever the broker answers becomes an
// event on one queue.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "CBroker.h"
#include "CEventQueue.h"
#include "COutput.h"

namespace hxf_tool {

class CToolRuntime {
 public:
  // Blocks SIGINT and SIGTERM in every thread and takes them through the event queue's loop,
  // so that Ctrl-C becomes an event. Call on the main thread before any other thread exists. `log_level` (debug, info,
  // error or empty) chooses which of the core's log lines reach stderr, each with its time,
  // priority and tag (LogLine); a plugin's own error lines always do, so that a failed load
  // says why.
  // Failures and log lines go to `out`, which must outlive the runtime.
  CToolRuntime(const std::string& log_level, const COutput& out);
  ~CToolRuntime();
  CToolRuntime(const CToolRuntime&) = delete;
  CToolRuntime& operator=(const CToolRuntime&) = delete;

  // The broker in this process, with `plugins` loaded. False (after an error message) on any
  // failure.
  bool Open(const std::vector<std::string>& plugins);
  // hxfd on the bus `where` ("session", "system" or a D-Bus address). False (after an error
  // message) when it cannot be reached, or when this tool was built without D-Bus.
  bool OpenBus(const std::string& where);
  // Ends the broker's work: the core is finalised, or the bus connection closed.
  void Close();

  CBroker& Broker() { return *broker_; }
  CEventQueue& Events() { return events_; }
  // Whether Ctrl-C or SIGTERM came, up to now (main thread).
  bool Interrupted() { return events_.Interrupted(); }

 private:
  static void OnLog(int priority, const char* tag, const char* text, void* self);

  int log_threshold_;
  const COutput& out_;
  CEventQueue events_;
  std::unique_ptr<CBroker> broker_;
};

}  // namespace hxf_tool
