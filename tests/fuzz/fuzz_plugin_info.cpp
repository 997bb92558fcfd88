// Fuzzes the reader of a plugin library's self-description (tools/hxf CPluginInfo): hxf reads
// every file in the plugin folder with it, whatever lies there. Any bytes are read from memory
// and, through a file, from the path; both readings must agree, and what is read holds only
// KEY=VALUE texts of UTF-8 without control characters.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "CPluginInfo.h"

namespace {

// One memory file for the whole run, rewritten for each input.
const std::string& FilePath() {
  static const std::string path = [] {
    const int fd = memfd_create("libhxf-plugin-fuzz.so", MFD_CLOEXEC);
    if (fd < 0) std::abort();
    return "/proc/self/fd/" + std::to_string(fd);
  }();
  return path;
}

void Fail(const char* what) {
  std::fprintf(stderr, "fuzz_plugin_info: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An entry left from before: its value holds a control character, which no entry read from
  // a library can (a library may well name a key "stale").
  static const std::string kStaleValue = "\x01kept";
  std::map<std::string, std::string> from_memory{{"stale", kStaleValue}};
  const bool read = hxf_tool::ReadPluginInfo(data, size, &from_memory);
  if (read) {
    for (const auto& [key, value] : from_memory) {
      if (key == "stale" && value == kStaleValue) Fail("an earlier entry was kept");
      for (const std::string* text : {&key, &value}) {
        for (const char c : *text) {
          if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) Fail("a control character in an entry");
        }
      }
      try {
        (void)nlohmann::json{{key, value}}.dump();  // as `hxf plugins --json` writes it
      } catch (const nlohmann::json::exception& e) {
        Fail(e.what());
      }
    }
  }

  const std::string& path = FilePath();
  FILE* file = std::fopen(path.c_str(), "wb");  // truncates the memory file
  if (file == nullptr || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0) Fail("cannot write");
  std::map<std::string, std::string> from_file;
  if (hxf_tool::ReadPluginInfo(path, &from_file) != read) Fail("the file and the memory reading disagree");
  if (read && from_file != from_memory) Fail("the file and the memory reading found different entries");
  return 0;
}
