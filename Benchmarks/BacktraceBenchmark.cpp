#include <benchmark/benchmark.h>
#include <execinfo.h>

#include <array>

#include "Benchmarks/UnwindFrames.h"

// The yardstick beside UnwindBenchmark: glibc's backtrace on a stack of 31 frames like those there.

namespace {

constexpr int kFrames = 31;

std::array<void*, 256> frames;

void backtraceWarm(benchmark::State& state) {
  const auto count = [] { return static_cast<std::size_t>(backtrace(frames.data(), int{frames.size()})); };
  bench::callAtDepth(kFrames, bench::callDeep, count, [&] {
    if (backtrace(frames.data(), int{frames.size()}) != kFrames) {
      state.SkipWithError("the stack is not of 31 frames");
      return;
    }
    for (auto _ : state) {
      benchmark::DoNotOptimize(backtrace(frames.data(), int{frames.size()}));
    }
  });
}
BENCHMARK(backtraceWarm)->MeasureProcessCPUTime();

}  // namespace
