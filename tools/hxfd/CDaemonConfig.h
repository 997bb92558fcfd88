// hxfd's configuration file (by default /etc/hxf/hxfd.conf): one `key = value` per line,
// `#` starts a comment, blank lines are ignored. Keys: `plugins` (names separated by
// blanks), `log-level` (debug, info or error), `monitor-group` (a group whose members may
// monitor), the limits, `max-...` (a number each; hxfd(1), LIMITS) and the MQTT front's
// `mqtt`, `node`, `mqtt-...` (docs/MQTT.md). The command line overrides the file.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace hxfd {

class CDaemonConfig {
 public:
  // Reads the file at `path`. A file that does not exist is an empty configuration when
  // `missing_ok` (the default file is optional, a file named on the command line is not).
  // False, with "PATH:LINE: what is wrong" (or "PATH: ..." for the file as a whole) in
  // *error, when the file cannot be read or a line is wrong.
  bool Load(const std::string& path, bool missing_ok, std::string* error);
  // The same for `text`, read from a file called `name`.
  bool Parse(const std::string& text, const std::string& name, std::string* error);

  // Empty when the file does not set them.
  const std::vector<std::string>& Plugins() const { return plugins_; }
  const std::string& LogLevel() const { return log_level_; }
  // Empty when not set: the default group, hxf-monitor.
  const std::string& MonitorGroup() const { return monitor_group_; }
  // The limits set, by key (max-sessions-per-caller...).
  const std::map<std::string, uint32_t>& Limits() const { return limits_; }
  // The keys of the limits.
  static const char* const kLimitKeys[];
  // The MQTT front's settings set (mqtt, node, mqtt-prefix...), by key; checked, as text.
  const std::map<std::string, std::string>& Mqtt() const { return mqtt_; }
  static const char* const kMqttKeys[];

 private:
  // Each returns what is wrong with `value`, or an empty text.
  std::string _SetPlugins(const std::string& value);
  std::string _SetLogLevel(const std::string& value);
  std::string _SetMonitorGroup(const std::string& value);
  std::string _SetLimit(const std::string& key, const std::string& value);
  std::string _SetMqtt(const std::string& key, const std::string& value);

  std::vector<std::string> plugins_;
  std::string log_level_;
  std::string monitor_group_;
  std::map<std::string, uint32_t> limits_;
  std::map<std::string, std::string> mqtt_;
};

}  // namespace hxfd
