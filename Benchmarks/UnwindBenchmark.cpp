#include <benchmark/benchmark.h>
#include <ucontext.h>

#include <array>
#include <chrono>
#include <numeric>
#include <vector>

#include "Benchmarks/UnwindFrames.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Core/Kernel/Unwind/RuleCache.h"

// Walks of a stack of 31 frames, each of another function (and once of one that calls itself),
// beside the floor under them: one read of a block and 31 look-ups in the rule cache. What glibc's backtrace takes for
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
  core::CodeImages::refreshIfChanged();
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

/// Times each walk for itself, after `prepare()`.
template <class Prepare>
void walkPrepared(benchmark::State& state, Prepare&& prepare,
                  void (*call)(std::size_t, const bench::Work&) = bench::callDeep) {
  const auto measure = [&](const core::WalkContext& context) {
    for (auto _ : state) {
      prepare();
      const auto start = std::chrono::steady_clock::now();
      core::walk(registers, frames, context);
      const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
      state.SetIterationTime(taken.count());
    }
  };
  onStack(state, measure, call);
}

void walkWarm(benchmark::State& state) {
  onStack(state, [&](const core::WalkContext& context) {
    for (auto _ : state) {
      core::walk(registers, frames, context);
    }
  });
}

void walkWithoutRules(benchmark::State& state) {
  walkPrepared(state, [] { core::ruleCache.clear(); });
}

void walkWithoutRulesInRecursion(benchmark::State& state) {
  walkPrepared(
      state, [] { core::ruleCache.clear(); }, bench::callAgain);
}

void walkWithColdProcessor(benchmark::State& state) {
  std::vector<std::uint64_t> beyondCaches(std::size_t{48} << 17);
  walkPrepared(state, [&] {
    std::iota(beyondCaches.begin(), beyondCaches.end(), 1U);
    benchmark::ClobberMemory();
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

void floorRules(benchmark::State& state) {
  onStack(state, [&](const core::WalkContext&) {
    const std::uint64_t generation = core::CodeImages::View().generation();
    for (auto _ : state) {
      for (std::size_t i = 0; i < kFrames; ++i) {
        const std::uint64_t address = frames[i] - (i == 0 ? 0 : 1);
        benchmark::DoNotOptimize(core::ruleCache.find(core::RuleCache::key(address, i == 0, generation)));
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

// The time of the process, since the stacks are another thread's.
BENCHMARK(floorBlockRead)->MeasureProcessCPUTime();
BENCHMARK(floorRules)->MeasureProcessCPUTime();
BENCHMARK(walkWarm)->MeasureProcessCPUTime();
BENCHMARK(walkWithoutRules)->UseManualTime();
BENCHMARK(walkWithoutRulesInRecursion)->UseManualTime();
BENCHMARK(walkWithColdProcessor)->UseManualTime()->Iterations(200);
BENCHMARK(refreshUnchanged);
BENCHMARK(refreshAll);

}  // namespace
