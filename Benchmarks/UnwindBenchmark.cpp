#include <benchmark/benchmark.h>
#include <ucontext.h>

#include <array>
#include <chrono>
#include <numeric>
#include <vector>

#include "Benchmarks/UnwindFrames.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"

// Walks of a stack of 31 frames, each of another function (and once of one that calls itself),
// beside the floor under them: one read of a block and 31 look-ups of a step. Nothing is remembered from walk to walk,
// so the first is as fast as any but for what the processor has to fetch. What glibc's backtrace takes for
// such a stack is in BacktraceBenchmark: in one process each would warm things up for the other.

namespace {

constexpr std::size_t kFrames = 31;

alignas(64) std::array<std::uint8_t, 16384> block;
core::Registers registers;
std::array<std::uint64_t, core::kMostFrames> frames;

void captureRegisters() {
  ucontext_t here;
  getcontext(&here);
  registers = core::registersOf(here.uc_mcontext);
}

/// Runs `measure(context)` on a stack of 31 frames.
template <class Measure>
void onStack(benchmark::State& state, Measure&& measure,
             void (*call)(std::size_t, const bench::Work&) = bench::callDeep) {
  const core::WalkContext context{block};
  const auto count = [&] {
    captureRegisters();
    return core::walk(registers, frames, context);
  };
  bench::callAtDepth(kFrames, call, count, [&] {
    captureRegisters();
    if (core::walk(registers, frames, context) != kFrames) {
      state.SkipWithError("the stack is not of 31 frames");
    } else {
      measure(context);
    }
  });
}

void walkPlain(benchmark::State& state, void (*call)(std::size_t, const bench::Work&)) {
  const auto measure = [&](const core::WalkContext& context) {
    for (auto _ : state) {
      core::walk(registers, frames, context);
    }
  };
  onStack(state, measure, call);
}

/// Before the background has worked the steps out: by the call-frame tables themselves.
void walkByTables(benchmark::State& state) {
  core::CodeImages::refreshIfChanged();
  walkPlain(state, bench::callDeep);
}

void walkBySteps(benchmark::State& state) {
  core::CodeImages::refresh();
  walkPlain(state, bench::callDeep);
}

void walkRecursion(benchmark::State& state) {
  core::CodeImages::refresh();
  walkPlain(state, bench::callAgain);
}

/// Each walk timed for itself, after what it needs has been driven out of the processor's caches.
void walkWithColdProcessor(benchmark::State& state) {
  core::CodeImages::refresh();
  std::vector<std::uint64_t> beyondCaches(std::size_t{48} << 17);
  onStack(state, [&](const core::WalkContext& context) {
    for (auto _ : state) {
      std::iota(beyondCaches.begin(), beyondCaches.end(), 1U);
      benchmark::ClobberMemory();
      const auto start = std::chrono::steady_clock::now();
      core::walk(registers, frames, context);
      const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
      state.SetIterationTime(taken.count());
    }
  });
}

void floorBlockRead(benchmark::State& state) {
  onStack(state, [&](const core::WalkContext& context) {
    const std::uint64_t stack = registers[core::Registers::kRsp];
    const std::size_t size = 8192 - stack % 4096;
    for (auto _ : state) {
      benchmark::DoNotOptimize(context.memory.readFront(stack, block.data(), size));
    }
  });
}

void floorSteps(benchmark::State& state) {
  core::CodeImages::refresh();
  onStack(state, [&](const core::WalkContext&) {
    const core::CodeImages::View images;
    std::array<const core::StepTable*, kFrames> tables;
    for (std::size_t i = 0; i < kFrames; ++i) {
      tables[i] = &**images.covering(frames[i])->steps;
    }
    for (auto _ : state) {
      for (std::size_t i = 0; i < kFrames; ++i) {
        benchmark::DoNotOptimize(tables[i]->find(frames[i] - 1));
      }
    }
  });
}

void refreshUnchanged(benchmark::State& state) {
  core::CodeImages::refresh();
  for (auto _ : state) {
    core::CodeImages::refreshIfChanged();
  }
}

void refreshAll(benchmark::State& state) {
  for (auto _ : state) {
    core::CodeImages::refresh();
  }
}

// The time of the process, since the stacks are another thread's. Without steps first, since they stay.
BENCHMARK(walkByTables)->MeasureProcessCPUTime();
BENCHMARK(floorBlockRead)->MeasureProcessCPUTime();
BENCHMARK(floorSteps)->MeasureProcessCPUTime();
BENCHMARK(walkBySteps)->MeasureProcessCPUTime();
BENCHMARK(walkRecursion)->MeasureProcessCPUTime();
BENCHMARK(walkWithColdProcessor)->UseManualTime()->Iterations(200);
BENCHMARK(refreshUnchanged);
BENCHMARK(refreshAll);

}  // namespace
