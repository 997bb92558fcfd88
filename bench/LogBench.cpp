// Cost of one log line through the macro (default sink: silent), with tracing off and on.
#include <benchmark/benchmark.h>

#include "HXLog.h"

static void BM_LogLineTraceOff(benchmark::State& state) {
  for (auto _ : state) HXLOG(DLOG_INFO, "service name:[%s], map size:[%zu]\n", "lights", size_t{3});
}
BENCHMARK(BM_LogLineTraceOff);

static void BM_LogLineTraceOn(benchmark::State& state) {
  hxf_host_trace_set_sink([](const char*, const char*, void*) {}, nullptr);
  for (auto _ : state) HXLOG(DLOG_INFO, "service name:[%s], map size:[%zu]\n", "lights", size_t{3});
  hxf_host_trace_set_sink(nullptr, nullptr);
}
BENCHMARK(BM_LogLineTraceOn);
