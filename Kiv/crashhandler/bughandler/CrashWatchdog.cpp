#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"

#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>
#include <atomic>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Platform/RunLoop/Thread.h"

namespace {

// The signal being handled, 0 for none, and when its time is up.
std::atomic<int> handled{0};
std::atomic<std::int64_t> deadline{0};
// The word that the thread sleeps on: another number after each change of those.
std::atomic<std::uint32_t> changes{0};
std::atomic<int> timerId{-1};

long waitWhile(std::uint32_t value, const timespec* timeout) noexcept {
  return core::rawSystemCall(SYS_futex, core::systemCallArgument(&changes), FUTEX_WAIT_PRIVATE, value,
                             core::systemCallArgument(timeout));
}

void tellThread() noexcept {
  changes.fetch_add(1, std::memory_order_release);
  core::systemCall(SYS_futex, &changes, FUTEX_WAKE_PRIVATE, 1);
}

/// The timer's grace over the thread, so that the thread normally is the one to act.
constexpr std::int64_t kTimerGrace = 250'000'000;

timespec fromNanoseconds(std::int64_t nanoseconds) noexcept {
  return {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
}

void watch() noexcept {
  for (;;) {
    const std::uint32_t seen = changes.load(std::memory_order_acquire);
    if (handled.load(std::memory_order_acquire) == 0) {
      waitWhile(seen, nullptr);
      continue;
    }
    CrashWatchdog::endIfOverdue();
    const timespec timeout = fromNanoseconds(std::max<std::int64_t>(deadline - core::monotonicNanoseconds(), 1));
    waitWhile(seen, &timeout);
  }
}

void onTimer(int, siginfo_t*, void*) noexcept {
  if (const int signal = handled.load(std::memory_order_acquire)) {
    core::dieBySignal(signal);
  }
}

void setThreadTimer(std::int64_t left) noexcept {
  if (const int id = timerId; id != -1) {
    itimerspec time{};
    time.it_value = fromNanoseconds(left + kTimerGrace);
    core::systemCall(SYS_timer_settime, id, 0, &time, nullptr);
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
  setThreadTimer(CrashWatchdog::kHandlingTime);
  const std::uint64_t mask = std::uint64_t{1} << (CrashWatchdog::timerSignal() - 1);
  core::systemCall(SYS_rt_sigprocmask, SIG_UNBLOCK, &mask, nullptr, sizeof mask);
}

void moveDeadline(std::int64_t moved) noexcept {
  deadline.store(moved, std::memory_order_relaxed);
  tellThread();
  setThreadTimer(std::max<std::int64_t>(moved - core::monotonicNanoseconds(), 1));
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
  deadline.store(core::monotonicNanoseconds() + kHandlingTime, std::memory_order_relaxed);
  handled.store(signal, std::memory_order_release);
  tellThread();
  armThreadTimer();
}

// The thread finds out when it wakes at what was the deadline: no call is left that could hang unwatched.
void CrashWatchdog::release() noexcept {
  if (const int id = timerId.exchange(-1); id != -1) {
    core::systemCall(SYS_timer_delete, id);
  }
  handled.store(0, std::memory_order_release);
}

CrashWatchdog::Limit::Limit(std::int64_t nanoseconds) noexcept : outer_(deadline) {
  moveDeadline(std::min(outer_, core::monotonicNanoseconds() + nanoseconds));
}

CrashWatchdog::Limit::~Limit() {
  moveDeadline(outer_);
}

void CrashWatchdog::endIfOverdue() noexcept {
  const int signal = handled.load(std::memory_order_acquire);
  if (signal != 0 && core::monotonicNanoseconds() >= deadline.load(std::memory_order_relaxed)) {
    core::dieBySignal(signal);
  }
}
