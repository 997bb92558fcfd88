// The catch frame of work that must not throw to its caller (jobs on a context, manager
// operations that log before rethrowing): a CException is logged as
// "Exception !! - <what>(error_code:<code>)", any other standard exception as
// "Exception !! - <what>" followed by `std_suffix`, both at error priority; anything else
// thrown (by foreign code) as "Exception !! - unknown exception".
#pragma once

#include <exception>

#include "CException.h"
#include "HXLog.h"

namespace HXFramework::Core {

enum class OnException { kSwallow, kRethrow };

// Returns true when the body finished normally.
template <typename Body>
bool RunLogged(const CLogSite& site, OnException policy, Body&& body,
               const char* std_suffix = "\n") {
  try {
    body();
    return true;
  } catch (const CException& e) {
    HXLOG_AT(site, DLOG_ERROR, "Exception !! - %s(error_code:%d)\n", e.what(),
             static_cast<int>(e.code));
    if (policy == OnException::kRethrow) throw;
  } catch (const std::exception& e) {
    HXLOG_AT(site, DLOG_ERROR, "Exception !! - %s%s", e.what(), std_suffix);
    if (policy == OnException::kRethrow) throw;
  } catch (...) {
    // Only foreign code throws these (a plugin's entry point, say): logged like the rest.
    HXLOG_AT(site, DLOG_ERROR, "Exception !! - %s%s", "unknown exception", std_suffix);
    if (policy == OnException::kRethrow) throw;
  }
  return false;
}

}  // namespace HXFramework::Core
