#include "Kiv/crashhandler/bughandler/KivSigHandler.h"

#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Memory/CrashHeap.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"
#include "Kiv/crashhandler/bughandler/KivSignalNames.h"
#include "Kiv/crashhandler/bughandler/SignalHandling.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

constexpr std::size_t kAltStackSize = 0x10000;

// Entry i is the action that was in force for fatalsigs[i].
struct sigaction g_previousSignalHandlers[std::size(fatalsigs)];
bool previousHandlersKept = false;
stack_t kiv_crash_stk{};

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

}  // namespace

const struct sigaction* PreviousActions::of(int signal) noexcept {
  const int* const found = std::find(std::begin(fatalsigs), std::end(fatalsigs), signal);
  return previousHandlersKept && found != std::end(fatalsigs) ? &g_previousSignalHandlers[found - fatalsigs] : nullptr;
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
  if (installed_) {
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
  installed_ = true;
  return true;
}

bool KivSigHandler::uninstall() noexcept {
  if (!installed_) {
    kiv_log_info("signal handler already uninstalled");
    return false;
  }
  UnInitAltStack();
  kiv_uninstall_signal_handler();
  kiv_log_info("Uninstall signal handler SUCCESS.");
  installed_ = false;
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
