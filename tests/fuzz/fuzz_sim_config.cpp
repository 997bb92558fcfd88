// Fuzzes the simulator's configuration reader (plugins/sim SimConfig): the file named by
// HXF_SIM_CONFIG is read inside hxf and hxfd, so any bytes must end in a model or in one
// refusal "PATH:LINE: problem" on one line, LINE a line of the text; never a crash, a hang
// or a stack overflow, however deep the nesting.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "SimModel.h"

namespace {

void Fail(const char* what, const std::string& detail) {
  std::fprintf(stderr, "fuzz_sim_config: %s: %s\n", what, detail.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string path = "fuzz.json";
  std::string error;
  const std::optional<hxf_sim::Model> model = hxf_sim::ParseModel(text, path, &error);
  if (model) {
    if (!error.empty()) Fail("a model and an error", error);
    if (model->devices.empty()) Fail("a model without devices", text);
    for (const hxf_sim::Device& device : model->devices) {
      if (device.id.empty() && device.service.empty()) Fail("a device without id and service", text);
      for (const hxf_sim::Property& property : device.properties) {
        const std::string wrong = hxf_sim::Validate(property, property.value);
        if (!wrong.empty()) Fail("a property accepted out of its own range", wrong);
      }
    }
    return 0;
  }
  // "fuzz.json:LINE: problem", one line, LINE within the text.
  if (error.compare(0, path.size() + 1, path + ":") != 0) Fail("no path first", error);
  const size_t digits_end = error.find(':', path.size() + 1);
  if (digits_end == std::string::npos || digits_end == path.size() + 1) Fail("no line", error);
  const std::string digits = error.substr(path.size() + 1, digits_end - path.size() - 1);
  if (!std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
    Fail("a line that is no number", error);
  const size_t line = std::stoul(digits);
  const size_t lines = 1 + static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  if (line < 1 || line > lines) Fail("a line outside the text", error);
  if (error.compare(digits_end, 2, ": ") != 0 || error.size() == digits_end + 2)
    Fail("no problem after the line", error);
  if (error.find('\n') != std::string::npos) Fail("a refusal on more than one line", error);
  return 0;
}
