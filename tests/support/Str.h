// Strings across the C API, for the tests: an hxf_string viewing a std::string (which must
// outlive it), and a std::string copied from an hxf_string.
#pragma once

#include <string>

#include "hxf_common.h"

namespace HXFramework::Test {

inline hxf_string Str(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}

inline std::string Text(hxf_string text) {
  return text.str != nullptr ? std::string(text.str, text.len) : std::string();
}

}  // namespace HXFramework::Test
