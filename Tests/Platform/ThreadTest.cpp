#include "Core/Kernel/ThreadSuspension.h"
#include "Platform/RunLoop/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <future>
#include <memory>

namespace {

using platform::Thread;

constexpr double kPatience = 20;

TEST(ThreadTest, hasItsNameAndBlocksTheAsynchronousSignalsOnly) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const Thread thread = Thread::start("BlockMonitorThread", [] {
    char name[32];
    pthread_getname_np(pthread_self(), name, sizeof name);
    EXPECT_STREQ(name, "BlockMonitorThr");
    EXPECT_EQ(Thread::current().name(), "BlockMonitorThread");
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    for (const int signal :
         {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, core::ThreadSuspension::kSignal}) {
      EXPECT_EQ(sigismember(&blocked, signal), 0) << signal;
    }
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGALRM, SIGPROF, SIGCHLD, SIGUSR1, SIGXFSZ}) {
      EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
  });
  EXPECT_TRUE(thread.join(kPatience));
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_FALSE(Thread::current());
}

TEST(ThreadTest, cancellingEndsItsWaitAtOnce) {
  std::promise<void> waits;
  const auto capture = std::make_shared<int>(0);
  const Thread thread = Thread::start("waiter", [&waits, capture] {
    EXPECT_TRUE(Thread::current().waitFor(0.001));
    waits.set_value();
    EXPECT_FALSE(Thread::current().waitFor(1000));
    EXPECT_TRUE(Thread::current().isCancelled());
  });
  waits.get_future().wait();
  EXPECT_FALSE(thread.join(0));
  EXPECT_TRUE(thread.isExecuting());
  Thread(thread).cancel();
  EXPECT_TRUE(thread.join(kPatience));
  EXPECT_FALSE(thread.isExecuting());
  EXPECT_EQ(capture.use_count(), 1);
}

}  // namespace
