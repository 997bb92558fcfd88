#pragma once

#include <stdexcept>
#include <string>

#include "hxf_common.h"

namespace HXFramework::Core {

// A text from a common-library getter as a standard string; a null text is a logic error.
inline std::string CommonText(const char* text) {
  if (text == nullptr) throw std::logic_error("basic_string: construction from null is not valid");
  return std::string(text);
}

// A standard string's bytes as the common library's string, for the duration of a call.
inline hxf_string AsCommonString(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}

}  // namespace HXFramework::Core
