#include "CDaemonConfig.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>

#include "MqttTopics.h"

namespace hxfd {

namespace {

struct Key {
  const char* name;
  std::string (CDaemonConfig::*set)(const std::string& value);
};

constexpr char kBlanks[] = " \t\r";

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// A piece of the file quoted in an error, cut short: the file may hold anything.
std::string Quote(const std::string& text) {
  constexpr size_t kShown = 40;
  return "\"" + (text.size() <= kShown ? text : text.substr(0, kShown) + "...") + "\"";
}

}  // namespace

const char* const CDaemonConfig::kLimitKeys[] = {
    "max-sessions-per-caller", "max-watches-per-caller", "max-pending-per-caller",
    "max-name-bytes",          "max-text-bytes",         "max-request-bytes",
    "max-search-timeout-ms",   "max-monitor-unread"};

const char* const CDaemonConfig::kMqttKeys[] = {
    "mqtt",     "node",     "mqtt-prefix",        "mqtt-cafile",   "mqtt-cert",
    "mqtt-key", "mqtt-user", "mqtt-password-file", "mqtt-keepalive"};

bool CDaemonConfig::Load(const std::string& path, bool missing_ok, std::string* error) {
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) {
    if (errno == ENOENT && missing_ok) return true;
    *error = path + ": cannot be read: " + std::strerror(errno);
    return false;
  }
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, n);
  const int read_error = std::ferror(file) ? errno : 0;  // a directory opens, then fails here
  std::fclose(file);
  if (read_error != 0) {
    *error = path + ": cannot be read: " + std::strerror(read_error);
    return false;
  }
  return Parse(text, path, error);
}

bool CDaemonConfig::Parse(const std::string& text, const std::string& name, std::string* error) {
  // Every key once; its setter checks the value.
  static const Key kKeys[] = {{"plugins", &CDaemonConfig::_SetPlugins},
                              {"log-level", &CDaemonConfig::_SetLogLevel},
                              {"monitor-group", &CDaemonConfig::_SetMonitorGroup}};
  std::map<std::string, size_t> seen;  // key -> its line
  std::istringstream lines(text);
  std::string line;
  for (size_t number = 1; std::getline(lines, line); ++number) {
    const auto wrong = [&](const std::string& problem) {
      *error = name + ":" + std::to_string(number) + ": " + problem;
      return false;
    };
    const std::string content = Trim(line.substr(0, line.find('#')));
    if (content.empty()) continue;
    const size_t equals = content.find('=');
    const std::string key = Trim(content.substr(0, equals));
    if (equals == std::string::npos || key.empty()) {
      return wrong("expected \"key = value\", not " + Quote(content));
    }
    const Key* known = std::find_if(std::begin(kKeys), std::end(kKeys),
                                    [&](const Key& k) { return key == k.name; });
    const bool limit = std::find_if(std::begin(kLimitKeys), std::end(kLimitKeys), [&](const char* k) {
                         return key == k;
                       }) != std::end(kLimitKeys);
    const bool mqtt = std::find_if(std::begin(kMqttKeys), std::end(kMqttKeys), [&](const char* k) {
                        return key == k;
                      }) != std::end(kMqttKeys);
    if (known == std::end(kKeys) && !limit && !mqtt) {
      return wrong("unknown key " + Quote(key) + " (known: plugins, log-level, monitor-group, max-..., mqtt, node, mqtt-...: see hxfd(1))");
    }
    if (const auto first = seen.find(key); first != seen.end()) {
      return wrong("duplicate key \"" + key + "\" (first on line " +
                   std::to_string(first->second) + ")");
    }
    seen.emplace(key, number);
    const std::string value = Trim(content.substr(equals + 1));
    if (value.empty()) return wrong(key + " needs a value");
    const std::string problem = limit  ? _SetLimit(key, value)
                                : mqtt ? _SetMqtt(key, value)
                                       : (this->*known->set)(value);
    if (!problem.empty()) return wrong(problem);
  }
  return true;
}

std::string CDaemonConfig::_SetPlugins(const std::string& value) {
  std::istringstream names(value);
  std::vector<std::string> plugins;
  for (std::string plugin; names >> plugin;) {
    if (std::find(plugins.begin(), plugins.end(), plugin) != plugins.end()) {
      return "plugins names " + Quote(plugin) + " twice";
    }
    plugins.push_back(plugin);
  }
  plugins_ = std::move(plugins);
  return "";
}

std::string CDaemonConfig::_SetMonitorGroup(const std::string& value) {
  if (value.find_first_of(kBlanks) != std::string::npos)
    return "monitor-group " + Quote(value) + " is not one group name";
  monitor_group_ = value;
  return "";
}

std::string CDaemonConfig::_SetLimit(const std::string& key, const std::string& value) {
  const bool digits = !value.empty() && value.size() <= 10 &&
                      value.find_first_not_of("0123456789") == std::string::npos;
  const unsigned long long number = digits ? std::stoull(value) : 0;
  if (!digits || number == 0 || number > UINT32_MAX)
    return key + " " + Quote(value) + " is not a number from 1 to 4294967295";
  limits_[key] = static_cast<uint32_t>(number);
  return "";
}

std::string CDaemonConfig::_SetMqtt(const std::string& key, const std::string& value) {
  if (key == "mqtt") {
    hxf_tool::MqttUrl url;
    std::string error;
    if (!hxf_tool::ParseMqttUrl(value, &url, &error)) return error;
  } else if (key == "mqtt-keepalive") {
    const bool digits = value.size() <= 4 && value.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || std::stoi(value) < 5 || std::stoi(value) > 3600)
      return key + " " + Quote(value) + " is not a number of seconds from 5 to 3600";
  } else if (key == "mqtt-prefix" &&
             (value.find_first_of("+#") != std::string::npos || value.front() == '/' ||
              value.back() == '/')) {
    return key + " " + Quote(value) + " may not hold + or # nor start or end with /";
  } else if (value.find_first_of(kBlanks) != std::string::npos) {
    return key + " " + Quote(value) + " holds a blank";
  }
  mqtt_[key] = value;
  return "";
}

std::string CDaemonConfig::_SetLogLevel(const std::string& value) {
  if (value != "debug" && value != "info" && value != "error") {
    return "log-level " + Quote(value) + " is not one of debug, info, error";
  }
  log_level_ = value;
  return "";
}

}  // namespace hxfd
