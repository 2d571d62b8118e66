#include "Platform/RunLoop/RunLoop.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using platform::Activity;
using platform::RunLoop;
using platform::Timer;

constexpr std::int64_t kSecond = 1'000'000'000;

struct ManualClock : platform::Clock {
  std::int64_t nanoseconds() const noexcept override { return now.load(); }
  void advance(double seconds) { now += static_cast<std::int64_t>(seconds * 1e9); }
  std::atomic<std::int64_t> now{5 * kSecond};
};

/// Writes the phases of a loop into `trace` as "1 2 4 ...".
void traceInto(std::string& trace, RunLoop& loop) {
  loop.addObserver(platform::kAllActivities,
                   [&](Activity phase) { trace += std::to_string(static_cast<std::uint32_t>(phase)) + " "; });
}

/// Calls `act` the first time that the loop is about to wait.
template <class Act>
void beforeFirstWait(RunLoop& loop, Act act) {
  auto id = std::make_shared<std::uint64_t>(0);
  *id = loop.addObserver(32, [&loop, id, act](Activity) {
    loop.removeObserver(*id);
    act();
  });
}

/// False when the loop ran on until the test lost its patience.
bool runUntilStopped(RunLoop& loop) {
  const std::int64_t deadline = core::monotonicNanoseconds() + 20 * kSecond;
  loop.runUntil(deadline);
  return core::monotonicNanoseconds() < deadline;
}

bool isReadable(int descriptor, int milliseconds) {
  pollfd polled{.fd = descriptor, .events = POLLIN, .revents = 0};
  return poll(&polled, 1, milliseconds) == 1;
}

TEST(RunLoopTest, tellsThePhasesOfEachTurnAndOfNestedRuns) {
  using Prepare = std::function<void(RunLoop&, std::string&)>;
  const auto post = [](RunLoop& loop, std::string& trace) { loop.perform([&trace] { trace += "block "; }); };
  const auto postBeforeWait = [post](RunLoop& loop, std::string& trace) {
    beforeFirstWait(loop, [&, post] { post(loop, trace); });
  };
  const auto nest = [post](RunLoop& loop, std::string& trace) {
    loop.perform([&] { trace += loop.runOnce(0) ? "outer " : "nothing "; });
    post(loop, trace);
  };
  const std::pair<Prepare, const char*> cases[] = {
      {[](RunLoop&, std::string&) {}, "1 2 4 32 64 128 "},
      {post, "1 2 4 block 128 "},
      {postBeforeWait, "1 2 4 32 64 block 128 "},
      {nest, "1 2 4 1 2 4 block 128 outer 128 "},
  };
  for (const auto& [prepare, expected] : cases) {
    const ManualClock clock;
    RunLoop loop(clock);
    std::string trace;
    traceInto(trace, loop);
    prepare(loop, trace);
    loop.runOnce(1e-6);
    EXPECT_EQ(trace, expected);
  }
}

TEST(RunLoopTest, repeatingTimersKeepTheirPaceAndSkipWhatWasMissed) {
  ManualClock clock;
  RunLoop loop(clock);
  const auto fired = std::make_shared<int>(0);
  const Timer timer = loop.addTimer(2, true, [fired](Timer& self) {
    if (++*fired == 4) {
      self.invalidate();
      self.invalidate();
    }
  });
  const std::pair<double, int> steps[] = {{1.9, 0}, {0.3, 1}, {1.7, 1}, {0.1, 2}, {7.5, 3}, {0.4, 3}, {0.1, 4}, {9, 4}};
  for (const auto& [advance, expected] : steps) {
    EXPECT_EQ(timer.isValid(), *fired < 4);
    clock.advance(advance);
    loop.runOnce(0);
    loop.runOnce(0);
    EXPECT_EQ(*fired, expected) << "at " << clock.now;
  }
  EXPECT_EQ(fired.use_count(), 1) << "the captures of a timer that has ended";
}

TEST(RunLoopTest, timersFireInTheOrderOfTheirMoments) {
  ManualClock clock;
  RunLoop loop(clock);
  std::string trace;
  const auto say = [&trace](const char* text) { return [&trace, text](Timer&) { trace += text; }; };
  loop.addTimer(3, false, say("late "));
  loop.addTimer(1, false, say("a "));
  loop.addTimer(1, false, say("b "));
  Timer cancelled = loop.addTimer(1.5, false, say("cancelled "));
  loop.addTimer(-4, false, [&](Timer&) {
    trace += "now ";
    cancelled.invalidate();
    loop.performAfter(0, [&trace] { trace += "again "; });
  });
  loop.addTimer(std::nan(""), false, say("nan "));
  loop.addTimer(HUGE_VAL, false, say("never "));
  clock.advance(3);
  loop.runOnce(0);
  EXPECT_EQ(trace, "now nan a b late ");  // what a timer adds waits for the next turn
  loop.runOnce(0);
  EXPECT_EQ(trace, "now nan a b late again ");
}

TEST(RunLoopTest, aWaitEndsWithItsTimerOrItsDeadline) {
  RunLoop loop;
  const std::int64_t start = core::monotonicNanoseconds();
  loop.performAfter(0.003, [&loop] { loop.stop(); });
  EXPECT_TRUE(runUntilStopped(loop));
  EXPECT_GE(core::monotonicNanoseconds(), start + 3'000'000);
  EXPECT_TRUE(loop.runUntil(start + 6'000'000));
  EXPECT_GE(core::monotonicNanoseconds(), start + 6'000'000);

  ManualClock clock;
  RunLoop late(clock);
  late.performAfter(2, [] {});
  EXPECT_FALSE(late.runOnce(0));
  beforeFirstWait(late, [&clock] { clock.advance(2.5); });
  EXPECT_TRUE(late.runOnce(1000)) << "a timer that falls due on the way into the wait";
}

// Each of these has to end a wait that nothing else would end.
TEST(RunLoopTest, otherThreadsAndSignalHandlersWakeAWaitingLoop) {
  static RunLoop* signalled = nullptr;
  using Wake = std::function<void(RunLoop&, const Timer&)>;
  const std::pair<const char*, Wake> cases[] = {
      {"perform", [](RunLoop& loop, const Timer&) { loop.perform([&loop] { loop.stop(); }); }},
      {"performAfter", [](RunLoop& loop, const Timer&) { loop.performAfter(0, [&loop] { loop.stop(); }); }},
      {"the captures of an invalidated timer", [](RunLoop&, const Timer& timer) { timer.invalidate(); }},
      {"a signal handler",
       [](RunLoop& loop, const Timer&) {
         signalled = &loop;
         signal(SIGUSR1, [](int) { signalled->stopFromSignal(); });
         raise(SIGUSR1);
         signal(SIGUSR1, SIG_DFL);
       }},
  };
  for (const auto& [name, wake] : cases) {
    SCOPED_TRACE(name);
    RunLoop loop;
    std::shared_ptr<void> stopper(nullptr, [&loop](void*) { loop.stop(); });
    const Timer timer = loop.addTimer(1000, false, [stopper = std::move(stopper)](Timer&) {});
    std::jthread other;
    beforeFirstWait(loop, [&, act = wake] { other = std::jthread(act, std::ref(loop), timer); });
    EXPECT_TRUE(runUntilStopped(loop));
  }
}

TEST(RunLoopTest, blocksOfManyThreadsAllRunInTheOrderOfEach) {
  constexpr int kThreads = 8;
  constexpr int kBlocks = 12'500;
  RunLoop loop;
  std::array<int, kThreads> next{};
  int disordered = 0;
  std::vector<std::jthread> producers;
  for (int& expected : next) {
    producers.emplace_back([&] {
      for (int i = 0; i < kBlocks; ++i) {
        loop.perform([&, i] { disordered += expected++ == i ? 0 : 1; });
      }
    });
  }
  const std::jthread closer([&] {
    producers.clear();
    loop.perform([&loop] { loop.stop(); });
  });
  EXPECT_TRUE(runUntilStopped(loop));
  EXPECT_EQ(std::accumulate(next.begin(), next.end(), 0), kThreads * kBlocks);
  EXPECT_EQ(disordered, 0);
}

TEST(RunLoopTest, stopEndsOneRunAfterTheBlockThatIsBeingCalled) {
  RunLoop loop;
  std::string trace;
  loop.perform([&] {
    loop.perform([&loop] { loop.stop(); });
    loop.run();
    trace += "outer ";
    loop.stop();
  });
  loop.perform([&] { trace += "nested "; });
  loop.stop();
  loop.run();
  EXPECT_EQ(trace, "");
  loop.run();
  loop.perform([&] { trace += "more "; });
  EXPECT_EQ(trace, "nested outer ");
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(trace, "nested outer more ");
}

TEST(RunLoopTest, recoversFromAWantOfDescriptors) {
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  RunLoop loop;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(loop.descriptor(), -1);
  beforeFirstWait(loop, [&] { loop.perform([&loop] { loop.stop(); }); });
  EXPECT_TRUE(runUntilStopped(loop)) << "although nobody could be woken at first";
  EXPECT_NE(loop.descriptor(), -1);
}

TEST(RunLoopTest, isCurrentWhereItRunsAndRunsOnOneThreadAtATime) {
  RunLoop loop;
  EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
  loop.perform([&loop] {
    loop.runOnce(0);
    EXPECT_EQ(&RunLoop::current(), &loop);
    std::thread([&loop] {
      EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
      EXPECT_FALSE(loop.run());
      EXPECT_FALSE(loop.attach());
    }).join();
  });
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
}

TEST(RunLoopTest, descriptorsAreReportedUntilRemoved) {
  const int counter = eventfd(3, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE);
  RunLoop loop;
  int taken = 0;
  std::uint64_t id = 0;
  id = loop.addDescriptor(counter, EPOLLIN, [&](std::uint32_t events) {
    EXPECT_EQ(events, std::uint32_t{EPOLLIN});
    eventfd_t one = 0;
    EXPECT_EQ(eventfd_read(counter, &one), 0);
    if (++taken == 2) {
      loop.removeDescriptor(id);
    }
  });
  loop.runOnce(1000);
  loop.runOnce(1000);
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(taken, 2);
  EXPECT_EQ(loop.addDescriptor(-1, EPOLLIN, [](std::uint32_t) {}), 0U);
  close(counter);
}

TEST(RunLoopTest, aForeignLoopServesItByItsDescriptor) {
  ManualClock clock;
  RunLoop loop(clock);
  std::string trace;
  traceInto(trace, loop);
  ASSERT_TRUE(loop.attach());
  EXPECT_FALSE(isReadable(loop.descriptor(), 0));
  std::thread([&] { loop.perform([&] { trace += "block "; }); }).join();
  EXPECT_TRUE(isReadable(loop.descriptor(), 0));
  EXPECT_TRUE(loop.serve());
  EXPECT_EQ(trace, "64 2 4 block 32 ");
  EXPECT_FALSE(isReadable(loop.descriptor(), 0));

  loop.performAfter(0.002, [&] { trace = "timer"; });
  EXPECT_TRUE(loop.serve());
  EXPECT_TRUE(isReadable(loop.descriptor(), 20'000));
  clock.advance(0.002);
  EXPECT_TRUE(loop.serve());
  EXPECT_EQ(trace, "timer32 ");

  loop.perform([&] { trace = "after the stop"; });
  loop.stop();
  EXPECT_FALSE(loop.serve());
  EXPECT_TRUE(isReadable(loop.descriptor(), 0));
  loop.serve();
  EXPECT_EQ(trace, "after the stop32 ");
}

}  // namespace
