// The tool's session with the core: signals, library start, plugin loading, one client, and a
// clean stop on every path (also Ctrl-C). Callbacks become events on one queue.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "CEventQueue.h"
#include "COutput.h"
#include "hxf_core.h"

namespace hxf_tool {

class CToolRuntime {
 public:
  // Blocks SIGINT and SIGTERM in every thread and takes them on a thread of its own, so that
  // Ctrl-C becomes an event. Call before any other thread exists. `log_level` (debug, info,
  // error or empty) chooses which of the core's log lines reach stderr; a plugin's own
  // error lines always do, so that a failed load says why.
  // Failures and log lines go to `out`, which must outlive the runtime.
  CToolRuntime(const std::string& log_level, const COutput& out);
  ~CToolRuntime();
  CToolRuntime(const CToolRuntime&) = delete;
  CToolRuntime& operator=(const CToolRuntime&) = delete;

  // Initialises the core, loads each plugin and waits for its load result; then makes the
  // client. False (after an error message) on any failure.
  bool Open(const std::vector<std::string>& plugins);
  // Destroys the client, unloads the plugins and finalises the core.
  void Close();

  hxf_client_h Client() const { return client_; }
  CEventQueue& Events() { return events_; }
  bool Interrupted() const { return interrupted_; }

  // Callbacks of the core; user data is the runtime.
  static void OnLoaded(hxf_string name, hxf_plugin_load_result_e result, void* self);
  static void OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                      hxf_endpoint_h endpoint, void* self);
  static void OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                     hxf_endpoint_list_h list, void* self);
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h transaction, hxf_error_e error, void* self);
  static void OnNotification(hxf_string service, hxf_service_session_h, hxf_property_list_h list,
                             hxf_transaction_h transaction, hxf_error_e error, void* self);

 private:
  void WatchSignals();
  static void OnLog(int priority, const char* tag, const char* text, void* self);

  int log_threshold_;
  const COutput& out_;
  CEventQueue events_;
  std::atomic<bool> interrupted_{false};
  std::atomic<bool> closing_{false};
  std::thread signal_thread_;
  bool opened_ = false;
  hxf_client_h client_ = nullptr;
};

}  // namespace hxf_tool
