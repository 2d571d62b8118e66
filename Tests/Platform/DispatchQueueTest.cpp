#include "Platform/RunLoop/DispatchQueue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Core/Kernel/Process.h"
#include "Platform/RunLoop/RunLoop.h"
#include "Platform/RunLoop/Thread.h"
#include "Tests/Support/Child.h"

namespace {

using platform::DispatchQueue;
using platform::RunLoop;
using platform::Thread;

TEST(DispatchQueueTest, aPlainProgramsMainQueueIsServedInOrder) {
  ASSERT_FALSE(RunLoop::main().isDriven());
  const auto served = std::make_shared<std::promise<std::string>>();
  std::string trace;
  bool observed = false;
  const auto observer =
      RunLoop::main().addObserver(platform::kAllActivities, [&](platform::Activity) { observed = true; });
  for (const char* text : {"a ", "b ", "c "}) {
    DispatchQueue::main().async([&trace, text] { trace += text; });
  }
  DispatchQueue::main().async([&trace, served] {
    DispatchQueue::main().asyncAfter(0.002,
                                     [&trace, served] { served->set_value(trace + Thread::current().name().str()); });
  });
  EXPECT_EQ(served->get_future().get(), "a b c KivMainQueue");
  EXPECT_FALSE(RunLoop::main().isDriven());
  RunLoop::main().removeObserver(observer);
  EXPECT_FALSE(observed) << "stalls are looked for in a driven loop only";
}

// While block kHeld is being called by the service thread, this thread begins to run the loop.
TEST(DispatchQueueTest, theServiceThreadHandsOverBetweenTwoBlocks) {
  constexpr int kBlocks = 1000;
  constexpr int kHeld = 10;
  RunLoop& loop = RunLoop::main();
  std::vector<int> callers;
  std::promise<void> held;
  for (int i = 0; i < kBlocks; ++i) {
    DispatchQueue::main().async([&, i] {
      EXPECT_EQ(callers.size(), static_cast<std::size_t>(i));
      callers.push_back(core::threadId());
      if (i == kHeld) {
        held.set_value();
        while (!loop.isDriven()) {
          std::this_thread::yield();
        }
      }
      if (i == kBlocks - 1) {
        loop.stop();
      }
    });
  }
  held.get_future().wait();
  EXPECT_TRUE(loop.run());
  ASSERT_EQ(callers.size(), std::size_t{kBlocks});
  for (int i = 0; i < kBlocks; ++i) {
    EXPECT_EQ(callers[static_cast<std::size_t>(i)] == core::threadId(), i > kHeld) << i;
  }

  // A driver keeps the loop between its runs, and gives it back with the work that waits.
  const auto back = std::make_shared<std::promise<int>>();
  loop.perform([back] { back->set_value(core::threadId()); });
  auto future = back->get_future();
  EXPECT_NE(future.wait_for(std::chrono::milliseconds(0)), std::future_status::ready);
  loop.detach();
  EXPECT_NE(future.get(), core::threadId());
}

TEST(DispatchQueueTest, drainingCallsWhatIsPostedOnTheMainThreadOnly) {
  ASSERT_TRUE(RunLoop::main().attach());
  std::string trace;
  DispatchQueue::main().asyncAfter(0, [&] { trace += "delayed "; });
  DispatchQueue::main().async([&] {
    trace += "first ";
    DispatchQueue::main().async([&] { trace += "third "; });
  });
  DispatchQueue::main().async([&] { trace += "second "; });
  std::thread([] { EXPECT_FALSE(DispatchQueue::drainMain()); }).join();
  EXPECT_EQ(trace, "");
  EXPECT_TRUE(DispatchQueue::drainMain());
  EXPECT_EQ(trace, "first second third ");
  std::function<void()> again = [&again] { DispatchQueue::main().async(again); };
  again();
  EXPECT_TRUE(DispatchQueue::drainMain()) << "a block that posts itself must not keep the process";
  again = [] {};
  RunLoop::main().runOnce(0);
  EXPECT_EQ(trace, "first second third delayed ");
  RunLoop::main().detach();
}

TEST(DispatchQueueTest, delayedBlocksOfTheGlobalQueueComeInTime) {
  const auto later = std::make_shared<std::promise<std::int64_t>>();
  const std::int64_t start = core::monotonicNanoseconds();
  DispatchQueue::global().asyncAfter(1000, [] {});
  DispatchQueue::global().asyncAfter(0.003, [later] { later->set_value(core::monotonicNanoseconds()); });
  EXPECT_GE(later->get_future().get(), start + 3'000'000);
}

// The global queue has four threads: all are made to wait.
TEST(DispatchQueueTest, theOwnerOfACrashIsServedInlineWhateverTheOthersDo) {
  const auto busy = std::make_shared<std::latch>(5);
  const auto release = std::make_shared<std::latch>(1);
  for (int i = 0; i < 4; ++i) {
    DispatchQueue::global().async([=] { (busy->count_down(), release->wait()); });
  }
  busy->arrive_and_wait();
  std::string trace;
  EXPECT_TRUE(test::onCrashOwner([&trace] {
    DispatchQueue::global().async([&trace] { trace += "global "; });
    DispatchQueue::global().asyncAfter(0, [&trace] { trace += "dropped "; });
    DispatchQueue::main().async([&trace] { trace += "main "; });
  }));
  EXPECT_EQ(trace, "global main ");
  release->count_down();
}

TEST(DispatchQueueDeathTest, anExitWaitsForNoThread) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        std::promise<void> begun;
        DispatchQueue::global().async([&] {
          begun.set_value();
          std::promise<void>().get_future().wait();
        });
        begun.get_future().wait();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
