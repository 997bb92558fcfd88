// An hxf_string from a std::string, for tests that call the C API.
#pragma once

#include <string>

#include "hxf_common.h"

namespace HXFramework::Test {

inline hxf_string Str(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}

}  // namespace HXFramework::Test
