#include "CException.h"

namespace HXFramework {

CException::CException(const std::string& message, hxf_error_e error_code)
    : std::domain_error(message + "(error:" + std::to_string(static_cast<int>(error_code)) + ")"),
      code(error_code) {}

}  // namespace HXFramework
