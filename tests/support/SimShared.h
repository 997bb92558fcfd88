// What the simulator's tests share: a property list as one line of text, and a
// configuration that must be refused.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

#include "EventLog.h"
#include "LogCapture.h"
#include "Str.h"
#include "hxf_core.h"

namespace HXFramework {
namespace Test {

// "NAME key=value key=value...", in the list's order ("null" for no list).
inline std::string Render(hxf_property_list_h list) {
  if (list == nullptr) return "null";
  std::string text = hxf_property_list_get_name(list);
  for (hxf_property_h p = hxf_property_list_get_first(list); p != nullptr;
       p = hxf_property_list_get_next(list, p)) {
    text += std::string(" ") + hxf_property_get_name(p) + "=";
    int64_t i = 0;
    bool b = false;
    double d = 0;
    const char* s = nullptr;
    if (hxf_property_get_int(p, &i) == HXF_ERROR_NONE) text += std::to_string(i);
    if (hxf_property_get_bool(p, &b) == HXF_ERROR_NONE) text += b ? "true" : "false";
    if (hxf_property_get_double(p, &d) == HXF_ERROR_NONE) text += std::to_string(d);
    if (hxf_property_get_string(p, &s, nullptr) == HXF_ERROR_NONE) text += s;
  }
  return text;
}

// Loads the simulator with `content` as its configuration; true when the load fails with
// "sim: bad configuration PATH:" + `refusal` in the log.
inline bool RefusedAs(const std::string& content, const std::string& refusal) {
  // One file per process: ctest runs the tests that call this in parallel processes.
  const std::string path =
      ::testing::TempDir() + "sim-refused-" + std::to_string(getpid()) + ".json";
  {
    std::ofstream file(path);
    file << content;
  }
  setenv("HXF_SIM_CONFIG", path.c_str(), 1);
  LogCapture capture;
  hxf_core_initialize();
  EventLog loaded;
  hxf_core_plugin_load(
      Str("sim"),
      [](hxf_string, hxf_plugin_load_result_e result, void* ud) {
        static_cast<EventLog*>(ud)->Add("loaded " + std::to_string(result));
      },
      &loaded);
  const bool failed = loaded.WaitCount("loaded 1", 1);
  unsetenv("HXF_SIM_CONFIG");
  hxf_core_plugin_unload_all();
  hxf_core_finalize();
  const std::string line = "sim: bad configuration " + path + ":" + refusal + "\n";
  EXPECT_TRUE(capture.Contains(line)) << capture.Find("bad configuration").text;
  return failed && capture.Contains(line);
}

}  // namespace Test
}  // namespace HXFramework
