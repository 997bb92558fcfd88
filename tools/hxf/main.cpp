// hxf: search, list, listen to and talk with devices through the broker core.
#include <CLI/CLI.hpp>
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
};

}  // namespace

int main(int argc, char** argv) {
  using hxf_tool::CCommands;
  Options options;
  CLI::App app{
      "hxf: find and talk to devices through the broker core (plugins default to the simulator)"};
  app.require_subcommand(1);
  app.fallthrough();  // global options may also follow the subcommand
  app.add_option("--plugin", options.plugins, "provider plugin to load (repeatable; default: sim)");
  app.add_flag("--json", options.json, "one JSON object per event and line");
  app.add_option("--log-level", options.log_level, "show the core's log on stderr")
      ->check(CLI::IsMember({"debug", "info", "error"}));

  auto* search = app.add_subcommand("search", "search actively for devices offering a service");
  search->add_option("SERVICE", options.service, "service name, or * for every service")
      ->required();
  search->add_option("--timeout", options.timeout_ms, "milliseconds to search (default 3000)");

  auto* listen =
      app.add_subcommand("listen", "report devices, arrivals and departures until stopped");
  listen->add_option("SERVICE", options.service, "service name")->required();
  listen->add_option("--for", options.for_ms, "milliseconds to listen (default: until Ctrl-C)");

  auto* devices = app.add_subcommand("devices", "ask for the list of devices of a service");
  devices->add_option("SERVICE", options.service, "service name")->required();
  devices->add_option("--timeout", options.timeout_ms, "milliseconds to wait (default 3000)");

  auto* request =
      app.add_subcommand("request", "send a request (get, set...) and print its result");
  request->add_option("SERVICE", options.service, "service name")->required();
  request
      ->add_option("OPERATION", options.operation, "operation, the request's list name: get or set")
      ->required();
  request->add_option("NAME=VALUE", options.assignments, "properties; device=ID picks the device")
      ->check([](const std::string& text) {
        return CCommands::ValidAssignment(text) ? std::string()
                                                : "expected NAME=VALUE, got " + text;
      });
  request->add_option("--timeout", options.timeout_ms,
                      "milliseconds to wait for the result (default 3000)");

  auto* watch = app.add_subcommand("watch", "subscribe to a service and print its notifications");
  watch->add_option("SERVICE", options.service, "service name")->required();
  watch->add_option("--for", options.for_ms, "milliseconds to watch (default: until Ctrl-C)");

  auto* plugins = app.add_subcommand("plugins", "list the plugin libraries in the plugin folder");
  auto* demo = app.add_subcommand("demo", "a guided tour of the simulator");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return hxf_tool::kUsage;
  }

  if (options.plugins.empty()) options.plugins.push_back("sim");
  const hxf_tool::COutput out(options.json);
  if (plugins->parsed()) return CCommands::Plugins(out);

  hxf_tool::CToolRuntime runtime(options.log_level);
  if (!runtime.Open(options.plugins, out)) {
    runtime.Close();
    return runtime.Interrupted() ? hxf_tool::kOk : hxf_tool::kFailed;
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
  runtime.Close();
  return code;
}
