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

}  // namespace HXFramework
