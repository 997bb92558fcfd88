// hxfd's configuration file (by default /etc/hxf/hxfd.conf): one `key = value` per line,
// `#` starts a comment, blank lines are ignored. Keys: `plugins` (names separated by
// blanks) and `log-level` (debug, info or error). The command line overrides the file.
#pragma once

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

 private:
  // Each returns what is wrong with `value`, or an empty text.
  std::string _SetPlugins(const std::string& value);
  std::string _SetLogLevel(const std::string& value);

  std::vector<std::string> plugins_;
  std::string log_level_;
};

}  // namespace hxfd
