#include <benchmark/benchmark.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <thread>
#include <vector>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"

// How long it takes to stop a thread, read its registers or walk its stack, and let it go.
// The owner of a crash does not look at a thread before it asks; others do.

namespace {

using core::SuspendedThread;
using core::SuspensionRound;
using Clock = std::chrono::steady_clock;

constexpr int kThreads = 256;
constexpr int kFrames = 20;

[[gnu::noinline]] void sleepDeep(int frames) {
  if (frames > 0) {
    sleepDeep(frames - 1);
  } else {
    poll(nullptr, 0, -1);
  }
  asm volatile("");
}

/// Threads that sleep until the process ends.
const std::vector<int>& sleepers() {
  static const std::vector<int> ids = [] {
    core::ThreadSuspension::install();
    std::vector<int> made;
    for (int i = 0; i < kThreads; ++i) {
      std::atomic<int> id{0};
      std::thread([&id] {
        id = core::threadId();
        id.notify_all();
        sleepDeep(kFrames);
      }).detach();
      id.wait(0);
      made.push_back(id);
    }
    return made;
  }();
  return ids;
}

class CrashScope {
 public:
  explicit CrashScope(bool isCrash) : isCrash_(isCrash) {
    if (isCrash_) {
      core::CrashOwner::claim();
    }
  }
  CrashScope(const CrashScope&) = delete;
  CrashScope& operator=(const CrashScope&) = delete;
  ~CrashScope() {
    if (isCrash_) {
      core::CrashOwner::release();
    }
  }

 private:
  bool isCrash_;
};

/// Threads are held one or two at a time. range(0): as the owner of a crash; range(1): the next is asked
/// ahead; range(2): stacks walked.
void allThreads(benchmark::State& state) {
  static std::uint8_t block[16384];
  static std::uint64_t frames[core::kMostFrames];
  core::CodeImages::refresh();
  const core::WalkContext context{block};
  const std::vector<int>& ids = sleepers();
  const CrashScope crash(state.range(0) != 0);
  const bool ahead = state.range(1) != 0;
  std::int64_t silent = 0;
  std::size_t walked = 0;
  for (auto _ : state) {
    SuspensionRound round;
    SuspendedThread next = round.ask(ids[0]);
    for (std::size_t i = 0; i < ids.size(); ++i) {
      SuspendedThread current = std::move(next);
      const std::size_t following = (i + 1) % ids.size();
      if (ahead && following != 0) {
        next = round.ask(ids[following]);
      }
      silent += current.wait() == SuspendedThread::Answer::kSilent;
      if (state.range(2) != 0) {
        walked += core::walk(current.registers(), frames, context);
      } else {
        benchmark::DoNotOptimize(current.registers());
      }
      current.resume();
      if (!ahead && following != 0) {
        next = round.ask(ids[following]);
      }
    }
  }
  const double threads = static_cast<double>(state.iterations()) * kThreads;
  state.counters["perThread"] = benchmark::Counter(threads, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["silent"] = static_cast<double>(silent);
  state.counters["frames"] = static_cast<double>(walked) / threads;
}
BENCHMARK(allThreads)->ArgNames({"crash", "ahead", "walk"})->ArgsProduct({{0, 1}, {0, 1}, {0, 1}})->UseRealTime();

/// Threads copy their stacks, which are walked meanwhile: what a crash and a dump do. range(0): as the owner
/// of a crash; range(1): how many are asked and not yet read.
void allThreadsCopied(benchmark::State& state) {
  static std::uint64_t frames[core::kMostFrames];
  core::CodeImages::refresh();
  const core::OwnMemory memory;
  const std::vector<int>& ids = sleepers();
  const CrashScope crash(state.range(0) != 0);
  const auto window = static_cast<std::size_t>(state.range(1));
  std::int64_t silent = 0;
  std::size_t walked = 0;
  for (auto _ : state) {
    SuspensionRound round;
    std::deque<SuspendedThread> asked;
    for (std::size_t i = 0, next = 0; i < ids.size(); ++i) {
      while (next < ids.size() && next < i + window) {
        asked.push_back(round.ask(ids[next++], {.copiesStack = true}));
      }
      SuspendedThread& current = asked.front();
      silent += current.wait() != SuspendedThread::Answer::kCopied;
      walked += core::walk(current.registers(), frames, current.stackCopy(), memory).value_or(0);
      asked.pop_front();
    }
  }
  const double threads = static_cast<double>(state.iterations()) * kThreads;
  state.counters["perThread"] = benchmark::Counter(threads, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["silent"] = static_cast<double>(silent);
  state.counters["frames"] = static_cast<double>(walked) / threads;
}
BENCHMARK(allThreadsCopied)
    ->ArgNames({"crash", "window"})
    ->ArgsProduct({{0, 1}, {2, 4, 8, SuspensionRound::kMostAsked}})
    ->UseRealTime();

void reportDistribution(benchmark::State& state, std::vector<double>& microseconds) {
  std::sort(microseconds.begin(), microseconds.end());
  if (!microseconds.empty()) {
    state.counters["median_us"] = microseconds[microseconds.size() / 2];
    state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
  }
}

/// How long a running thread stands still, as it sees it itself.
void runningThreadStands(benchmark::State& state) {
  core::ThreadSuspension::install();
  std::atomic<int> id{0};
  std::atomic<bool> stop{false};
  std::atomic<Clock::rep> longest{0};
  std::thread spinner([&] {
    id = core::threadId();
    id.notify_all();
    for (Clock::time_point last = Clock::now(); !stop.load(std::memory_order_relaxed);) {
      const Clock::time_point now = Clock::now();
      if (const Clock::rep gap = (now - last).count(); gap > longest.load(std::memory_order_relaxed)) {
        longest.store(gap, std::memory_order_relaxed);
      }
      last = now;
    }
  });
  id.wait(0);
  std::vector<double> stood;
  SuspensionRound round;
  for (auto _ : state) {
    longest = 0;
    {
      SuspendedThread suspended = round.ask(id);
      suspended.wait();
      benchmark::DoNotOptimize(suspended.registers());
    }
    while (longest.load(std::memory_order_relaxed) < 1000) {  // it has not come back yet
    }
    stood.push_back(static_cast<double>(longest) / 1000);
  }
  stop = true;
  spinner.join();
  reportDistribution(state, stood);
}
BENCHMARK(runningThreadStands)->UseRealTime()->Iterations(20000);

/// How long a sleeping thread is kept from noticing what it waits for: from the answer on.
void sleepingThreadIsHeld(benchmark::State& state) {
  const std::vector<int>& ids = sleepers();
  std::vector<double> held;
  for (auto _ : state) {
    SuspensionRound round;
    SuspendedThread suspended = round.ask(ids[0]);
    suspended.wait();
    const Clock::time_point start = Clock::now();
    benchmark::DoNotOptimize(suspended.registers());
    suspended.resume();
    held.push_back(static_cast<double>((Clock::now() - start).count()) / 1000);
  }
  reportDistribution(state, held);
}
BENCHMARK(sleepingThreadIsHeld)->UseRealTime()->Iterations(20000);

}  // namespace

BENCHMARK_MAIN();
