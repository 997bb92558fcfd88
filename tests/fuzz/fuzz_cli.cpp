// Fuzzes hxf's command line: the input, split at its NUL bytes, is the argument list (argv
// without the program's name). An input that starts with byte 1 takes its first two
// arguments as HXF_LOG_LEVEL and HXF_BUS instead. Whatever comes, ParseCommandLine returns
// (no crash, no exit, no output) a result that keeps its promises: a usage problem in one
// line, a command whose service and operation are not empty and whose time-out is at least
// 1 ms, property values of the four types, and all of it writable as JSON.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "CommandLine.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  hxf_tool::Environment env;
  const bool with_env = !input.empty() && input.front() == '\x01';
  if (with_env) input.erase(0, 1);
  std::vector<std::string> args;
  if (!input.empty()) {
    size_t start = 0;
    for (;;) {
      const size_t nul = input.find('\0', start);
      args.push_back(
          input.substr(start, nul == std::string::npos ? std::string::npos : nul - start));
      if (nul == std::string::npos) break;
      start = nul + 1;
    }
  }
  if (with_env && args.size() >= 2) {
    env.log_level = args[0];
    env.bus = args[1];
    args.erase(args.begin(), args.begin() + 2);
  }

  const hxf_tool::CommandLine line = hxf_tool::ParseCommandLine(args, env);
  nlohmann::json written = {{"text", line.text}, {"usage", line.usage}, {"json", line.json}};
  switch (line.outcome) {
    case hxf_tool::CommandLine::kHelp:
    case hxf_tool::CommandLine::kVersion:
      Check(!line.text.empty());
      break;
    case hxf_tool::CommandLine::kUsageError:
      Check(line.text.find('\n') == std::string::npos);
      Check(!line.usage.empty());
      break;
    case hxf_tool::CommandLine::kRun: {
      const hxf_tool::Options& options = line.options;
      Check(!options.command.empty());
      if (options.command == "search" || options.command == "listen" ||
          options.command == "devices" || options.command == "request" ||
          options.command == "watch")
        Check(!options.service.empty());
      if (options.command == "request") Check(!options.operation.empty());
      Check(options.timeout_ms >= 1);
      Check(options.bus.empty() || options.plugins.empty());
      nlohmann::json properties = nlohmann::json::object();
      for (const hxf_tool::Assignment& property : options.properties) {
        Check(!property.name.empty());
        Check(property.value.is_boolean() || property.value.is_number_integer() ||
              property.value.is_number_float() || property.value.is_string());
        Check(!property.value.is_number_unsigned());
        properties[property.name] = property.value;
      }
      written["options"] = {{"command", options.command},
                            {"service", options.service},
                            {"operation", options.operation},
                            {"properties", properties},
                            {"plugins", options.plugins},
                            {"log_level", options.log_level},
                            {"bus", options.bus},
                            {"monitor", options.monitor_service},
                            {"type", options.monitor_type}};
      break;
    }
  }
  // What --json would print: throws (and so aborts the run) on text that is not UTF-8.
  Check(!written.dump().empty());
  return 0;
}
