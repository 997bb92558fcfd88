// hxfd: the broker as a D-Bus service. Loads the plugins named on its command line or in its
// configuration file and serves org.hxf.Broker on the session bus, the system bus or a given
// address until SIGTERM or SIGINT.
#include <signal.h>
#include <unistd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "BusValues.h"
#include "CBusBroker.h"
#include "CDaemonConfig.h"
#include "CLocks.h"
#include "CoreValues.h"
#include "PluginFiles.h"
#include "hxf_core.h"
#include "hxf_core_version.h"
#include "hxf_host_platform.h"
#ifdef HXFD_MQTT
#include "CMqttFront.h"
#endif

namespace {

struct Options {
  bool system = false;
  std::string address;
  std::vector<std::string> plugins{"sim"};
  std::string log_level;
  std::string config = HXFD_DEFAULT_CONFIG;
  std::string monitor_group = "hxf-monitor";
  hxfd::Limits limits;
#ifdef HXFD_MQTT
  hxfd::MqttFrontOptions mqtt;
  std::string mqtt_password_file;
#endif
};

// A limit of the configuration, by its key (CDaemonConfig::kLimitKeys).
void SetLimit(hxfd::Limits* limits, const std::string& key, uint32_t value) {
  const std::pair<const char*, uint32_t hxfd::Limits::*> kMembers[] = {
      {"max-sessions-per-caller", &hxfd::Limits::sessions},
      {"max-watches-per-caller", &hxfd::Limits::watches},
      {"max-pending-per-caller", &hxfd::Limits::pending},
      {"max-name-bytes", &hxfd::Limits::name_bytes},
      {"max-text-bytes", &hxfd::Limits::text_bytes},
      {"max-request-bytes", &hxfd::Limits::request_bytes},
      {"max-search-timeout-ms", &hxfd::Limits::search_timeout_ms},
      {"max-monitor-unread", &hxfd::Limits::monitor_unread}};
  for (const auto& [name, member] : kMembers) {
    if (key == name) limits->*member = value;
  }
}

int g_log_threshold = DLOG_SILENT;

// The configuration file's settings, where the command line leaves them unset. A missing
// default file is no configuration; a missing --config file is an error.
bool ApplyConfig(const CLI::App& app, Options* options) {
  hxfd::CDaemonConfig config;
  std::string error;
  if (!config.Load(options->config, app.count("--config") == 0, &error)) {
    std::fprintf(stderr, "hxfd: %s\n", error.c_str());
    return false;
  }
  if (app.count("--plugin") == 0 && !config.Plugins().empty()) options->plugins = config.Plugins();
  if (app.count("--log-level") == 0) options->log_level = config.LogLevel();
  if (!config.MonitorGroup().empty()) options->monitor_group = config.MonitorGroup();
  for (const auto& [key, value] : config.Limits()) SetLimit(&options->limits, key, value);
#ifdef HXFD_MQTT
  // The MQTT front's settings, each where the command line leaves it unset.
  const std::pair<const char*, std::string*> kMqttMembers[] = {
      {"mqtt", &options->mqtt.url},           {"node", &options->mqtt.node},
      {"mqtt-prefix", &options->mqtt.prefix}, {"mqtt-cafile", &options->mqtt.cafile},
      {"mqtt-cert", &options->mqtt.certfile}, {"mqtt-key", &options->mqtt.keyfile},
      {"mqtt-user", &options->mqtt.user},     {"mqtt-password-file", &options->mqtt_password_file}};
  for (const auto& [key, value] : config.Mqtt()) {
    for (const auto& [name, member] : kMqttMembers) {
      if (key == name && app.count(std::string("--") + name) == 0) *member = value;
    }
    if (key == "mqtt-keepalive") options->mqtt.keepalive_s = std::stoi(value);
  }
#else
  if (!config.Mqtt().empty()) {
    std::fprintf(stderr, "hxfd: %s sets %s, but this hxfd was built without MQTT (it needs "
                 "libmosquitto-dev)\n", options->config.c_str(), config.Mqtt().begin()->first.c_str());
    return false;
  }
#endif
  return true;
}

// Whether a line is shown; the others are not even formatted (the core writes lines for every
// call into it, and formatting them cost a quarter of hxfd's time per request).
bool WantsLogLine(int priority, const char* tag) {
  return hxf_tool::ShowLogLine(priority, tag, g_log_threshold);
}

// The log lines chosen by --log-level (and a plugin's errors) on stderr.
void OnLog(int priority, const char* tag, const char* text, void*) {
  if (!WantsLogLine(priority, tag)) return;
  // One write per line keeps the lines of concurrent threads whole.
  const std::string line =
      hxf_tool::LogLine(priority, tag, text, std::chrono::system_clock::now()) + "\n";
  std::fputs(line.c_str(), stderr);
}

// Loads each plugin and waits for its load result. A plugin that fails is logged with the
// reason and shown as failed in the Plugins property (without a bus, no broker: null); hxfd
// serves with the others, the names of which it returns.
std::vector<std::string> LoadPlugins(const std::vector<std::string>& plugins,
                                     hxfd::CBusBroker* broker) {
  std::vector<std::string> loaded_names;
  struct Result {
    std::string name;
    bool ok;
    std::string reported_as;  // the name the plugin reported under, when not its own
  };
  struct Loads {
    HXFramework::CMutex mutex;  // the core's and the plugins' threads add, main waits
    std::condition_variable done;
    std::vector<Result> results HXF_GUARDED_BY(mutex);
    std::set<std::string> known HXF_GUARDED_BY(mutex);  // the names the core was asked to load
    std::string loading HXF_GUARDED_BY(mutex);
  } loads;
  const auto loaded = [](hxf_string name, hxf_plugin_load_result_e result, void* data) {
    auto* l = static_cast<Loads*>(data);
    HXFramework::CMutexLock lock(l->mutex);
    l->results.push_back(
        {std::string(name.str, name.len), result == HXF_PLUGIN_LOAD_RESULT_SUCCESS, ""});
    l->done.notify_all();
  };
  // Loads are one at a time: a report under a name the core does not know (it drops it) is
  // the loading plugin's.
  const auto reported = [](const std::string& name, hxf_plugin_load_result_e result, void* data) {
    auto* l = static_cast<Loads*>(data);
    HXFramework::CMutexLock lock(l->mutex);
    if (l->known.count(name) != 0) return;  // the core delivers it to `loaded`
    l->results.push_back({l->loading, result == HXF_PLUGIN_LOAD_RESULT_SUCCESS, name});
    l->done.notify_all();
  };
  const auto failed = [&](const std::string& plugin, const std::string& reason) {
    std::fprintf(stderr, "hxfd: plugin %s failed to load: %s\n", plugin.c_str(), reason.c_str());
    if (broker != nullptr) broker->PluginLoaded(plugin, false, reason);
  };
  hxf_tool::WatchLoadReports(reported, &loads);
  for (const std::string& argument : plugins) {
    // A path (host builds) loads under the NAME of its libhxf-plugin-NAME.so.
    const std::string plugin = hxf_tool::PluginName(argument);
    const std::string problem = hxf_tool::PluginPathProblem(argument);
    if (!problem.empty()) {
      failed(argument, problem);
      continue;
    }
    size_t before = 0;
    {
      HXFramework::CMutexLock lock(loads.mutex);
      loads.loading = plugin;
      loads.known.insert(plugin);
      before = loads.results.size();
    }
    const hxf_error_e refused =
        hxf_core_plugin_load(hxf_string{argument.c_str(), static_cast<uint32_t>(argument.size())},
                             loaded, &loads);
    if (refused != HXF_ERROR_NONE) {
      failed(plugin, refused == HXF_ERROR_OPERATION_FAILED ? "load refused: it is already loaded"
                     : refused == HXF_ERROR_INVALID_PARAMETER && hxf_tool::IsPluginPath(argument)
                         ? "load refused: " + hxf_tool::PluginPathRefusal()
                         : "load refused");
      continue;
    }
    Result result;
    {
      HXFramework::CMutexLock lock(loads.mutex);
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
      bool mine = false;
      size_t seen = before;
      while (!mine) {
        for (; seen < loads.results.size() && !mine; ++seen) {
          mine = loads.results[seen].name == plugin;
          if (mine) result = loads.results[seen];
        }
        if (!mine && loads.done.wait_until(lock.Native(), deadline) == std::cv_status::timeout &&
            seen == loads.results.size())
          break;
      }
      if (!mine) {
        lock.Unlock();
        failed(plugin, "no load result within 10 s");
        continue;
      }
    }
    if (!result.reported_as.empty())
      std::fprintf(stderr, "hxfd: plugin %s reported its load result under the name '%s'\n",
                   plugin.c_str(), result.reported_as.c_str());
    if (result.ok) {
      if (broker != nullptr) broker->PluginLoaded(plugin, true);
      loaded_names.push_back(plugin);
    } else {
      failed(plugin, hxf_tool::LoadFailureReason(argument));
    }
  }
  hxf_tool::WatchLoadReports(nullptr, nullptr);
  return loaded_names;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app{"hxfd: the hxf broker on D-Bus (org.hxf.Broker)"};
  app.set_version_flag("--version", std::string("hxfd ") + HXF_CORE_VERSION_STRING);
  auto* system = app.add_flag("--system", options.system, "serve on the system bus");
  app.add_option("--address", options.address, "serve on the bus at this D-Bus address")
      ->excludes(system);
  app.add_option("--plugin", options.plugins, "a plugin to load (repeatable; default: sim)");
  app.add_option("--log-level", options.log_level, "show the core's log: debug, info or error")
      ->check(CLI::IsMember({"debug", "info", "error"}));
  app.add_option("--config", options.config, "read this configuration file")
      ->capture_default_str();
#ifdef HXFD_MQTT
  app.add_option("--mqtt", options.mqtt.url,
                 "serve on MQTT too: mqtt://HOST[:PORT] or mqtts://HOST[:PORT] (docs/MQTT.md)");
  app.add_option("--node", options.mqtt.node, "this node's name on MQTT (default: the host name)");
  app.add_option("--mqtt-prefix", options.mqtt.prefix, "the first level of every topic")
      ->capture_default_str();
  app.add_option("--mqtt-cafile", options.mqtt.cafile, "the CA that signed the broker's certificate");
  app.add_option("--mqtt-cert", options.mqtt.certfile, "this client's certificate (PEM)");
  app.add_option("--mqtt-key", options.mqtt.keyfile, "this client's private key (PEM)");
  app.add_option("--mqtt-user", options.mqtt.user, "the user name given to the MQTT broker");
  app.add_option("--mqtt-password-file", options.mqtt_password_file,
                 "the file whose first line is the MQTT user's password");
#endif
  CLI11_PARSE(app, argc, argv);
  if (!ApplyConfig(app, &options)) return 2;
  g_log_threshold = hxf_tool::LogThreshold(options.log_level);
#ifdef HXFD_MQTT
  std::string mqtt_problem;
  if (!options.mqtt.url.empty() && !hxfd::CompleteMqttOptions(options.mqtt_password_file,
                                                              &options.mqtt, &mqtt_problem)) {
    std::fprintf(stderr, "hxfd: %s\n", mqtt_problem.c_str());
    return 2;
  }
  const bool mqtt = !options.mqtt.url.empty();
#else
  const bool mqtt = false;
#endif

  // Blocked before any thread exists, so that no pool thread of the core takes them: the
  // event loop reads them.
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop, nullptr);

  sd_event* event = nullptr;
  sd_bus* bus = nullptr;
  int r = sd_event_default(&event);
  const std::string where =
      !options.address.empty() ? options.address : (options.system ? "system" : "session");
  if (r < 0) {
    std::fprintf(stderr, "hxfd: no event loop: %s\n", std::strerror(-r));
    return 1;
  }
  r = hxf_tool::ConnectBus(where, &bus);
  if (r < 0) {
    std::fprintf(stderr, "hxfd: %s%s\n", hxf_tool::ConnectFailure(where, r).c_str(),
                 mqtt ? "; serving MQTT alone" : "");
    if (!mqtt) return 1;
    bus = nullptr;
  }
  sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);  // no handler: exit the loop
  sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr);
  if (bus != nullptr) {
    sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL);
    sd_bus_set_exit_on_disconnect(bus, 1);  // the bus went away: nothing left to serve
  }

  hxf_host_log_set_filter(&WantsLogLine);
  hxf_host_log_set_sink(&OnLog, nullptr);
  hxf_core_initialize();
  int code = 0;
  {
    // Without a bus, a broker that serves nothing: only the MQTT front runs.
    std::unique_ptr<hxfd::CBusBroker> bus_broker;
    if (bus != nullptr) bus_broker = std::make_unique<hxfd::CBusBroker>(bus, event);
#ifdef HXFD_MQTT
    hxfd::CMqttFront mqtt_front(event, options.mqtt);
#endif
    if (bus_broker != nullptr) {
      bus_broker->SetLimits(options.limits);
      bus_broker->SetMonitorAccess({0, geteuid()}, options.monitor_group);
      r = bus_broker->Start();
    } else {
      r = 0;
    }
    if (r < 0) {
      std::fprintf(stderr, "hxfd: cannot serve %s: %s%s\n", hxf_tool::kBusName,
                   r == -EEXIST ? "another hxfd already serves it on this bus" : std::strerror(-r),
                   r == -EACCES ? " (the bus's policy does not let this user own the name; on "
                                  "the system bus, root and the user hxf may: org.hxf.Broker.conf)"
                                : "");
      code = 1;
    } else {
      const std::vector<std::string> loaded = LoadPlugins(options.plugins, bus_broker.get());
#ifdef HXFD_MQTT
      std::string mqtt_error;
      if (mqtt && !mqtt_front.Start(hxfd::OfferedServices(loaded), &mqtt_error)) {
        std::fprintf(stderr, "hxfd: %s\n", mqtt_error.c_str());
        code = 1;
      }
#else
      (void)loaded;
#endif
      if (bus_broker != nullptr) std::fprintf(stderr, "hxfd: serving %s\n", hxf_tool::kBusName);
      if (code == 0) r = sd_event_loop(event);
      if (code == 0 && r < 0) {
        std::fprintf(stderr, "hxfd: the event loop failed: %s\n", std::strerror(-r));
        code = 1;
      }
    }
#ifdef HXFD_MQTT
    mqtt_front.Stop();  // "offline", then its client destroyed
#endif
    if (bus_broker != nullptr) bus_broker->Stop();  // every caller's client destroyed
    hxf_core_plugin_unload_all();
  }
  hxf_core_finalize();
  if (bus != nullptr) sd_bus_flush_close_unref(bus);
  sd_event_unref(event);
  std::fprintf(stderr, "hxfd: stopped\n");
  return code;
}
