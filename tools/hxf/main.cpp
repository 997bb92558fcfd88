// hxf: search, list, listen to and talk with devices through the broker core.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CCommands.h"
#include "COutput.h"
#include "CToolRuntime.h"

namespace {

struct Options {
  std::vector<std::string> plugins;
  bool json = false;
  std::string log_level;
  std::string service;
  std::string operation;
  std::vector<std::string> assignments;
  uint32_t timeout_ms = 3000;
  uint32_t for_ms = 0;
  bool all = false;
  std::string bus;  // --bus: "session", "system" or a D-Bus address; empty: in process
  std::string monitor_service, monitor_type;
};

const char kFooter[] =
    "Environment:\n"
    "  HXF_LOG_LEVEL   debug, info or error: show the core's log on stderr (as --log-level)\n"
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

// A usage error: the problem and the usage on stderr; in JSON mode also an "error" and an
// "end" event, so that a script reading stdout sees why nothing else came.
int UsageError(const CLI::App& app, bool json, const std::string& problem, bool show_usage = true) {
  if (!problem.empty()) std::fprintf(stderr, "hxf: %s\n", problem.c_str());
  if (show_usage) std::fputs(app.help().c_str(), stderr);
  if (json) {
    const hxf_tool::COutput out(true);
    out.Fail(problem.empty() ? "a command is required" : problem);
    out.End("", "usage", hxf_tool::kUsage);
  }
  return hxf_tool::kUsage;
}

}  // namespace

int main(int argc, char** argv) {
  using hxf_tool::CCommands;
  Options options;
  CLI::App app{
      "hxf: find and talk to devices through the broker core (plugins default to the simulator)"};
  app.require_subcommand(0, 1);  // none or an unknown one is reported below, with the usage
  app.fallthrough();             // global options may also follow the subcommand
  app.set_version_flag("--version", std::string("hxf ") + HXF_CORE_VERSION_STRING);
  app.footer(kFooter);
  app.add_option("--plugin", options.plugins, "provider plugin to load (repeatable; default: sim)");
  app.add_flag("--json", options.json, "one JSON object per event and line");
  app.add_option("--log-level", options.log_level, "show the core's log on stderr")
      ->check(CLI::IsMember(kLogLevels));
  auto* bus = app.add_option("--bus", options.bus,
                             "run through hxfd on this bus: session (the default), system or a "
                             "D-Bus address")
                  ->expected(0, 1);

  auto* search = app.add_subcommand("search", "search actively for devices offering a service");
  search->add_option("SERVICE", options.service, "service name, or * for every service")
      ->required();
  search->add_option("--timeout", options.timeout_ms, "milliseconds to search (default 3000)");
  search->footer("Example: hxf search lights --timeout 1000");

  auto* listen =
      app.add_subcommand("listen", "report devices, arrivals and departures until stopped");
  listen->add_option("SERVICE", options.service, "service name")->required();
  listen->add_option("--for", options.for_ms, "milliseconds to listen (default: until Ctrl-C)");
  listen->footer("Example: hxf listen lights --for 5000");

  auto* devices = app.add_subcommand("devices", "ask for the list of devices of a service");
  devices->add_option("SERVICE", options.service, "service name")->required();
  devices->add_option("--timeout", options.timeout_ms, "milliseconds to wait (default 3000)");
  devices->footer("Example: hxf devices audio");

  auto* request =
      app.add_subcommand("request", "send a request (get, set...) and print its result");
  request->add_option("SERVICE", options.service, "service name")->required();
  request
      ->add_option("OPERATION", options.operation, "operation, the request's list name: get or set")
      ->required();
  request->add_option("NAME=VALUE", options.assignments, "properties; device=ID picks the device")
      ->check(&CCommands::AssignmentProblem);
  request->add_option("--timeout", options.timeout_ms,
                      "milliseconds to wait for the result (default 3000)");
  request->footer("Example: hxf request lights set device=lamp-1 brightness=40 power=true");

  auto* watch = app.add_subcommand("watch", "subscribe to a service and print its notifications");
  watch->add_option("SERVICE", options.service, "service name")->required();
  watch->add_option("--for", options.for_ms, "milliseconds to watch (default: until Ctrl-C)");
  watch->footer("Example: hxf watch lights --for 8000");

  auto* monitor = app.add_subcommand("monitor", "with --bus: print every event hxfd sees");
  monitor->add_option("--service", options.monitor_service, "only the events of this service");
  monitor->add_option("--type", options.monitor_type, "only the events of this type")
      ->check(CLI::IsMember(CCommands::MonitorTypes()));
  monitor->add_option("--for", options.for_ms, "milliseconds to monitor (default: until Ctrl-C)");
  monitor->footer(
      "Types: search, found, lost, request, result, notification, plugin, client-gone.\n"
      "Example: hxf --bus monitor --service lights --type request");

  auto* plugins = app.add_subcommand("plugins", "list the plugins a user can load, described");
  plugins->add_flag("--all", options.all, "also the test fixtures of the build tree");
  plugins->footer("Example: hxf plugins");
  auto* demo = app.add_subcommand("demo", "a guided tour of the simulator");
  demo->footer("Example: hxf demo");
  // Set after the commands, which would otherwise inherit it: extras at the top level are an
  // unknown command (or a stray argument), reported by name below.
  app.allow_extras();

  // Known before parsing, so that even a command line the parser refuses is answered in JSON.
  const bool json_asked = std::find_if(argv + 1, argv + argc, [](const char* arg) {
                            return std::string(arg) == "--json";
                          }) != argv + argc;
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {  // --help, --version
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return UsageError(app, json_asked, e.what(), false);
  }
  const std::vector<std::string> extras = app.remaining();
  if (app.get_subcommands().empty()) {
    if (extras.empty()) return UsageError(app, json_asked, "");
    return UsageError(
        app, json_asked,
        (extras.front().rfind('-', 0) == 0 ? "unknown option '" : "unknown command '") +
            extras.front() + "'");
  }
  if (!extras.empty())
    return UsageError(app, json_asked, "unexpected argument '" + extras.front() + "'");
  if (options.log_level.empty()) {
    const char* level = std::getenv("HXF_LOG_LEVEL");
    if (level != nullptr && *level != '\0') {
      if (!KnownLogLevel(level))
        return UsageError(
            app, json_asked,
            std::string("HXF_LOG_LEVEL must be debug, info or error, not '") + level + "'");
      options.log_level = level;
    }
  }

  const char* bus_env = std::getenv("HXF_BUS");
  if (bus->count() != 0 || (bus_env != nullptr && *bus_env != '\0')) {
    if (options.bus.empty())
      options.bus = bus_env != nullptr && *bus_env != '\0' ? bus_env : "session";
    if (!IsBusAddress(options.bus))
      return UsageError(app, json_asked,
                        "--bus takes session, system or a D-Bus address (unix:path=...), not '" +
                            options.bus + "'");
    if (!options.plugins.empty())
      return UsageError(app, json_asked,
                        "--plugin loads plugins into an in-process broker; with --bus, hxfd has "
                        "loaded its own (hxfd --plugin NAME)");
  } else if (monitor->parsed()) {
    return UsageError(app, json_asked,
                      "monitor needs --bus: only hxfd sees what other processes do");
  }
  if (options.plugins.empty()) options.plugins.push_back("sim");
  const std::string command = app.get_subcommands().front()->get_name();
  const hxf_tool::COutput out(options.json);
  if (plugins->parsed()) {
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
  if (search->parsed()) code = commands.Search(options.service, options.timeout_ms);
  if (listen->parsed()) code = commands.Listen(options.service, options.for_ms);
  if (devices->parsed()) code = commands.Devices(options.service, options.timeout_ms);
  if (request->parsed())
    code = commands.Request(options.service, options.operation, options.assignments,
                            options.timeout_ms);
  if (watch->parsed()) code = commands.Watch(options.service, options.for_ms);
  if (demo->parsed()) code = commands.Demo();
  if (monitor->parsed())
    code = commands.Monitor(options.monitor_service, options.monitor_type, options.for_ms);
  runtime.Close();
  // Stopped by Ctrl-C (or SIGTERM): the shell's convention, whatever the command made of it.
  if (runtime.Interrupted()) code = hxf_tool::kInterrupted;
  out.End(command, commands.EndReason(code), code);
  return code;
}
