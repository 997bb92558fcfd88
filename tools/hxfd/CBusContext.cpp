#include "CBusContext.h"

#include <sys/random.h>

#include <cstdio>
#include <cstdlib>

#include "BusValues.h"

namespace hxfd {

std::string CBusContext::NewPath(const char* kind) {
  uint64_t id = 0;
  if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id)) {
    std::fputs("hxfd: no random numbers for an object path\n", stderr);
    std::abort();
  }
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(id));
  return std::string(hxf_tool::kBrokerPath) + "/" + kind + "/" + text;
}

int Refuse(sd_bus_error* error, const char* name, const std::string& message) {
  return sd_bus_error_set(error, name, message.c_str());
}

bool CallTimeoutFits(uint32_t timeout_ms, sd_bus_error* error) {
  if (timeout_ms > 0 && timeout_ms < kCallTimeoutMs) return true;
  Refuse(error, hxf_tool::ErrorName(HXF_ERROR_INVALID_PARAMETER),
         "timeout_ms " + std::to_string(timeout_ms) + " must be above 0 and below " +
             std::to_string(kCallTimeoutMs) + " (the D-Bus call would time out first)");
  return false;
}

hxf_string View(const std::string& text) {
  return hxf_string{text.c_str(), static_cast<uint32_t>(text.size())};
}

}  // namespace hxfd
