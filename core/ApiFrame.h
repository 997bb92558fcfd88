// The frame every exported hxf_core_* function (but initialize and finalize) runs in:
// log the caller, run the body (convert, call one manager), and turn what it throws into
// a result: a CException into its code, any other standard exception into
// HXF_ERROR_OPERATION_FAILED; a handle-returning body yields null instead. Other exception
// types are not caught (noexcept ends the process rather than unwinding through C).
#pragma once

#include <exception>
#include <string>
#include <type_traits>

#include "CException.h"
#include "HXLog.h"
#include "hxf_common.h"

namespace HXFramework::Core {

void print_app_info(std::string function_name);
// The same for a name with static storage. The frame calls this one: a std::string of an
// entry point's name (longer than the short-string buffer) was a heap allocation per call.
void print_app_info(const char* function_name);

// `site` is the entry point's own (HXF_LOG_SITE written in it), so that the lines name it.
// `log_caller` is false only for initialize and finalize, which log their own lines.
template <typename Body>
auto ApiFrame(const CLogSite& site, Body&& body, bool log_caller = true) noexcept {
  using Value = decltype(body());
  using Result = std::conditional_t<std::is_void_v<Value>, hxf_error_e, Value>;
  const auto failure = [](hxf_error_e code) -> Result {
    if constexpr (std::is_void_v<Value>) {
      return code;
    } else {
      return nullptr;
    }
  };
  try {
    if (log_caller) print_app_info(site.function);
    if constexpr (std::is_void_v<Value>) {
      body();
      return Result{HXF_ERROR_NONE};
    } else {
      return body();
    }
  } catch (const CException& e) {
    HXLOG_AT(site, DLOG_ERROR, "Exception !! - %s(error_code:%d)\n", e.what(),
             static_cast<int>(e.code));
    return failure(e.code);
  } catch (const std::exception& e) {
    HXLOG_AT(site, DLOG_ERROR, "Exception !! - %s\n", e.what());
    return failure(HXF_ERROR_OPERATION_FAILED);
  }
}

}  // namespace HXFramework::Core
