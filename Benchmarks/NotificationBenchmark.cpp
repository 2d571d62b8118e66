#include <benchmark/benchmark.h>

#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/RunLoop/RunLoop.h"

// What it costs to announce something, and to send a block to a loop.

namespace {

using platform::Notification;
using platform::NotificationCenter;

/// A post to `range` observers, with as many again of another name.
void postNotification(benchmark::State& state) {
  NotificationCenter center;
  const core::String name("KivApplicationLifecycleChangedNotification");
  const core::String other("KivApplicationLifecycleChangedSomewhereElse");
  std::int64_t sum = 0;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    (void)center.addObserver(name, [&sum](const Notification& posted) { sum += *posted.object.integer(); });
    (void)center.addObserver(other, [&sum](const Notification&) { --sum; });
  }
  for (auto _ : state) {
    center.post(name, 1);
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(postNotification)->Arg(0)->Arg(1)->Arg(10)->Arg(100);

/// A block sent to a loop on the same thread, and called.
void performBlock(benchmark::State& state) {
  platform::RunLoop loop;
  std::int64_t sum = 0;
  for (auto _ : state) {
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      loop.perform([&sum] { ++sum; });
    }
    loop.runOnce(0);
  }
  state.SetItemsProcessed(sum);
}
BENCHMARK(performBlock)->Arg(1)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
