#pragma once

#include <stdexcept>
#include <string>

#include "hxf_common.h"

namespace HXFramework {

// The one exception type the core throws. what() is the message followed by "(error:N)";
// the catch sites read `code` directly.
class CException : public std::domain_error {
 public:
  CException(const std::string& message, hxf_error_e error_code);

  hxf_error_e code;
};

// Throws `message` with `code` unless `condition` holds: the argument checks of the
// managers' operations.
inline void Require(bool condition, const char* message, hxf_error_e code) {
  if (!condition) throw CException(message, code);
}

// Throws `message` as a plain failure (HXF_ERROR_OPERATION_FAILED).
[[noreturn]] inline void Fail(const std::string& message) {
  throw CException(message, HXF_ERROR_OPERATION_FAILED);
}

}  // namespace HXFramework
