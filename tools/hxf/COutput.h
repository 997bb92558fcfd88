// Everything the tool prints.
// - Human mode: results on stdout; diagnostics (status, failures, the core's log) on stderr;
//   while a command waits with a time limit, a live countdown on stderr when stderr is a
//   terminal, erased before anything else is printed.
// - JSON mode (--json): one object per event and line on stdout, failures included, and an
//   "end" event last; docs/json.md lists the events.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CEventQueue.h"

namespace hxf_tool {

class COutput {
 public:
  static constexpr int kNoCode = -1;  // a failure the core gave no error code for

  explicit COutput(bool json);

  bool Json() const { return json_; }
  // A line of the result (human mode): stdout.
  void Say(const std::string& line) const;
  // A line of status (human mode): stderr.
  void Note(const std::string& line) const;
  // A failure: "hxf: MESSAGE (error N: NAME)" on stderr, or an "error" event.
  void Fail(const std::string& message, int code = kNoCode,
            nlohmann::json details = nlohmann::json::object()) const;
  // An event (JSON mode only); `object` gets "event": `event` first.
  void Emit(const std::string& event, nlohmann::json object = nlohmann::json::object()) const;
  // The last event of every command (JSON mode only); an empty `command` (none was
  // recognised) is written as null.
  void End(const std::string& command, const std::string& reason, int exit_code) const;
  // A line of the core's log: stderr in both modes. Called on the core's threads.
  void Log(const std::string& line) const;
  void DeviceTable(const std::vector<Device>& devices) const;
  void Properties(const std::vector<PropertyValue>& properties) const;
  // One event a broker's monitor saw (Event::kMonitor): a block, in the manner of a D-Bus
  // monitor, or a "monitor" event.
  void MonitorEvent(const Event& event) const;
  // Shows "WHAT... N.N s left" (only on a terminal, human mode); EndCountdown erases it.
  void Countdown(const std::string& what, double seconds_left) const;
  void EndCountdown() const;
  // Whether Countdown shows anything: only then does a wait tick to redraw it.
  bool ShowsCountdown() const { return countdown_; }
  // Ctrl-C was pressed: on a terminal, what follows starts on a line of its own (the
  // terminal echoed "^C" on the current one; a countdown's line is erased with it).
  void Interrupted() const;

  // "error 4: HXF_ERROR_INVALID_PARAMETER": a code as people read it, number and name.
  static std::string Code(int code);
  // "HXF_ERROR_INVALID_PARAMETER", or null for a code without a name.
  static nlohmann::json CodeName(int code);
  // A value as a person reads it: text as it is, numbers exactly as JSON writes them.
  static std::string Text(const nlohmann::json& value);

  static nlohmann::json ToJson(const Device& device);
  static nlohmann::json ToJson(const std::vector<PropertyValue>& properties);

 private:
  // Writes `text` to `stream` whole, after erasing the countdown. Holds mutex_.
  void Write(FILE* stream, const std::string& text) const;

  const bool json_;
  const bool stderr_tty_;
  const bool countdown_;  // human mode and stderr is a terminal
  // The main thread prints and the core's threads log: one lock keeps lines whole and the
  // countdown erased before either writes.
  mutable HXFramework::CMutex mutex_;
  mutable bool countdown_shown_ HXF_GUARDED_BY(mutex_) = false;
};

}  // namespace hxf_tool
