// The one frame of the common library's C functions: converts texts and keeps every
// exception (allocation failure) from crossing the C boundary.
#pragma once

#include <new>
#include <string>

#include "hxf_common.h"

namespace HXFramework::Common {

// A string of exactly `len` bytes; false for a null pointer with a non-zero length.
inline bool ToStdString(hxf_string text, std::string* out) {
  if (text.str == nullptr) {
    if (text.len != 0) return false;
    out->clear();
    return true;
  }
  out->assign(text.str, text.len);
  return true;
}

template <typename Result, typename Body>
Result Guarded(Result on_failure, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return on_failure;
  }
}

}  // namespace HXFramework::Common
