// hxf: search, list, listen to and talk with devices through the broker core.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CCheckPlugin.h"
#include "CCommands.h"
#include "COutput.h"
#include "CToolRuntime.h"
#include "CommandLine.h"

namespace {

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// A usage error, printed once: the problem and the usage (or where to find it) on stderr;
// in JSON mode also an "error" and an "end" event, so that a script reading stdout sees why
// nothing else came.
int UsageError(const hxf_tool::CommandLine& line) {
  if (!line.text.empty()) std::fprintf(stderr, "hxf: %s\n", line.text.c_str());
  std::fputs(line.usage.c_str(), stderr);
  if (line.json) {
    const hxf_tool::COutput out(true);
    out.Fail(line.text.empty() ? "a command is required" : line.text);
    out.End("", "usage", hxf_tool::kUsage);
  }
  return hxf_tool::kUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // check-plugin's child: loads the plugin under test, never what a user types.
  if (argc > 1 && std::string(argv[1]) == hxf_tool::kCheckPluginChild)
    return hxf_tool::CheckPluginChild(argc, argv);
  using hxf_tool::CCommands;
  using hxf_tool::CommandLine;
  const CommandLine line =
      hxf_tool::ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc),
                                 {Variable("HXF_LOG_LEVEL"), Variable("HXF_BUS")});
  switch (line.outcome) {
    case CommandLine::kHelp:
    case CommandLine::kVersion:
      std::fputs(line.text.c_str(), stdout);
      return hxf_tool::kOk;
    case CommandLine::kUsageError:
      return UsageError(line);
    case CommandLine::kRun:
      break;
  }
  hxf_tool::Options options = line.options;
  if (options.plugins.empty() && options.bus.empty()) options.plugins.push_back("sim");
  const std::string& command = options.command;
  const hxf_tool::COutput out(options.json);
  if (command == "check-plugin") {
    const int code = hxf_tool::CheckPlugin(out, options.check_plugin);
    out.End(command, code == hxf_tool::kOk ? "done" : "failed", code);
    return code;
  }
  if (command == "plugins" && options.bus.empty()) {
    const int code = CCommands::Plugins(out, options.all);
    out.End(command, code == hxf_tool::kOk ? "done" : "failed", code);
    return code;
  }

  hxf_tool::CToolRuntime runtime(options.log_level, out);
  if (!(options.bus.empty() ? runtime.Open(options.plugins) : runtime.OpenBus(options.bus))) {
    runtime.Close();
    const bool interrupted = runtime.Interrupted();
    out.End(command, interrupted ? "interrupted" : "failed",
            interrupted ? hxf_tool::kInterrupted : hxf_tool::kFailed);
    return interrupted ? hxf_tool::kInterrupted : hxf_tool::kFailed;
  }
  CCommands commands(runtime, out);
  int code = hxf_tool::kFailed;
  if (command == "search") code = commands.Search(options.service, options.timeout_ms);
  if (command == "listen") code = commands.Listen(options.service, options.for_ms);
  if (command == "devices") code = commands.Devices(options.service, options.timeout_ms);
  if (command == "request")
    code = commands.Request(options.service, options.operation, options.properties,
                            options.timeout_ms);
  if (command == "watch") code = commands.Watch(options.service, options.for_ms);
  if (command == "demo") code = commands.Demo();
  if (command == "plugins") code = CCommands::Plugins(out, options.all, &runtime.Broker());
  if (command == "monitor")
    code = commands.Monitor(options.monitor_service, options.monitor_type, options.for_ms);
  runtime.Close();
  // Stopped by Ctrl-C (or SIGTERM): the shell's convention, whatever the command made of it.
  if (runtime.Interrupted()) code = hxf_tool::kInterrupted;
  out.End(command, commands.EndReason(code), code);
  return code;
}
