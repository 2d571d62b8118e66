#include "Core/Kernel/InterruptedCall.h"

#include <errno.h>
#include <signal.h>
#include <sys/syscall.h>

#include "Core/Kernel/KernelSignal.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Uninstrumented.h"

namespace core {
namespace {

/// Calls that a handled signal ends with EINTR whatever the action's flags. Each has done
/// nothing yet when it answers EINTR, so that it may start over. (With a time-out on the
/// socket, that goes for sending and receiving too.)
KIV_UNINSTRUMENTED bool mayStartOver(long number) noexcept {
  switch (number) {
    case SYS_poll:
    case SYS_ppoll:
    case SYS_select:
    case SYS_pselect6:
    case SYS_epoll_wait:
    case SYS_epoll_pwait:
    case SYS_epoll_pwait2:
    case SYS_nanosleep:
    case SYS_clock_nanosleep:
    case SYS_futex:
    case SYS_pause:
    case SYS_rt_sigsuspend:
    case SYS_rt_sigtimedwait:
    case SYS_read:
    case SYS_readv:
    case SYS_write:
    case SYS_writev:
    case SYS_connect:
    case SYS_accept:
    case SYS_accept4:
    case SYS_sendto:
    case SYS_sendmsg:
    case SYS_sendmmsg:
    case SYS_recvfrom:
    case SYS_recvmsg:
    case SYS_recvmmsg:
    case SYS_msgsnd:
    case SYS_msgrcv:
    case SYS_semop:
    case SYS_semtimedop:
    case SYS_io_getevents:
    case SYS_io_pgetevents:
    case SYS_io_uring_enter:
      return true;
    default:
      return false;
  }
}

/// Whether the 8 bytes there can be read. A signal set that is to be blocked in no known way is read
/// and then refused; the call is never forbidden.
KIV_UNINSTRUMENTED bool isReadable(std::uint64_t address) noexcept {
  constexpr long kNoWay = 0x7F;
  return rawSystemCall(SYS_rt_sigprocmask, kNoWay, static_cast<long>(address), 0, sizeof(KernelSignalSet)) == -EINVAL;
}

KIV_UNINSTRUMENTED bool readCodeBefore(std::uint64_t instructionPointer, std::uint8_t (&code)[kCodeBefore]) noexcept {
  constexpr std::uint64_t kPage = 4096;
  const std::uint64_t start = instructionPointer - kCodeBefore;
  const std::uint64_t last = instructionPointer - sizeof(KernelSignalSet);
  if (!isReadable(last) || (start / kPage != (instructionPointer - 1) / kPage && !isReadable(start))) {
    return false;
  }
  const auto* bytes = reinterpret_cast<const volatile std::uint8_t*>(start);
  for (int i = 0; i < kCodeBefore; ++i) {
    code[i] = bytes[i];
  }
  return true;
}

KIV_UNINSTRUMENTED bool endsInCall(const std::uint8_t (&code)[kCodeBefore]) noexcept {
  return code[kCodeBefore - 2] == 0x0F && code[kCodeBefore - 1] == 0x05;
}

/// The length of the instruction that ends before `end`, if it loads a register from the stack: mov
/// offset(%rsp),register with or without a prefix; else 0.
KIV_UNINSTRUMENTED int stackLoadBefore(const std::uint8_t* end) noexcept {
  if (end[-4] != 0x8B || (end[-3] & 0xC7) != 0x44 || end[-2] != 0x24) {
    return 0;
  }
  return (end[-5] & 0xF0) == 0x40 ? 5 : 4;
}

/// Whether a signal waits that `blocked` lets through and that has a handler. Such a signal ends
/// the call by right: it came while the thread was held, and were the call to start over, it
/// would wait for an event that its caller has been told of already.
KIV_UNINSTRUMENTED bool handlerWaits(KernelSignalSet blocked) noexcept {
  constexpr KernelSignalSet kOwn = signalBit(ThreadSuspension::kSignal);
  KernelSignalSet waiting = 0;
  rawSystemCall(SYS_rt_sigpending, reinterpret_cast<long>(&waiting), sizeof waiting);
  waiting &= ~(blocked | kOwn);
  for (; waiting != 0; waiting &= waiting - 1) {
    KernelSignalAction action;
    action.handler = nullptr;
    rawSystemCall(SYS_rt_sigaction, __builtin_ctzll(waiting) + 1, 0, reinterpret_cast<long>(&action), sizeof waiting);
    if (reinterpret_cast<std::uintptr_t>(action.handler) > 1) {  // neither SIG_DFL nor SIG_IGN
      return true;
    }
  }
  return false;
}

}  // namespace

KIV_UNINSTRUMENTED long callNumberInCode(const std::uint8_t (&code)[kCodeBefore]) noexcept {
  constexpr int kMostLoads = 2;
  if (!endsInCall(code)) {
    return -1;
  }
  const std::uint8_t* end = code + kCodeBefore - 2;
  for (int loads = 0; loads <= kMostLoads; ++loads) {
    const bool shortMove = end[-5] == 0xB8;                    // mov $number,%eax
    const bool longMove = end[-6] == 0xC7 && end[-5] == 0xC0;  // mov $number,%rax, less its prefix
    if (shortMove || longMove) {
      return end[-4] | end[-3] << 8 | end[-2] << 16;
    }
    if ((end[-2] == 0x31 || end[-2] == 0x33) && end[-1] == 0xC0) {  // xor %eax,%eax
      return 0;
    }
    const int length = stackLoadBefore(end);
    if (length == 0) {
      return -1;
    }
    end -= length;
  }
  return -1;
}

// The result alone does not prove that the call was interrupted by this signal: another one's
// handler may just have returned to the same place. If the thread was seen to sleep in the
// call before the signal was sent, it is proved. Without that the code's number is taken: then
// the thread can have been in another handler only if that blocks this signal, and such a
// handler that lasts is found out and its thread not waited for (see SuspendedThread::wait).
KIV_UNINSTRUMENTED void repairInterruptedCall(ucontext_t& context, const CallAhead& ahead) noexcept {
  auto& registers = context.uc_mcontext.gregs;
  const auto instructionPointer = static_cast<std::uint64_t>(registers[REG_RIP]);
  if (registers[REG_RAX] != -EINTR) {
    return;
  }
  std::uint8_t code[kCodeBefore];
  if (!readCodeBefore(instructionPointer, code) || !endsInCall(code)) {
    return;
  }
  const bool seen = ahead.number >= 0 && ahead.number != SYS_restart_syscall &&
                    ahead.instructionPointer == instructionPointer &&
                    ahead.stackPointer == static_cast<std::uint64_t>(registers[REG_RSP]);
  const long number = seen ? ahead.number : callNumberInCode(code);
  if (mayStartOver(number) && !handlerWaits(context.uc_sigmask.__val[0])) {
    registers[REG_RAX] = number;
    registers[REG_RIP] = static_cast<greg_t>(instructionPointer - 2);
  }
}

}  // namespace core
