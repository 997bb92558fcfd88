// Platform log stand-in: formats each line once and hands it to the current sink.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CSinkState.h"
#include "hxf_host_platform.h"

namespace {

int LevelFromEnvironment() {
  const char* level = std::getenv("HXF_LOG_LEVEL");
  if (level == nullptr) return DLOG_SILENT;
  if (std::strcmp(level, "debug") == 0) return DLOG_DEBUG;
  if (std::strcmp(level, "info") == 0) return DLOG_INFO;
  if (std::strcmp(level, "error") == 0) return DLOG_ERROR;
  return DLOG_SILENT;
}

char PriorityLetter(int priority) {
  switch (priority) {
    case DLOG_DEBUG:
      return 'D';
    case DLOG_INFO:
      return 'I';
    case DLOG_WARN:
      return 'W';
    case DLOG_ERROR:
      return 'E';
    case DLOG_FATAL:
      return 'F';
    default:
      return 'V';
  }
}

// Read once, at the first line: the level cannot change while the process runs.
int Threshold() {
  static const int threshold = LevelFromEnvironment();
  return threshold;
}

void DefaultSink(int priority, const char* tag, const char* text, void*) {
  if (priority < Threshold()) return;
  // One fprintf per line keeps lines of concurrent threads whole on stderr.
  const size_t len = std::strlen(text);
  const bool has_newline = len > 0 && text[len - 1] == '\n';
  std::fprintf(stderr, "%c/%s: %s%s", PriorityLetter(priority), tag, text, has_newline ? "" : "\n");
}

using SinkState = HXFramework::Host::CSinkState<hxf_host_log_sink, DefaultSink>;

SinkState& Sink() {
  return SinkState::Get();
}

std::atomic<hxf_host_log_filter> g_filter{nullptr};

}  // namespace

extern "C" int dlog_print(log_priority prio, const char* tag, const char* fmt, ...) {
  if (fmt == nullptr) return -1;
  SinkState& state = Sink();
  // A line nobody will see is not formatted and takes no lock: the default sink below its
  // level drops it.
  if (prio < Threshold() && !state.Replaced()) return 0;
  const hxf_host_log_filter wants = g_filter.load(std::memory_order_relaxed);
  if (wants != nullptr && !wants(prio, tag != nullptr ? tag : "")) return 0;
  // Shared while formatting and calling the sink: set_sink waits for both.
  HXFramework::CReadLock lock(state.mutex);
  if (state.sink == DefaultSink && prio < Threshold()) return 0;  // put back meanwhile
  char stack_buffer[1024];
  va_list args;
  va_start(args, fmt);
  va_list retry;
  va_copy(retry, args);
  const int length = std::vsnprintf(stack_buffer, sizeof stack_buffer, fmt, args);
  va_end(args);
  if (length < 0) {
    va_end(retry);
    return length;
  }
  std::string heap_buffer;
  const char* text = stack_buffer;
  if (static_cast<size_t>(length) >= sizeof stack_buffer) {
    // The platform log keeps long lines whole; only the trace hook cuts them. Callers
    // log from destructors, so a failed allocation must not escape: the line is cut.
    try {
      heap_buffer.resize(static_cast<size_t>(length) + 1);
      std::vsnprintf(heap_buffer.data(), heap_buffer.size(), fmt, retry);
      text = heap_buffer.c_str();
    } catch (...) {
    }
  }
  va_end(retry);
  state.sink(prio, tag != nullptr ? tag : "", text, state.user_data);
  return length;
}

extern "C" void hxf_host_log_set_sink(hxf_host_log_sink sink, void* user_data) {
  Sink().Set(sink, user_data);
}

extern "C" void hxf_host_log_set_filter(hxf_host_log_filter wants) {
  g_filter.store(wants, std::memory_order_relaxed);
}
