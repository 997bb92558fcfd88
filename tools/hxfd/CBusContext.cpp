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

std::string Quoted(const std::string& text) {
  constexpr size_t kShown = 32;
  if (text.size() <= kShown) return "\"" + text + "\"";
  size_t cut = kShown;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;  // whole UTF-8
  return "\"" + text.substr(0, cut) + "\"... (" + std::to_string(text.size()) + " bytes)";
}

int RefuseLimit(sd_bus_error* error, const std::string& what, const char* key) {
  return Refuse(error, kErrorLimitsExceeded, what + " (limit " + key + " in hxfd.conf)");
}

bool CBusContext::NameFits(const char* what, const std::string& name, sd_bus_error* error) const {
  if (name.size() <= limits_.name_bytes) return true;
  RefuseLimit(error, std::string(what) + " " + Quoted(name) + " is longer than " +
                         std::to_string(limits_.name_bytes) + " bytes",
              "max-name-bytes");
  return false;
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

void DestroyAfterQueuedWork(hxf_client_h client) {
  hxf_core_client_destroy_async(
      client, [](hxf_client_h, void*) {}, nullptr);
}

}  // namespace hxfd
