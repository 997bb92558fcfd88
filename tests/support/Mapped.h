// Whether a library is mapped into this process, read from /proc/self/maps.
#pragma once

#include <fstream>
#include <string>

namespace HXFramework::Test {

// True when a mapping's path ends with `file_name` (give it with its leading '/').
inline bool Mapped(const std::string& file_name) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.size() >= file_name.size() &&
        line.compare(line.size() - file_name.size(), file_name.size(), file_name) == 0) {
      return true;
    }
  }
  return false;
}

// True when a mapping's path contains `fragment` ("/libgupnp-1.6.so" for any version).
inline bool MappedLike(const std::string& fragment) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    if (line.find(fragment) != std::string::npos) return true;
  }
  return false;
}

}  // namespace HXFramework::Test
