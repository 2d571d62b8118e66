#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"

#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>

#include <atomic>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Platform/RunLoop/Thread.h"

namespace {

// The signal being handled, 0 for none: the word that the thread sleeps on.
std::atomic<std::uint32_t> handled{0};
std::atomic<int> timerId{-1};

long waitWhile(std::uint32_t value, const timespec* timeout) noexcept {
  return core::rawSystemCall(SYS_futex, core::systemCallArgument(&handled), FUTEX_WAIT_PRIVATE, value,
                             core::systemCallArgument(timeout));
}

/// The timer's grace over the thread, so that the thread normally is the one to act.
constexpr std::int64_t kTimerGrace = 250'000'000;

timespec fromNanoseconds(std::int64_t nanoseconds) noexcept {
  return {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
}

void watch() noexcept {
  for (;;) {
    const std::uint32_t signal = handled.load(std::memory_order_acquire);
    if (signal == 0) {
      waitWhile(0, nullptr);
      continue;
    }
    const std::int64_t end = core::monotonicNanoseconds() + CrashWatchdog::kHandlingTime;
    for (std::int64_t left; handled.load(std::memory_order_acquire) == signal;) {
      if ((left = end - core::monotonicNanoseconds()) <= 0) {
        core::dieBySignal(static_cast<int>(signal));
      }
      const timespec timeout = fromNanoseconds(left);
      waitWhile(signal, &timeout);
    }
  }
}

void onTimer(int, siginfo_t*, void*) noexcept {
  if (const std::uint32_t signal = handled.load(std::memory_order_acquire)) {
    core::dieBySignal(static_cast<int>(signal));
  }
}

void armThreadTimer() noexcept {
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = CrashWatchdog::timerSignal();
  event._sigev_un._tid = core::threadId();
  int id = -1;
  if (core::systemCall(SYS_timer_create, CLOCK_MONOTONIC, &event, &id) != 0) {
    return;
  }
  timerId = id;
  itimerspec time{};
  time.it_value = fromNanoseconds(CrashWatchdog::kHandlingTime + kTimerGrace);
  core::systemCall(SYS_timer_settime, id, 0, &time, nullptr);
  const std::uint64_t mask = std::uint64_t{1} << (CrashWatchdog::timerSignal() - 1);
  core::systemCall(SYS_rt_sigprocmask, SIG_UNBLOCK, &mask, nullptr, sizeof mask);
}

}  // namespace

int CrashWatchdog::timerSignal() noexcept {
  return SIGRTMAX - 2;
}

bool CrashWatchdog::prepare() noexcept {
  static const bool prepared = [] {
    struct sigaction action {};
    action.sa_sigaction = onTimer;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    if (sigaction(timerSignal(), &action, nullptr) != 0) {
      return false;
    }
    platform::Thread::start("kiv-watchdog", watch);
    return true;
  }();
  return prepared;
}

void CrashWatchdog::arm(int signal) noexcept {
  handled.store(static_cast<std::uint32_t>(signal), std::memory_order_release);
  core::systemCall(SYS_futex, &handled, FUTEX_WAKE_PRIVATE, 1);
  armThreadTimer();
}

void CrashWatchdog::release() noexcept {
  handled.store(0, std::memory_order_release);
  core::systemCall(SYS_futex, &handled, FUTEX_WAKE_PRIVATE, 1);
  if (const int id = timerId.exchange(-1); id != -1) {
    core::systemCall(SYS_timer_delete, id);
  }
}
