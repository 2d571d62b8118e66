#include "Core/Kernel/Process.h"

#include <signal.h>
#include <sys/syscall.h>
#include <time.h>

#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

/// The kernel's own layout of a signal action, which the raw call takes.
struct KernelAction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();
  std::uint64_t mask;
};
constexpr std::size_t kMaskBytes = sizeof(std::uint64_t);

std::int64_t clockNanoseconds(clockid_t clock) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

int processId() noexcept {
  return static_cast<int>(rawSystemCall(SYS_getpid));
}

int threadId() noexcept {
  return static_cast<int>(rawSystemCall(SYS_gettid));
}

void dieBySignal(int signal) noexcept {
  const KernelAction standard{SIG_DFL, 0, nullptr, 0};
  const std::uint64_t only = std::uint64_t{1} << (signal - 1);
  rawSystemCall(SYS_rt_sigaction, signal, systemCallArgument(&standard), 0, kMaskBytes);
  rawSystemCall(SYS_tgkill, processId(), threadId(), signal);
  rawSystemCall(SYS_rt_sigprocmask, SIG_UNBLOCK, systemCallArgument(&only), 0, kMaskBytes);
  for (;;) {
    rawSystemCall(SYS_exit_group, 128 + signal);
  }
}

std::int64_t wallClockNanoseconds() noexcept {
  return clockNanoseconds(CLOCK_REALTIME);
}

std::int64_t monotonicNanoseconds() noexcept {
  return clockNanoseconds(CLOCK_MONOTONIC);
}

}  // namespace core
