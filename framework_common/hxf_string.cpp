#include <cstring>

#include "hxf_common.h"

extern "C" hxf_string hxf_string_new(const char* str, uint32_t len) {
  return hxf_string{str, len};
}

extern "C" hxf_string hxf_string_from_cstr(const char* str) {
  if (str == nullptr) return hxf_string{"", 0};
  return hxf_string{str, static_cast<uint32_t>(std::strlen(str))};
}
