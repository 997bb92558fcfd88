#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "MonitorTypes.h"

namespace hxf_tool {

namespace {

// What --log-level and HXF_LOG_LEVEL accept.
const std::vector<std::string> kLogLevels{"debug", "info", "error"};

bool KnownLogLevel(const std::string& level) {
  return std::find(kLogLevels.begin(), kLogLevels.end(), level) != kLogLevels.end();
}

// What --bus and HXF_BUS accept: the session or system bus, or an address (which has a
// colon: unix:path=..., tcp:host=...).
bool IsBusAddress(const std::string& where) {
  return where == "session" || where == "system" || where.find(':') != std::string::npos;
}

const char kFooter[] =
    "A time-out of 0 never means at once: --for 0 (the default) means no limit, until\n"
    "Ctrl-C; --timeout waits for a result and takes at least 1 ms; both are whole\n"
    "milliseconds, at most 4294967295.\n"
    "\n"
    "Values (NAME=VALUE): true and false are booleans; 12 and -7 are integers (64-bit signed;\n"
    "larger ones are refused); 1.5, .5, 5., -0.5, 1e3 and 1E-3 are decimals; \"...\" and\n"
    "anything else is text. device=ID names the device.\n"
    "\n"
    "Environment:\n"
    "  HXF_LOG_LEVEL   debug, info or error: log lines of that priority and above on stderr,\n"
    "                  with time, level and tag (as --log-level; debug shows every line)\n"
    "  HXF_SIM_CONFIG  a JSON file that replaces the simulator's devices\n"
    "  HXF_UPNP_IFACE  the one network interface the UPnP plugin uses (default: all)\n"
    "  HXF_BUS         session, system or a D-Bus address: run every command through hxfd\n"
    "                  there (as --bus)\n"
    "\n"
    "Exit codes: 0 ok, 1 the operation failed or timed out, 2 usage error, 130 interrupted.\n"
    "\n"
    "Examples:\n"
    "  hxf search lights --timeout 1000\n"
    "  hxf request lights set device=lamp-1 brightness=40\n"
    "  hxf --json devices audio\n"
    "  hxf listen lights --for 5000\n"
    "  hxf --bus watch lights\n"
    "  hxf --bus monitor --service lights\n";

const char kTimeoutHelp[] = "milliseconds to wait for the result, at least 1 (default 3000)";
const char kForHelp[] = "milliseconds to run, 0 for no limit (default 0: until Ctrl-C)";
const std::vector<std::string> kCommands{"search",  "listen",  "devices",      "request", "watch",
                                         "monitor", "plugins", "check-plugin", "demo"};

// What the parser fills; read into Options once it is done.
struct Raw {
  std::vector<std::string> plugins;
  bool json = false;
  std::string log_level;
  std::string bus;
  std::string service, operation;
  std::vector<std::string> assignments;
  std::string timeout, for_ms;
  bool all = false;
  std::string monitor_service, monitor_type;
  std::string check_plugin;
};

// The command the arguments name, for a pointer to its help: the first argument that is one.
std::string CommandNamed(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (std::find(kCommands.begin(), kCommands.end(), arg) != kCommands.end()) return arg;
  }
  return "";
}

// `text` on one line and harmless on a terminal: control characters, which a problem may
// quote from an argument, written as \xNN (found by fuzz_cli: a newline split the line).
std::string OneLine(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string line;
  line.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      line += "\\x";
      line += kHex[byte >> 4];
      line += kHex[byte & 0xF];
    } else {
      line += c;
    }
  }
  return line;
}

CommandLine Usage(bool json, const std::string& problem, std::string usage) {
  CommandLine line;
  line.outcome = CommandLine::kUsageError;
  line.json = json;
  line.text = OneLine(problem);
  line.usage = std::move(usage);
  return line;
}

}  // namespace

const std::vector<std::string>& LogLevels() {
  return kLogLevels;
}

const std::vector<std::string>& MonitorTypes() {
  static const std::vector<std::string> types(std::begin(kMonitorTypes), std::end(kMonitorTypes));
  return types;
}

CommandLine ParseCommandLine(const std::vector<std::string>& args, const Environment& env) {
  // Known before parsing, so that even a command line the parser refuses is answered in JSON.
  const bool json = std::find(args.begin(), args.end(), "--json") != args.end();
  // A byte string that is not UTF-8 can be neither written as JSON nor sent over D-Bus; it
  // is refused before anything echoes it.
  for (size_t i = 0; i < args.size(); ++i) {
    if (!IsUtf8(args[i]))
      return Usage(json, "argument " + std::to_string(i + 1) + " is not valid UTF-8 text",
                   "Run 'hxf --help' for more information.\n");
  }
  // The same for the variables, which a problem may echo (found by fuzz_cli).
  for (const auto& [name, value] :
       {std::pair{"HXF_LOG_LEVEL", &env.log_level}, std::pair{"HXF_BUS", &env.bus}}) {
    if (!IsUtf8(*value))
      return Usage(json, std::string(name) + " is not valid UTF-8 text",
                   "Run 'hxf --help' for more information.\n");
  }

  Raw raw;
  CLI::App app{
      "hxf: find and talk to devices through the broker core (plugins default to the simulator)",
      "hxf"};
  app.require_subcommand(0, 1);  // none or an unknown one is reported below, with the usage
  app.fallthrough();             // global options may also follow the subcommand
  app.set_version_flag("--version", std::string("hxf ") + HXF_TOOL_VERSION);
  app.footer(kFooter);
  app.add_option("--plugin", raw.plugins,
                 "provider plugin to load, by NAME or (host builds) by the path of its "
                 "libhxf-plugin-NAME.so (repeatable; default: sim)");
  app.add_flag("--json", raw.json, "one JSON object per event and line");
  app.add_option("--log-level", raw.log_level, "show the core's log on stderr")
      ->check(CLI::IsMember(kLogLevels));
  auto* bus = app.add_option("--bus", raw.bus,
                             "run through hxfd on this bus: session (the default), system or a "
                             "D-Bus address")
                  ->expected(0, 1);

  auto* search = app.add_subcommand("search", "search actively for devices offering a service");
  search->add_option("SERVICE", raw.service, "service name, or * for every service")->required();
  auto* search_timeout = search
                             ->add_option("--timeout", raw.timeout,
                                          "milliseconds to search, at least 1 (default 3000)")
                             ->type_name("MS");
  search->footer("Example: hxf search lights --timeout 1000");

  auto* listen =
      app.add_subcommand("listen", "report devices, arrivals and departures until stopped");
  listen->add_option("SERVICE", raw.service, "service name")->required();
  auto* listen_for = listen->add_option("--for", raw.for_ms, kForHelp)->type_name("MS");
  listen->footer("Example: hxf listen lights --for 5000");

  auto* devices = app.add_subcommand("devices", "ask for the list of devices of a service");
  devices->add_option("SERVICE", raw.service, "service name")->required();
  auto* devices_timeout =
      devices->add_option("--timeout", raw.timeout, kTimeoutHelp)->type_name("MS");
  devices->footer("Example: hxf devices audio");

  auto* request =
      app.add_subcommand("request", "send a request (get, set...) and print its result");
  request->add_option("SERVICE", raw.service, "service name")->required();
  request->add_option("OPERATION", raw.operation, "operation, the request's list name: get or set")
      ->required();
  request->add_option("NAME=VALUE", raw.assignments,
                      "properties (see Values below); device=ID picks the device");
  auto* request_timeout =
      request->add_option("--timeout", raw.timeout, kTimeoutHelp)->type_name("MS");
  request->footer(
      "Values: true/false booleans; integers (64-bit signed); decimals (1.5, .5, 5., 1e3);\n"
      "\"...\" and anything else text.\n"
      "Example: hxf request lights set device=lamp-1 brightness=40 power=true");

  auto* watch = app.add_subcommand("watch", "subscribe to a service and print its notifications");
  watch->add_option("SERVICE", raw.service, "service name")->required();
  auto* watch_for = watch->add_option("--for", raw.for_ms, kForHelp)->type_name("MS");
  watch->footer("Example: hxf watch lights --for 8000");

  auto* monitor = app.add_subcommand("monitor", "with --bus: print every event hxfd sees");
  monitor->add_option("--service", raw.monitor_service, "only the events of this service");
  monitor->add_option("--type", raw.monitor_type, "only the events of this type")
      ->check(CLI::IsMember(MonitorTypes()));
  auto* monitor_for = monitor->add_option("--for", raw.for_ms, kForHelp)->type_name("MS");
  monitor->footer(
      "Types: search, found, lost, request, result, notification, plugin, client-gone.\n"
      "Example: hxf --bus monitor --service lights --type request");

  auto* plugins = app.add_subcommand("plugins", "list the plugins a user can load, described");
  plugins->add_flag("--all", raw.all, "also the test fixtures of the build tree");
  plugins->footer("Example: hxf plugins");
  auto* check = app.add_subcommand(
      "check-plugin", "load a plugin in a child process and check the contracts it keeps");
  check->add_option("PLUGIN", raw.check_plugin, "the plugin's NAME, or the path of its library")
      ->required();
  check->footer(
      "Prints PASS, FAIL or SKIP with the reason, one line per check; exit 0 when none failed.\n"
      "Example: hxf check-plugin ./build/libhxf-plugin-blinds.so");
  auto* demo = app.add_subcommand("demo", "a guided tour of the simulator");
  demo->footer("Example: hxf demo");
  // Set after the commands, which would otherwise inherit it: extras at the top level are an
  // unknown command (or a stray argument), reported by name below.
  app.allow_extras();

  const std::string named = CommandNamed(args);
  const std::string more =
      "Run 'hxf " + (named.empty() ? "" : named + " ") + "--help' for more information.\n";
  try {
    // The parser takes its arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
  } catch (const CLI::CallForHelp&) {
    CommandLine line;
    line.outcome = CommandLine::kHelp;
    line.text = app.help();
    return line;
  } catch (const CLI::CallForAllHelp&) {
    CommandLine line;
    line.outcome = CommandLine::kHelp;
    line.text = app.help("", CLI::AppFormatMode::All);
    return line;
  } catch (const CLI::CallForVersion& e) {
    CommandLine line;
    line.outcome = CommandLine::kVersion;
    line.text = std::string(e.what()) + "\n";
    return line;
  } catch (const CLI::ParseError& e) {
    return Usage(json, e.what(), more);
  }

  const std::vector<std::string> extras = app.remaining();
  if (app.get_subcommands().empty()) {
    if (extras.empty()) return Usage(json, "", app.help());
    return Usage(json,
                 (extras.front().rfind('-', 0) == 0 ? "unknown option '" : "unknown command '") +
                     Abbreviated(extras.front()) + "'",
                 app.help());
  }
  if (!extras.empty())
    return Usage(json, "unexpected argument '" + Abbreviated(extras.front()) + "'", app.help());

  CommandLine line;
  line.outcome = CommandLine::kRun;
  line.json = raw.json;
  Options& options = line.options;
  options.command = app.get_subcommands().front()->get_name();
  options.plugins = raw.plugins;
  options.json = raw.json;
  options.log_level = raw.log_level;
  options.service = raw.service;
  options.operation = raw.operation;
  options.all = raw.all;
  options.monitor_service = raw.monitor_service;
  options.monitor_type = raw.monitor_type;
  options.check_plugin = raw.check_plugin;

  if (options.log_level.empty() && !env.log_level.empty()) {
    if (!KnownLogLevel(env.log_level))
      return Usage(
          json,
          "HXF_LOG_LEVEL must be debug, info or error, not '" + Abbreviated(env.log_level) + "'",
          more);
    options.log_level = env.log_level;
  }

  const bool takes_service = options.command == "search" || options.command == "listen" ||
                             options.command == "devices" || options.command == "request" ||
                             options.command == "watch";
  if (takes_service && options.service.empty())
    return Usage(json, options.command + ": the service name is empty", more);
  if (options.command == "request" && options.operation.empty())
    return Usage(json, "request: the operation is empty (get or set)", more);
  if (options.command == "check-plugin" && options.check_plugin.empty())
    return Usage(json, "check-plugin: the plugin's name is empty", more);
  if (options.command == "monitor" && monitor->get_option("--service")->count() != 0 &&
      options.monitor_service.empty())
    return Usage(json, "monitor: --service needs a service name", more);

  for (const std::string& assignment : raw.assignments) {
    Assignment property;
    const std::string problem = ParseAssignment(assignment, &property);
    if (!problem.empty()) return Usage(json, problem, more);
    options.properties.push_back(std::move(property));
  }

  const bool timed = search_timeout->count() != 0 || devices_timeout->count() != 0 ||
                     request_timeout->count() != 0;
  if (timed) {
    const std::string problem = ParseMilliseconds("--timeout", raw.timeout, &options.timeout_ms);
    if (!problem.empty()) return Usage(json, problem, more);
    if (options.timeout_ms == 0)
      return Usage(json, "--timeout 0: a result needs a time-out of at least 1 ms", more);
  }
  if (listen_for->count() != 0 || watch_for->count() != 0 || monitor_for->count() != 0) {
    const std::string problem = ParseMilliseconds("--for", raw.for_ms, &options.for_ms);
    if (!problem.empty()) return Usage(json, problem, more);
  }

  if (bus->count() != 0 || !env.bus.empty()) {
    options.bus = raw.bus;
    if (options.bus.empty()) options.bus = !env.bus.empty() ? env.bus : "session";
    if (!IsBusAddress(options.bus))
      return Usage(json,
                   "--bus takes session, system or a D-Bus address (unix:path=...), not '" +
                       Abbreviated(options.bus) + "'",
                   more);
    if (!options.plugins.empty())
      return Usage(json,
                   "--plugin loads plugins into an in-process broker; with --bus, hxfd has "
                   "loaded its own (hxfd --plugin NAME)",
                   more);
  } else if (options.command == "monitor") {
    return Usage(json, "monitor needs --bus: only hxfd sees what other processes do", more);
  }
  return line;
}

}  // namespace hxf_tool
