#include "Kiv/crashhandler/bughandler/KivSigHandler.h"

#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <iterator>

#include "Core/Kernel/KernelSignal.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashNote.h"
#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"
#include "Kiv/crashhandler/bughandler/KivSignalNames.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

constexpr std::size_t kAltStackSize = 0x10000;

// Entry i is the action that was in force for fatalsigs[i].
struct sigaction g_previousSignalHandlers[std::size(fatalsigs)];
bool previousHandlersKept = false;
std::atomic<bool> installed{false};
stack_t kiv_crash_stk{};
std::atomic<int> ownedSignal{0};

// No thread is stopped between its fault and the gate, where it would hold up the crash's owner.
bool installActions() noexcept {
  struct sigaction action {};
  action.sa_sigaction = kiv_signal_handler;
  action.sa_flags = SA_ONSTACK | SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, core::ThreadSuspension::kSignal);
  for (std::size_t i = 0; i < std::size(fatalsigs); ++i) {
    // Only a positive answer counts as a failure, so a refusal is taken for a success: on purpose.
    if (sigaction(fatalsigs[i], &action, &g_previousSignalHandlers[i]) > 0) {
      while (i-- > 0) {
        sigaction(fatalsigs[i], &g_previousSignalHandlers[i], nullptr);
      }
      return false;
    }
  }
  previousHandlersKept = true;
  return true;
}

void changeMask(int how, core::KernelSignalSet signals) noexcept {
  core::systemCall(SYS_rt_sigprocmask, how, &signals, nullptr, sizeof signals);
}

/// A second fault that is blocked would kill the process at once, unhandled.
void unblockFatalSignals() noexcept {
  core::KernelSignalSet signals = 0;
  for (const int signal : fatalsigs) {
    signals |= core::signalBit(signal);
  }
  changeMask(SIG_UNBLOCK, signals);
}

/// Waits for the owner of the crash to end the process, and lets it read this thread's stack.
[[noreturn]] void waitAtGate() noexcept {
  changeMask(SIG_UNBLOCK, core::signalBit(core::ThreadSuspension::kSignal));
  for (;;) {
    core::rawSystemCall(SYS_pause);
  }
}

/// Leaves the signal pending under the default action; it takes effect as the handler returns.
void forward(int sig) noexcept {
  changeMask(SIG_BLOCK, core::signalBit(sig));
  core::systemCall(SYS_tgkill, core::processId(), core::threadId(), sig);
}

}  // namespace

void kiv_signal_handler(int sig, siginfo_t* info, void* context) noexcept {
  switch (core::CrashOwner::claim()) {
    case core::CrashOwner::Claim::kRefused:
      waitAtGate();
    case core::CrashOwner::Claim::kAgain:
      core::dieBySignal(ownedSignal);
    case core::CrashOwner::Claim::kFirst:
      break;
  }
  ownedSignal = sig;
  CrashWatchdog::arm(sig);
  unblockFatalSignals();
  CrashNote::write(*info, context);
  kiv_uninstall_signal_handler();
  forward(sig);
}

void kiv_uninstall_signal_handler() noexcept {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (const int signal : fatalsigs) {
    sigaction(signal, &standard, nullptr);
  }
}

KivSigHandler& KivSigHandler::sharedInstance() noexcept {
  static KivSigHandler handler;  // trivially destructible, so never destroyed
  return handler;
}

bool KivSigHandler::install() noexcept {
  if (!handlerEnable_) {
    kiv_log_warn("signal handler disable");
    return false;
  }
  if (installed) {
    kiv_log_error("signal handler already installed");
    return false;
  }
  if (core::CrashHeap::reserve()) {
    platform::DispatchQueue::global().async(core::CrashHeap::touch);
  } else {
    kiv_log_error("no address space for the crash heap");
  }
  CrashWatchdog::prepare();
  if (!InitAltStack()) {
    return false;
  }
  if (!installActions()) {
    kiv_log_error("install sighandler failed, uninstall it");
    uninstall();
    return false;
  }
  installed = true;
  return true;
}

bool KivSigHandler::uninstall() noexcept {
  if (!installed) {
    kiv_log_info("signal handler already uninstalled");
    return false;
  }
  UnInitAltStack();
  kiv_uninstall_signal_handler();
  kiv_log_info("Uninstall signal handler SUCCESS.");
  installed = false;
  return true;
}

bool KivSigHandler::reset() noexcept {
  return checkHandler() || (previousHandlersKept && installActions());
}

bool KivSigHandler::checkHandler() const noexcept {
  struct sigaction current {};
  sigaction(SIGSEGV, nullptr, &current);
  return (current.sa_flags & SA_SIGINFO) != 0 && current.sa_sigaction == kiv_signal_handler;
}

// The stack is mapped with a guard page below it, so that running over it faults instead of
// writing over a neighbour, and is given back to the kernel's table on uninstall.
bool KivSigHandler::InitAltStack() noexcept {
  if (kiv_crash_stk.ss_sp != nullptr) {
    return false;
  }
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const std::size_t size = (kAltStackSize + getauxval(AT_MINSIGSTKSZ) + page - 1) / page * page;
  void* region = mmap(nullptr, size + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (region == MAP_FAILED) {
    return false;
  }
  mprotect(region, page, PROT_NONE);
  kiv_crash_stk.ss_sp = static_cast<char*>(region) + page;
  kiv_crash_stk.ss_size = size;
  kiv_crash_stk.ss_flags = 0;
  return sigaltstack(&kiv_crash_stk, nullptr) == 0;
}

bool KivSigHandler::UnInitAltStack() noexcept {
  if (kiv_crash_stk.ss_sp != nullptr) {
    // The mapping stays: the kernel may still run a handler on it.
    stack_t current{};
    if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == kiv_crash_stk.ss_sp &&
        (current.ss_flags & SS_ONSTACK) == 0) {
      stack_t none{};
      none.ss_flags = SS_DISABLE;
      sigaltstack(&none, nullptr);
    }
    kiv_crash_stk = {};
  }
  return true;
}
