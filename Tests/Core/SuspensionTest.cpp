#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <vector>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Tests/Core/Worker.h"

namespace {

using core::MachineContext;
using core::Registers;
using core::SuspendedThread;
using core::SuspensionRound;
using core::ThreadSuspension;
using test::Stage;
using test::Worker;
using Answer = SuspendedThread::Answer;

void maskAllSignals(int how) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(how, &all, nullptr);
}

class SuspensionTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(ThreadSuspension::install(), 0); }
};

TEST_F(SuspensionTest, HeldThreadShowsItsState) {
  std::atomic<bool> stop{false};
  Worker worker([&stop] {
    pthread_setname_np(pthread_self(), "spinner");
    asm volatile(
        "movq $0x1111, %%rbx; movq $0x2222, %%r12; movq $0x3333, %%rdi\n"
        "cvtsi2sdq %%r12, %%xmm7\n"
        "1: cmpb $0, (%0); je 1b"
        :
        : "a"(&stop)
        : "rbx", "r12", "rdi", "xmm7", "memory", "cc");
  });
  const std::uint32_t port = core::threadPort(worker.id());
  EXPECT_EQ(port & 0xFF, 3U);
  MachineContext context;
  SuspensionRound round;
  while (!core::readThreadContext(round, port, context) || context.machine.gregs[REG_RBX] != 0x1111) {
  }
  double xmm7;
  std::memcpy(&xmm7, &context.floats._xmm[7], sizeof xmm7);
  EXPECT_EQ(xmm7, 0x2222);
  {
    SuspendedThread suspended = round.ask(worker.id());
    EXPECT_EQ(suspended.wait(), Answer::kHeld);
    EXPECT_EQ(suspended.name().view(), "spinner");
    EXPECT_EQ(suspended.registers()[Registers::kR12], 0x2222U);
    EXPECT_EQ(suspended.registers()[Registers::kRdi], 0x3333U);
    EXPECT_TRUE(suspended.copyContext(context));
    EXPECT_EQ(context.machine.gregs[REG_CSGSFS] & 0xFFFF, 0x33);
  }
  stop = true;
  EXPECT_TRUE(core::readThreadContext(round, core::threadPort(core::threadId()), context));
  const auto here = reinterpret_cast<greg_t>(__builtin_frame_address(0));
  EXPECT_LE(context.machine.gregs[REG_RSP], here);
  EXPECT_GT(context.machine.gregs[REG_RSP], here - 65536);
}

/// Instrumented code may hold a lock of its sanitizer when its thread is stopped: this has none.
class PlainCounter {
 public:
  void countUp() { asm volatile("lock incq %0" : "+m"(value_)); }
  std::uint64_t value() const {
    std::uint64_t seen;
    asm volatile("movq %1, %0" : "=r"(seen) : "m"(value_));
    return seen;
  }

 private:
  std::uint64_t value_ = 0;
};

[[gnu::noinline]] void countBelow(std::size_t frames, const std::atomic<bool>& stop, PlainCounter& counted) {
  char room[256];
  asm volatile("" : : "r"(room) : "memory");
  if (frames > 0) {
    countBelow(frames - 1, stop, counted);
  }
  while (frames == 0 && !stop) {
    counted.countUp();
  }
  asm volatile("" : : "r"(room) : "memory");
}

// The copy tells the same stack as holding the thread does, and where it ends too early the thread is held.
TEST_F(SuspensionTest, ThreadGoesOnOnceItHasCopiedItsStack) {
  core::CodeImages::refresh();
  const core::OwnMemory memory;
  std::vector<std::uint8_t> block(4096);
  for (const std::size_t depth : {5U, 100U}) {
    std::atomic<bool> stop{false};
    PlainCounter counted;
    Worker worker([&] { countBelow(depth, stop, counted); });
    while (counted.value() == 0) {
    }
    SuspensionRound round;
    std::array<std::uint64_t, core::kMostFrames> copied{};
    std::array<std::uint64_t, core::kMostFrames> held{};
    SuspendedThread suspended = round.ask(worker.id(), {.copiesStack = true});
    EXPECT_EQ(suspended.wait(), Answer::kCopied);
    for (const std::uint64_t before = counted.value(); counted.value() < before + 1000;) {
    }
    const auto count = core::walk(suspended.registers(), copied, suspended.stackCopy(), memory);
    suspended.askToStay();
    EXPECT_EQ(suspended.wait(), Answer::kHeld);
    const std::uint64_t before = counted.value();
    const std::size_t heldCount = core::walk(suspended.registers(), held, {.block = block});
    const std::uint64_t after = counted.value();
    suspended.resume();
    EXPECT_EQ(after, before);
    EXPECT_GT(heldCount, depth);
    EXPECT_EQ(count.has_value(), depth == 5);
    if (count) {  // alike but for where in the loop it was
      const std::span callers = std::span(held).first(heldCount).last(depth);
      EXPECT_TRUE(std::ranges::equal(std::span(copied).first(*count).last(depth), callers));
    } else {
      EXPECT_EQ(std::ranges::count(copied, 0), core::kMostFrames);
    }
    stop = true;
  }
}

TEST_F(SuspensionTest, ThreadsThatBlockTheSignalShareOneBudget) {
  Stage stage;
  std::deque<Worker> pool;
  for (int i = 0; i < 100; ++i) {
    pool.emplace_back([&stage] {
      maskAllSignals(SIG_BLOCK);
      stage.await(1);
      maskAllSignals(SIG_UNBLOCK);  // what was sent and not waited for arrives now
      stage.await(2);
    });
    test::awaitSleep(pool.back().id(), SYS_futex);
  }
  for (int pass = 0; pass < 2; ++pass) {
    SuspensionRound round;
    const std::int64_t start = core::monotonicNanoseconds();
    for (const Worker& worker : pool) {
      SuspendedThread suspended = round.ask(worker.id());
      EXPECT_EQ(suspended.wait(), Answer::kSilent);
      const auto sleeping = core::readSleepingThread(worker.id());
      EXPECT_EQ(suspended.registers().instructionPointer, sleeping->instructionPointer);
      EXPECT_EQ(suspended.registers()[Registers::kRsp], sleeping->stackPointer);
    }
    EXPECT_LT(core::monotonicNanoseconds() - start, 400'000'000);
  }
  stage.enter(1);
  for (const Worker& worker : pool) {
    Answer answer = Answer::kSilent;
    while (answer == Answer::kSilent) {
      SuspensionRound round;
      answer = round.ask(worker.id()).wait();
    }
    EXPECT_EQ(answer, Answer::kHeld);
  }
  stage.enter(2);
}

TEST_F(SuspensionTest, ThreadInSigwaitIsNotGivenTheSignal) {
  int got = 0;
  Worker worker([&got] {
    sigset_t all;
    sigfillset(&all);
    maskAllSignals(SIG_BLOCK);
    sigwait(&all, &got);
  });
  test::awaitSleep(worker.id(), SYS_rt_sigtimedwait);
  {
    SuspensionRound round;
    SuspendedThread suspended = round.ask(worker.id());
    EXPECT_EQ(suspended.wait(), Answer::kSilent);
    EXPECT_NE(suspended.registers().instructionPointer, 0U);
  }
  pthread_kill(worker.handle(), SIGUSR2);
  worker.join();
  EXPECT_EQ(got, SIGUSR2);
}

TEST_F(SuspensionTest, SignalIsSentOnlyWhileItsActionIsOurs) {
  Stage stage;
  Worker worker([&stage] { stage.await(1); });
  SuspensionRound round;
  signal(ThreadSuspension::kSignal, [](int) {});
  EXPECT_EQ(ThreadSuspension::install(), EBUSY);
  signal(ThreadSuspension::kSignal, SIG_DFL);
  EXPECT_EQ(round.ask(worker.id()).wait(), Answer::kSilent);
  EXPECT_EQ(ThreadSuspension::install(), 0);
  EXPECT_EQ(round.ask(worker.id()).wait(), Answer::kHeld);
  stage.enter(1);
}

TEST_F(SuspensionTest, ThreadsThatComeAndGoDoNotStopADump) {
  std::atomic<bool> stop{false};
  std::atomic<int> made{0};
  Worker maker([&] {
    while (!stop) {
      std::thread([&made] { ++made; }).join();
    }
  });
  int held = 0;
  for (int dump = 0; dump < 300 || made < 100; ++dump) {
    const core::ThreadList list = core::ThreadList::read();
    ASSERT_TRUE(list.isComplete());
    SuspensionRound round;
    for (const int thread : list.threads()) {
      held += round.ask(thread).wait() == Answer::kHeld;
    }
  }
  stop = true;
  maker.join();
  EXPECT_GE(held, 200);
  SuspensionRound round;
  EXPECT_EQ(round.ask(maker.id()).wait(), Answer::kGone);
  EXPECT_EQ(round.ask(core::threadId()).wait(), Answer::kRefused);
}

TEST_F(SuspensionTest, ThousandThreadsTwoAtATime) {
  constexpr int kThreads = 1000;
  Stage stage;
  std::deque<Worker> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back([&stage] { stage.await(1); });
  }
  const core::ThreadList list = core::ThreadList::read();
  const std::span<const int> threads = list.threads();
  EXPECT_TRUE(list.isComplete());
  ASSERT_GE(threads.size(), kThreads + 1U);
  EXPECT_EQ(threads.front(), getpid());
  EXPECT_TRUE(std::is_sorted(threads.begin() + 1, threads.end(), std::less_equal<int>()));
  int held = 0;
  {
    SuspensionRound round;
    SuspendedThread next = round.ask(threads[0]);
    for (std::size_t i = 1; i <= threads.size(); ++i) {
      SuspendedThread current = std::move(next);
      next = round.ask(threads[i % threads.size()]);
      held += current.wait() == Answer::kHeld;
    }
  }
  EXPECT_GE(held, kThreads * 95 / 100);  // on a busy machine some come too late
  stage.enter(1);
}

// A crash takes over what a round on another thread holds, and the round finds nothing to undo.
TEST_F(SuspensionTest, CrashTakesHeldThreadsOver) {
  Stage stage;
  Worker stalled([&stage] { stage.await(4); });
  Worker monitor([&] {
    SuspensionRound round;
    {
      SuspendedThread suspended = round.ask(stalled.id());
      EXPECT_EQ(suspended.wait(), Answer::kHeld);
      stage.enter(1);
      stage.await(2);
      EXPECT_EQ(round.ask(stalled.id()).wait(), Answer::kRefused);
    }
    stage.enter(3);
  });
  stage.await(1);
  ASSERT_EQ(core::CrashOwner::claim(), core::CrashOwner::Claim::kFirst);
  SuspensionRound crash;
  std::uint64_t place;
  {
    SuspendedThread adopted = crash.ask(stalled.id());
    EXPECT_EQ(adopted.answer(), Answer::kHeld);
    place = adopted.registers().instructionPointer;
    stage.enter(2);
    stage.await(3);
    EXPECT_NE(test::awaitSleep(stalled.id(), SYS_futex), place);  // still in the suspension's own futex
  }
  SuspendedThread held = crash.ask(stalled.id());
  EXPECT_EQ(held.wait(), Answer::kHeld);
  ThreadSuspension::resumeAll();
  stage.enter(4);
  stalled.join();
  core::CrashOwner::release();
}

}  // namespace
