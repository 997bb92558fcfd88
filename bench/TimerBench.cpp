// Start+Stop cost of one shot with N other shots armed: it must grow like log N at most.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "ITimer.h"

using HXFramework::TPL::ITimer;

namespace {
constexpr uint32_t kNever = 3600 * 1000;
}

static void BM_TimerStartStopWithArmed(benchmark::State& state) {
  std::unique_ptr<ITimer> background(ITimer::Create("background"));
  for (int64_t i = 0; i < state.range(0); ++i) {
    background->Start([] {}, kNever + static_cast<uint32_t>(i % 1000));
  }
  std::unique_ptr<ITimer> timer(ITimer::Create("measured"));
  for (auto _ : state) {
    uint32_t id = timer->Start([] {}, kNever);
    timer->Stop(id);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TimerStartStopWithArmed)->Arg(0)->Arg(1000)->Arg(100000)->Arg(1000000);

static void BM_TimerCreateDelete(benchmark::State& state) {
  for (auto _ : state) {
    std::unique_ptr<ITimer> timer(ITimer::Create("t"));
    benchmark::DoNotOptimize(timer.get());
  }
}
BENCHMARK(BM_TimerCreateDelete);

static void BM_TimerArmMillion(benchmark::State& state) {
  for (auto _ : state) {
    std::unique_ptr<ITimer> timer(ITimer::Create("million"));
    for (int i = 0; i < 1000000; ++i) timer->Start([] {}, kNever);
  }
  state.SetItemsProcessed(state.iterations() * 1000000);
}
BENCHMARK(BM_TimerArmMillion)->Unit(benchmark::kMillisecond)->Iterations(3);
