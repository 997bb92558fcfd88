// hxf's command line, read into the command to run: a pure function of the arguments and
// the environment variables that stand for options. It prints nothing and never exits (the
// parser's own printing is left to main(), which prints what it returns), so that the
// tool, its unit tests and its fuzzer run the same code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ArgumentValues.h"

namespace hxf_tool {

struct Options {
  // search, listen, devices, request, watch, monitor, plugins, check-plugin or demo.
  std::string command;
  std::vector<std::string> plugins;  // as given; main() puts the simulator in when empty
  bool json = false;
  std::string log_level;               // "" (none), or one of LogLevels()
  std::string service;                 // search, listen, devices, request, watch: never empty
  std::string operation;               // request: never empty
  std::vector<Assignment> properties;  // request: NAME=VALUE, in order
  // One meaning per time option, whatever the command: --timeout (search, devices, request)
  // bounds the wait for a result and is at least 1 ms (0 would give up before asking);
  // --for (listen, watch, monitor) bounds a command that reports until stopped, 0 meaning no
  // limit. Both are whole milliseconds up to 4294967295.
  uint32_t timeout_ms = 3000;
  uint32_t for_ms = 0;
  bool all = false;  // plugins --all
  std::string bus;   // --bus or HXF_BUS: session, system or an address; "" runs in process
  std::string monitor_service, monitor_type;
  std::string check_plugin;  // check-plugin: the plugin's NAME or PATH
};

// The environment variables that stand in for an option not given; "" when unset.
struct Environment {
  std::string log_level;  // HXF_LOG_LEVEL
  std::string bus;        // HXF_BUS
};

struct CommandLine {
  enum Outcome { kRun, kHelp, kVersion, kUsageError };
  Outcome outcome = kUsageError;
  // kHelp, kVersion: what to print on stdout. kUsageError: the problem, in one line ("" when no
  // command was given).
  std::string text;
  // kUsageError: what follows the problem on stderr: the usage, or where to find it.
  std::string usage;
  // --json was given: known even when the rest is refused, so that a usage error is
  // answered in JSON too.
  bool json = false;
  Options options;  // kRun
};

// `args` without the program's name.
CommandLine ParseCommandLine(const std::vector<std::string>& args, const Environment& env);

// What --log-level and HXF_LOG_LEVEL accept, and what monitor --type does.
const std::vector<std::string>& LogLevels();
const std::vector<std::string>& MonitorTypes();

}  // namespace hxf_tool
