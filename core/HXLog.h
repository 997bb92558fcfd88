// The logging macro of the core. Every line goes to two outputs:
//  1. the scope-trace facility (when enabled for the source location): "[HXFW] " + message,
//     cut to 1023 bytes;
//  2. the platform log, always: "<file> : <function>(<line>)  " + message, never cut here.
// Use: HXLOG(DLOG_ERROR, "service[%s] deleted\n", name.c_str());
#pragma once

#include <cstddef>

#include "hxf_host_platform.h"

#define HXF_TAG_FW "HXF_FW"
#define HXF_TAG_TPL "HXF_TPL_CONTEXT"

namespace HXFramework::Core {

// "<stem>" and "<dir>/<stem>" of a source path, computed at compile time.
template <std::size_t N>
struct CSourceName {
  char file[N] = {};
  char location[N] = {};
};

template <std::size_t N>
constexpr CSourceName<N> MakeSourceName(const char (&path)[N]) {
  CSourceName<N> name{};
  std::size_t base = 0;
  std::size_t dir = 0;
  for (std::size_t i = 0; i + 1 < N; ++i) {
    if (path[i] == '/') {
      dir = base;
      base = i + 1;
    }
  }
  std::size_t end = N - 1;
  for (std::size_t i = N - 1; i > base; --i) {
    if (path[i - 1] == '.') {
      end = i - 1;
      break;
    }
  }
  for (std::size_t i = base; i < end; ++i) name.file[i - base] = path[i];
  for (std::size_t i = dir; i < end; ++i) name.location[i - dir] = path[i];
  return name;
}

// Where a line is written from.
struct CLogSite {
  const char* file;      // base name without extension, e.g. "hxf_core_export"
  const char* location;  // scope-trace location, e.g. "core/hxf_core_export"
  const char* function;
  int line;
};

// The function a log line names. A line names the function that writes it (__func__),
// except inside an operation's frame: HXF_CALLTRACE_OBJ (or HXF_LOG_AS_OPERATION) declares
// the operation's own name in its scope, and every line of that scope, its lambdas included,
// names the operation ("_Discovered", not "operator()"). A helper that writes lines on behalf
// of the operation calling it takes that name as a parameter called hxf_log_function_.
struct CLogFunction {
  constexpr explicit CLogFunction(const char* operation) : name(operation) {}
  const char* name;
};
struct CNoLogFunction {};
constexpr const char* LogFunctionName(CNoLogFunction, const char* function) {
  return function;
}
constexpr const char* LogFunctionName(CLogFunction operation, const char*) {
  return operation.name;
}

// Formats "[HXFW] "-prefixed text into a zero-filled 1024-byte stack buffer and hands it to
// the scope-trace handler of `location` if that handler is enabled.
void TraceLine(const char* location, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace HXFramework::Core

// Found by every line outside an operation's frame: no name of its own.
inline constexpr ::HXFramework::Core::CNoLogFunction hxf_log_function_{};

// Lines of the enclosing scope (and of its lambdas) name this function.
#define HXF_LOG_AS_OPERATION() \
  [[maybe_unused]] static constexpr ::HXFramework::Core::CLogFunction hxf_log_function_(__func__)

#define HXF_SOURCE_NAME                                                                     \
  ([]() -> const auto& {                                                                    \
    static constexpr auto hxf_source_name_ = ::HXFramework::Core::MakeSourceName(__FILE__); \
    return hxf_source_name_;                                                                \
  }())

#define HXF_LOG_SITE                                                                \
  ::HXFramework::Core::CLogSite {                                                   \
    HXF_SOURCE_NAME.file, HXF_SOURCE_NAME.location,                                 \
        ::HXFramework::Core::LogFunctionName(hxf_log_function_, __func__), __LINE__ \
  }

// The one emitter; the macros below only choose site, tag and whether to trace.
#define HXF_LOG_EMIT(site, tag, to_trace, prio, fmt, ...)                                          \
  do {                                                                                             \
    const ::HXFramework::Core::CLogSite hxf_site_ = (site);                                        \
    if (to_trace)                                                                                  \
      ::HXFramework::Core::TraceLine(hxf_site_.location, "[HXFW] " fmt, ##__VA_ARGS__);            \
    dlog_print(prio, tag, "%s : %s(%d)  " fmt, hxf_site_.file, hxf_site_.function, hxf_site_.line, \
               ##__VA_ARGS__);                                                                     \
  } while (0)

#define HXLOG(prio, fmt, ...) HXF_LOG_EMIT(HXF_LOG_SITE, HXF_TAG_FW, true, prio, fmt, ##__VA_ARGS__)
#define HXLOG_AT(site, prio, fmt, ...) \
  HXF_LOG_EMIT(site, HXF_TAG_FW, true, prio, fmt, ##__VA_ARGS__)
// Execution-context lines go to the platform log only.
#define TPLLOG(prio, fmt, ...) \
  HXF_LOG_EMIT(HXF_LOG_SITE, HXF_TAG_TPL, false, prio, fmt, ##__VA_ARGS__)
