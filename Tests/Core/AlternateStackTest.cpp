#include "Core/Kernel/AlternateStack.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Tests/Core/Worker.h"
#include "Tests/Support/Child.h"

namespace {

using core::AlternateStack;
using core::SuspensionRound;
using test::Stage;
using test::Worker;

constexpr int kCaught = 42;

// A sanitizer has a hook on thread creation of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool hasHook = false;
#elif defined(__has_feature)
constexpr bool hasHook = !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
constexpr bool hasHook = true;
#endif

/// Uses the stack up.
[[gnu::noinline]] int overflow(int depth) {
  char room[4096];
  asm volatile("" : : "r"(room) : "memory");
  return depth < 0 ? 0 : overflow(depth + 1) + room[0];
}

void onFault(int, siginfo_t*, void*) {
  stack_t now{};
  sigaltstack(nullptr, &now);
  _exit((now.ss_flags & SS_ONSTACK) != 0 && now.ss_size == AlternateStack::size() ? kCaught : 1);
}

/// How a child process ends that runs `body` with a handler for faults.
template <class Body>
int statusOf(Body body) {
  return test::runInChild([&] {
    struct sigaction action {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigaction(SIGSEGV, &action, nullptr);
    core::ThreadSuspension::install();
    body();
    return 2;
  });
}

void withoutStack() {
  stack_t none{};
  none.ss_flags = SS_DISABLE;
  sigaltstack(&none, nullptr);
}

TEST(AlternateStackTest, OverflowIsCaughtOnIt) {
  EXPECT_EQ(statusOf([] {
              AlternateStack::giveToCaller();
              overflow(0);
            }),
            kCaught)
      << "main thread";
  EXPECT_EQ(statusOf([] {
              Stage stage;
              Worker worker([&stage] {
                withoutStack();  // as a thread that no hook has seen
                stage.enter(1);
                stage.await(2);
                overflow(0);
              });
              stage.await(1);
              SuspensionRound round;
              AlternateStack::giveToAll(round);
              stage.enter(2);
            }),
            kCaught)
      << "thread that is there at installation";
  EXPECT_EQ(statusOf([] {
              Worker worker([] {
                if (!hasHook) {
                  AlternateStack::giveToCaller();
                }
                overflow(0);
              });
            }),
            kCaught)
      << "new thread";
  EXPECT_EQ(statusOf([] {
              withoutStack();
              overflow(0);
            }),
            128 + SIGSEGV)
      << "without one";
}

TEST(AlternateStackTest, ThreadKeepsTheOneItHas) {
  core::ThreadSuspension::install();
  Stage stage;
  Worker worker([&stage] {
    static char own[1 << 16];
    stack_t stack{};
    stack.ss_sp = own;
    stack.ss_size = sizeof own;
    sigaltstack(&stack, nullptr);
    stage.enter(1);
    stage.await(2);
    EXPECT_TRUE(AlternateStack::giveToCaller());
    sigaltstack(nullptr, &stack);
    EXPECT_EQ(stack.ss_sp, own);
  });
  stage.await(1);
  SuspensionRound round;
  EXPECT_GE(AlternateStack::giveToAll(round).had, 1U);
  stage.enter(2);
}

TEST(AlternateStackTest, StackOfEndedThreadServesAnother) {
  const auto runThreads = [] {
    for (int i = 0; i < 500; ++i) {
      std::thread([] { EXPECT_TRUE(AlternateStack::giveToCaller()); }).join();
    }
    return AlternateStack::count();
  };
  const std::size_t before = runThreads();
  EXPECT_LE(runThreads(), before + 20);
}

TEST(AlternateStackTest, HighWaterMarkIsWhatAHandlerTouched) {
  static constexpr std::size_t kRoom = 100 << 10;
  std::thread([] {
    AlternateStack::giveToCaller();
    struct sigaction action {};
    action.sa_flags = SA_ONSTACK;
    action.sa_handler = [](int) {
      char room[kRoom];
      for (std::size_t i = 0; i < kRoom; i += 512) {
        room[i] = 1;
      }
      asm volatile("" : : "r"(room) : "memory");
    };
    sigaction(SIGUSR2, &action, nullptr);
    pthread_kill(pthread_self(), SIGUSR2);
    EXPECT_GE(AlternateStack::highWaterMark(), kRoom);
    EXPECT_LT(AlternateStack::highWaterMark(), 2 * kRoom);
    signal(SIGUSR2, SIG_DFL);
  }).join();
}

}  // namespace
