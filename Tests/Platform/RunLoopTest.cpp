#include "Platform/RunLoop/RunLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/RunLoop/Thread.h"

namespace {

using platform::Activity;
using platform::RunLoop;
using platform::Timer;

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::uint32_t kBeforeWaiting = static_cast<std::uint32_t>(Activity::kBeforeWaiting);

struct ManualClock : platform::Clock {
  std::int64_t nanoseconds() const noexcept override { return now.load(); }
  void advance(double seconds) { now += static_cast<std::int64_t>(seconds * 1e9); }
  std::atomic<std::int64_t> now{5 * kSecond};
};

/// Writes the phases of a loop into `trace` as "1 2 4 ...".
void traceInto(std::string& trace, RunLoop& loop, std::uint32_t mask = platform::kAllActivities) {
  loop.addObserver(
      mask, [&trace](Activity activity) { trace += std::to_string(static_cast<std::uint32_t>(activity)) + " "; });
}

/// Calls `act` the first time that the loop is about to wait.
template <class Act>
void beforeFirstWait(RunLoop& loop, Act act) {
  auto id = std::make_shared<std::uint64_t>(0);
  *id = loop.addObserver(kBeforeWaiting, [&loop, id, act](Activity) {
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
  const struct {
    const char* name;
    std::function<void(RunLoop&, std::string&)> prepare;
    std::uint32_t mask;
    const char* expected;
  } cases[] = {
      {"nothing to do", [](RunLoop&, std::string&) {}, platform::kAllActivities, "1 2 4 32 64 128 "},
      {"work that is there already",
       [](RunLoop& loop, std::string& trace) { loop.perform([&trace] { trace += "block "; }); },
       platform::kAllActivities, "1 2 4 block 128 "},
      {"a block before the wait",
       [](RunLoop& loop, std::string& trace) {
         beforeFirstWait(loop, [&] { loop.perform([&trace] { trace += "block "; }); });
       },
       platform::kAllActivities, "1 2 4 32 64 block 128 "},
      {"a nested run",
       [](RunLoop& loop, std::string& trace) {
         loop.perform([&loop, &trace] {
           EXPECT_TRUE(loop.runOnce(0));
           trace += "outer ";
         });
         loop.perform([&trace] { trace += "inner "; });
       },
       platform::kAllActivities, "1 2 4 1 2 4 inner 128 outer 128 "},
      {"some phases only", [](RunLoop&, std::string&) {}, 1 | 64 | 128, "1 64 128 "},
  };
  for (const auto& [name, prepare, mask, expected] : cases) {
    SCOPED_TRACE(name);
    const ManualClock clock;
    RunLoop loop(clock);
    std::string trace;
    traceInto(trace, loop, mask);
    prepare(loop, trace);
    loop.runOnce(1e-6);
    EXPECT_EQ(trace, expected);
  }
}

TEST(RunLoopTest, observersAreCalledInOrderAndNotAfterTheirRemoval) {
  RunLoop loop;
  std::string trace;
  std::uint64_t second = 0;
  loop.addObserver(1, [&](Activity) {
    trace += "first ";
    loop.removeObserver(second);
  });
  second = loop.addObserver(1, [&](Activity) { trace += "second "; });
  loop.addObserver(1, [&](Activity) { trace += "third "; });
  loop.runOnce(0);
  EXPECT_EQ(trace, "first third ");
}

TEST(RunLoopTest, repeatingTimersKeepTheirPaceAndSkipWhatWasMissed) {
  ManualClock clock;
  RunLoop loop(clock);
  int fired = 0;
  loop.addTimer(2, true, [&](Timer&) { ++fired; });
  const struct {
    double advance;
    int fired;
  } steps[] = {{1.9, 0}, {0.3, 1}, {1.7, 1}, {0.1, 2}, {7.5, 3}, {0.4, 3}, {0.1, 4}};
  for (const auto& step : steps) {
    clock.advance(step.advance);
    loop.runOnce(0);
    loop.runOnce(0);
    EXPECT_EQ(fired, step.fired) << "at " << clock.now;
  }
}

TEST(RunLoopTest, aTimerInvalidatedByItsOwnBlockFiresNoMoreAndDropsItsCaptures) {
  ManualClock clock;
  RunLoop loop(clock);
  auto ticks = std::make_shared<int>(0);
  const Timer timer = loop.addTimer(2, true, [ticks](Timer& self) {
    if (++*ticks == 10) {
      self.invalidate();
      self.invalidate();
    }
  });
  for (int i = 0; i < 15; ++i) {
    EXPECT_EQ(timer.isValid(), *ticks < 10);
    clock.advance(2);
    loop.runOnce(0);
  }
  EXPECT_EQ(*ticks, 10);
  EXPECT_EQ(ticks.use_count(), 1);
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
}

// Each of these has to end a wait that nothing else would end.
TEST(RunLoopTest, otherThreadsAndSignalHandlersWakeAWaitingLoop) {
  static RunLoop* signalled = nullptr;
  const struct {
    const char* name;
    std::function<void(RunLoop&, const Timer&)> wake;
  } cases[] = {
      {"perform", [](RunLoop& loop, const Timer&) { loop.perform([&loop] { loop.stop(); }); }},
      {"performAfter", [](RunLoop& loop, const Timer&) { loop.performAfter(0, [&loop] { loop.stop(); }); }},
      {"stop", [](RunLoop& loop, const Timer&) { loop.stop(); }},
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
    std::thread other;
    beforeFirstWait(loop, [&, act = wake] { other = std::thread(act, std::ref(loop), timer); });
    EXPECT_TRUE(runUntilStopped(loop));
    other.join();
  }
}

TEST(RunLoopTest, blocksOfManyThreadsAllRunInTheOrderOfEach) {
  constexpr int kThreads = 8;
  constexpr int kBlocks = 100'000;
  RunLoop loop;
  std::array<int, kThreads> last{};
  int called = 0;
  int disordered = 0;
  std::vector<std::thread> producers;
  for (int producer = 0; producer < kThreads; ++producer) {
    producers.emplace_back([&, producer] {
      for (int i = 1; i <= kBlocks / kThreads; ++i) {
        loop.perform([&, producer, i] {
          int& previous = last[static_cast<std::size_t>(producer)];
          disordered += previous + 1 == i ? 0 : 1;
          previous = i;
          if (++called == kBlocks) {
            loop.stop();
          }
        });
      }
    });
  }
  EXPECT_TRUE(runUntilStopped(loop));
  for (std::thread& producer : producers) {
    producer.join();
  }
  EXPECT_EQ(called, kBlocks);
  EXPECT_EQ(disordered, 0);
}

TEST(RunLoopTest, stopEndsOneRunAfterTheBlockThatIsBeingCalled) {
  RunLoop loop;
  std::string trace;
  loop.stop();
  loop.perform([&] {
    trace += "nested ";
    loop.perform([&loop] { loop.stop(); });
    loop.run();
    trace += "outer ";
    loop.stop();
  });
  loop.performAfter(0, [&] { trace += "timer "; });
  loop.run();
  EXPECT_EQ(trace, "");
  loop.run();
  EXPECT_EQ(trace, "timer nested outer ");
  loop.perform([&] { trace += "more "; });
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(trace, "timer nested outer more ");
}

TEST(RunLoopTest, aBlockThatPostsItselfLeavesTimersTheirTurn) {
  RunLoop loop;
  std::function<void()> again = [&] { loop.perform(again); };
  again();
  loop.performAfter(0.001, [&loop] { loop.stop(); });
  EXPECT_TRUE(runUntilStopped(loop));
}

TEST(RunLoopTest, worksInAProcessWithoutDescriptors) {
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{.rlim_cur = 0, .rlim_max = before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  RunLoop loop;
  EXPECT_EQ(loop.descriptor(), -1);
  std::thread other;
  beforeFirstWait(loop, [&] { other = std::thread([&loop] { loop.perform([&loop] { loop.stop(); }); }); });
  EXPECT_TRUE(runUntilStopped(loop));
  other.join();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  loop.runOnce(0);
  EXPECT_NE(loop.descriptor(), -1) << "and recovers";
}

TEST(RunLoopTest, isCurrentWhereItRunsAndRunsOnOneThreadAtATime) {
  RunLoop loop;
  EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
  loop.perform([&loop] {
    EXPECT_EQ(&RunLoop::current(), &loop);
    std::thread([&loop] {
      EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
      EXPECT_FALSE(loop.run());
      EXPECT_FALSE(loop.runOnce(1000));
      EXPECT_FALSE(loop.attach());
    }).join();
  });
  EXPECT_TRUE(loop.runOnce(0));
  EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
}

TEST(RunLoopTest, descriptorsAreReportedUntilRemoved) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  RunLoop loop;
  std::string received;
  std::uint64_t id = 0;
  id = loop.addDescriptor(ends[0], EPOLLIN, [&](std::uint32_t events) {
    EXPECT_EQ(events, std::uint32_t{EPOLLIN});
    char byte = 0;
    EXPECT_EQ(read(ends[0], &byte, 1), 1);
    received += byte;
    if (byte == '2') {
      loop.removeDescriptor(id);
    }
  });
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(write(ends[1], "123", 3), 3);
  EXPECT_TRUE(loop.runOnce(1000));
  EXPECT_TRUE(loop.runOnce(1000));
  EXPECT_FALSE(loop.runOnce(0));
  EXPECT_EQ(received, "12");
  const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(loop.addDescriptor(file, EPOLLIN, [](std::uint32_t) {}), 0U);
  for (const int descriptor : {ends[0], ends[1], file}) {
    close(descriptor);
  }
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

  loop.perform([&loop] { loop.stop(); });
  loop.perform([&] { trace = "after the stop"; });
  EXPECT_FALSE(loop.serve());
  EXPECT_TRUE(isReadable(loop.descriptor(), 0));
  EXPECT_TRUE(loop.serve());
  EXPECT_EQ(trace, "after the stop32 ");
}

TEST(RunLoopDeathTest, whatABlockThrowsIsNotCaught) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  RunLoop loop;
  loop.perform([] { throw std::runtime_error("thrown by a block"); });
  EXPECT_THROW(loop.run(), std::runtime_error);
  EXPECT_FALSE(loop.runOnce(0)) << "the loop is left in order";
  EXPECT_DEATH({ platform::Thread::start("thrower", [] { throw std::runtime_error("thrown by a thread"); }).join(20); },
               "thrown by a thread");
}

}  // namespace
