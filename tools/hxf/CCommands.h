// The subcommands of the tool. Each returns the process exit code: 0 ok, 1 the operation
// failed or timed out, 2 a usage error; main() makes it 130 when Ctrl-C stopped the command.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ArgumentValues.h"
#include "COutput.h"
#include "CPluginInfo.h"
#include "CToolRuntime.h"

namespace hxf_tool {

enum ExitCode { kOk = 0, kFailed = 1, kUsage = 2, kInterrupted = 130 };

class CCommands {
 public:
  CCommands(CToolRuntime& runtime, const COutput& out) : runtime_(runtime), out_(out) {}

  int Search(const std::string& service, uint32_t timeout_ms);
  int Listen(const std::string& service, uint32_t for_ms);
  int Devices(const std::string& service, uint32_t timeout_ms);
  int Request(const std::string& service, const std::string& operation,
              const std::vector<Assignment>& properties, uint32_t timeout_ms);
  int Watch(const std::string& service, uint32_t for_ms);
  // Every event the broker sees (hxfd only), of `service` and of `type` when not empty.
  int Monitor(const std::string& service, const std::string& type, uint32_t for_ms);
  int Demo();
  // Needs no plugin loaded: lists the plugins in the plugin folder with their descriptions;
  // test fixtures only with `all`.
  // With `broker` (hxfd), the plugins it was asked to load and how each load went instead.
  static int Plugins(const COutput& out, bool all, CBroker* broker = nullptr);
  // The reason the "end" event gives for `exit_code`: done, timed_out, failed, usage or
  // interrupted.
  std::string EndReason(int exit_code) const;

 private:
  // How long Pump waits: until `deadline`, showing a countdown to it (none when it is
  // `forever`), and `grace` more without one, for the core's own time-out report.
  struct Wait {
    std::string what;
    CEventQueue::Clock::time_point deadline;
    CEventQueue::Clock::duration grace{};
  };
  // Feeds events to `on_event` until it returns false or the wait ends. False when
  // interrupted.
  template <typename OnEvent>
  bool Pump(const Wait& wait, OnEvent&& on_event);
  // Reports a failure and returns kFailed; a time-out is HXF_ERROR_TIMED_OUT.
  int Fail(const std::string& message, int code, nlohmann::json details = nlohmann::json::object());
  // False, after failing with HXF_ERROR_NOT_FOUND, when the broker can tell that none of its
  // plugins offers `service`: said at once rather than after a whole time-out. "*" is
  // offered whenever anything is.
  bool Offered(const std::string& service);
  // A new session of `service`, or 0 after reporting why not.
  uint64_t Subscribe(const std::string& service);
  // The service a request for `device_id` goes to: "S@PROVIDER" for the one provider that
  // reports the device, `service` itself when the broker routes by device, no provider names
  // it, or no device is named. Empty after failing when two or more providers report it.
  std::string RequestTarget(const std::string& service, const std::string& device_id);
  // What a command stopped early returns: interrupted, or failed when the broker left.
  int Stopped() const { return broker_gone_ ? kFailed : kInterrupted; }
  // Sends one request and waits for its result; prints it. Returns the error code, or -1
  // when no answer came (interrupted or lost).
  int SendAndWait(uint64_t session, const std::string& service, const std::string& operation,
                  const std::vector<PropertyValue>& properties, uint32_t timeout_ms,
                  Event* result);

  CToolRuntime& runtime_;
  const COutput& out_;
  // Notifications that arrived while a request waited for its result (they may overtake it).
  std::vector<Event> notifications_;
  bool timed_out_ = false;    // the command failed by a time-out
  bool broker_gone_ = false;  // hxfd left the bus while the command waited
};

}  // namespace hxf_tool
