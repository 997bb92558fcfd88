#include "HXLog.h"

#include <cstdarg>
#include <cstdio>

namespace HXFramework::Core {

void TraceLine(const char* location, const char* format, ...) {
  char buffer[1024] = {};
  va_list args;
  va_start(args, format);
  // Formatted even when tracing is off: the flag is only looked at afterwards.
  std::vsnprintf(buffer, sizeof buffer, format, args);  // the last byte stays NUL
  va_end(args);
  scope_trace_handler* handler = scope_trace_get_handler(location);
  if (scope_trace_is_enabled(handler)) scope_trace_write(handler, buffer);
}

}  // namespace HXFramework::Core
