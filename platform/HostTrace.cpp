// Scope-trace facility stand-in: one enabled flag, set by installing a sink.
#include "CSinkState.h"
#include "hxf_host_platform.h"

struct scope_trace_handler {
  const char* location;
};

namespace {

using TraceState = HXFramework::Host::CSinkState<hxf_host_trace_sink, nullptr>;

TraceState& Trace() {
  return TraceState::Get();
}

}  // namespace

extern "C" scope_trace_handler* scope_trace_get_handler(const char* location) {
  // A per-thread record keeps the per-message look-up free of locks and allocation.
  thread_local scope_trace_handler handler{nullptr};
  handler.location = location;
  return &handler;
}

extern "C" bool scope_trace_is_enabled(const scope_trace_handler* handler) {
  return handler != nullptr && Trace().Replaced();
}

extern "C" void scope_trace_write(scope_trace_handler* handler, const char* text) {
  if (handler == nullptr || text == nullptr) return;
  TraceState& state = Trace();
  if (!state.Replaced()) return;
  HXFramework::CReadLock lock(state.mutex);
  if (state.sink == nullptr) return;
  state.sink(handler->location != nullptr ? handler->location : "", text, state.user_data);
}

extern "C" void hxf_host_trace_set_sink(hxf_host_trace_sink sink, void* user_data) {
  Trace().Set(sink, user_data);
}
