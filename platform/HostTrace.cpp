// Scope-trace facility stand-in: one enabled flag, set by installing a sink.
#include <atomic>
#include <mutex>
#include <shared_mutex>

#include "hxf_host_platform.h"

struct scope_trace_handler {
  const char* location;
};

namespace {

std::shared_mutex g_trace_mutex;  // same discipline as the log sink
hxf_host_trace_sink g_trace_sink = nullptr;
void* g_trace_user_data = nullptr;
std::atomic<bool> g_trace_enabled{false};

}  // namespace

extern "C" scope_trace_handler* scope_trace_get_handler(const char* location) {
  // A per-thread record keeps the per-message look-up free of locks and allocation.
  thread_local scope_trace_handler handler{nullptr};
  handler.location = location;
  return &handler;
}

extern "C" bool scope_trace_is_enabled(const scope_trace_handler* handler) {
  return handler != nullptr && g_trace_enabled.load(std::memory_order_acquire);
}

extern "C" void scope_trace_write(scope_trace_handler* handler, const char* text) {
  if (handler == nullptr || text == nullptr) return;
  std::shared_lock<std::shared_mutex> lock(g_trace_mutex);
  if (g_trace_sink == nullptr) return;
  g_trace_sink(handler->location != nullptr ? handler->location : "", text, g_trace_user_data);
}

extern "C" void hxf_host_trace_set_sink(hxf_host_trace_sink sink, void* user_data) {
  std::unique_lock<std::shared_mutex> lock(g_trace_mutex);
  g_trace_sink = sink;
  g_trace_user_data = user_data;
  g_trace_enabled.store(sink != nullptr, std::memory_order_release);
}
