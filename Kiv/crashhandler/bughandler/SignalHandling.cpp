#include "Kiv/crashhandler/bughandler/SignalHandling.h"

#include <sys/syscall.h>
#include <ucontext.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "Core/Kernel/ForkTell.h"
#include "Core/Kernel/Futex.h"
#include "Core/Kernel/KernelSignal.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/Registers.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/ThreadList.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Text/Format.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashDescription.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"
#include "Kiv/crashhandler/bughandler/JournalKeeper.h"
#include "Kiv/crashhandler/bughandler/KivCollectCrashInfos.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivSigHandler.h"
#include "Kiv/crashhandler/bughandler/KivSignalNames.h"
#include "Kiv/crashhandler/bughandler/StackBlock.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"

namespace {

constexpr std::int64_t kNanosecondsAMillisecond = 1'000'000;
/// How long threads at the gate wait for a forwarded crash to end the process.
constexpr std::int64_t kForwardedPatience = 1'000'000'000;

enum GateState : std::uint32_t { kClosed, kForwarded };

siginfo_t temp_siginfo;
std::atomic<std::uint32_t> crashCount{0};
std::uint32_t gate = kClosed;

core::KernelSignalSet fatalSignals() noexcept {
  core::KernelSignalSet signals = 0;
  for (const int signal : fatalsigs) {
    signals |= core::signalBit(signal);
  }
  return signals;
}

/// While a crash is handled a fault of the handling must still arrive, and the watchdog's timer;
/// everything else that could come between waits.
core::KernelSignalSet waitingSignals() noexcept {
  return ~(fatalSignals() | core::signalBit(CrashWatchdog::timerSignal()));
}

void changeMask(int how, core::KernelSignalSet signals) noexcept {
  core::systemCall(SYS_rt_sigprocmask, how, &signals, nullptr, sizeof signals);
}

/// To the calling thread: it stays pending while the signal is blocked. The first process of a namespace
/// does not end by its own signals.
void raiseSignal(int sig) noexcept {
  if (core::processId() == 1) {
    core::dieBySignal(sig);
  }
  core::systemCall(SYS_tgkill, core::processId(), core::threadId(), sig);
}

/// Waits for the owner of the crash to end the process, and lets it read this thread's stack.
/// Returns when a handler that was there before has taken the crash over and the process lives on.
void waitAtGate() noexcept {
  changeMask(SIG_UNBLOCK, core::signalBit(core::ThreadSuspension::kSignal));
  while (__atomic_load_n(&gate, __ATOMIC_ACQUIRE) == kClosed) {
    core::futexWait(gate, kClosed, kForwardedPatience);
  }
  const std::int64_t end = core::monotonicNanoseconds() + kForwardedPatience;
  for (std::int64_t left; (left = end - core::monotonicNanoseconds()) > 0;) {
    core::futexWait(gate, kForwarded, left);
  }
}

const mcontext_t& contextOf(const void* context) noexcept {
  return static_cast<const ucontext_t*>(context)->uc_mcontext;
}

bool isSameSignal(const siginfo_t& a, const siginfo_t& b) noexcept {
  return a.si_signo == b.si_signo && a.si_errno == b.si_errno && a.si_code == b.si_code && a.si_pid == b.si_pid &&
         a.si_uid == b.si_uid && a.si_status == b.si_status && a.si_addr == b.si_addr && a.si_band == b.si_band;
}

/// Meaningful only for what the kernel found; else it shares its place with process and user id.
std::uint64_t addressOf(const siginfo_t& info) noexcept {
  return info.si_code > 0 ? reinterpret_cast<std::uint64_t>(info.si_addr) : 0;
}

CrashFacts factsOf(const siginfo_t& info, const void* context, std::uint32_t count) noexcept {
  CrashFacts facts{};
  facts.time = core::wallClockNanoseconds() / kNanosecondsAMillisecond;
  facts.address = addressOf(info);
  facts.signal = info.si_signo;
  facts.code = info.si_code;
  facts.error = info.si_errno;
  facts.count = count;
  facts.crashThread = core::threadPort(core::threadId());
  std::memcpy(facts.registers, contextOf(context).gregs, sizeof facts.registers);
  return facts;
}

/// A forked child crashes for itself: with a journal, and under a process id, of its own.
void leaveParent() noexcept {
  if (CrashJournal::leaveToParent()) {
    core::CrashSection::run([] {
      KivModelBase& model = KivModelBase::getDefualtAnaModel();
      model.setProcessId(core::processId());
      model.setParentProcId(core::systemCall(SYS_getppid));
      model.setParentProcName(model.processName());
    });
    core::CrashSection::run([] { JournalKeeper::keepAll(); });
  }
}

/// From here on the crash is in the journal, whatever becomes of its handling.
void noteEntry(const CrashFacts& facts) noexcept {
  if (facts.signal == SIGBUS) {
    // So would a fault of the journal itself be, which would kill while that signal is blocked.
    changeMask(SIG_UNBLOCK, core::signalBit(SIGBUS));
  }
  CrashJournal::enter(facts);
}

void walkCrashed(std::span<std::uint64_t, core::kMostFrames> frames, const void* context) noexcept {
  const StackBlock block;
  core::walk(core::registersOf(contextOf(context)), frames, {.block = block.bytes(), .mayRefreshImages = true});
}

/// The second entry tells of the first one too, which may have failed before it was described.
void describe(KivCrashData& data, const CrashFacts& facts) noexcept {
  const core::String version = KivModelBase::getDefualtAnaModel().sdkVersion();
  const JournalLayout* journal = CrashJournal::current();
  if (facts.count == 2 && data.time() == 0 && journal != nullptr) {
    describeEntry(data, journal->entries[0].facts, version);
  }
  describeEntry(data, facts, version);
}

/// False when it is the handling's own fault for the second time, which is the end.
bool goesOn(KivCrashData& data, int sig, const siginfo_t& info, std::uint32_t count) noexcept {
  if (count == 2) {
    kiv_log_always("<KIV> Trap a fatal signal %d [%d, %d, %d] again", sig, info.si_signo, info.si_errno, info.si_code);
  } else if (count > 2) {
    data.setCrashOnceMore(true);
    kiv_log_always("<KIV> Trap a fatal singal %d once more, terminate the app now!!!", sig);
  }
  return count <= 2;
}

/// The handler that was there before, nullptr for none that is to be called.
const struct sigaction* previousHandler(int sig) noexcept {
  const struct sigaction* previous = PreviousActions::of(sig);
  if (previous == nullptr) {
    return nullptr;
  }
  const bool isHandler = (previous->sa_flags & SA_SIGINFO) != 0
                             ? previous->sa_sigaction != nullptr
                             : previous->sa_handler != SIG_DFL && previous->sa_handler != SIG_IGN;
  return isHandler ? previous : nullptr;
}

void call(const struct sigaction& previous, int sig, siginfo_t* info, void* context) noexcept {
  if ((previous.sa_flags & SA_SIGINFO) != 0) {
    previous.sa_sigaction(sig, info, context);
  } else {
    kiv_log_info("Forward signal %d to the handler %p", sig, reinterpret_cast<const void*>(previous.sa_handler));
    previous.sa_handler(sig);
  }
}

/// What the handling's own writes have brought about and is pending since: it is nobody else's.
void dropOwnSignals() noexcept {
  const core::KernelSignalSet own = core::signalBit(SIGXFSZ) | core::signalBit(SIGPIPE);
  const timespec now{};
  while (core::systemCall(SYS_rt_sigtimedwait, &own, nullptr, &now, sizeof own) > 0) {
  }
}

/// As the kernel would call a handler of the signal, with the six signals blocked besides.
void restoreMask(const void* context) noexcept {
  core::KernelSignalSet interrupted;
  std::memcpy(&interrupted, &static_cast<const ucontext_t*>(context)->uc_sigmask, sizeof interrupted);
  changeMask(SIG_SETMASK, interrupted | fatalSignals());
}

/// The handler that was there before may leave by a jump: everything that a crash holds is given back
/// before it is called. Where there is none the process ends here, watched to its end.
void forward(int sig, siginfo_t* info, void* context) noexcept {
  dropOwnSignals();
  if (const struct sigaction* previous = previousHandler(sig)) {
    core::ThreadSuspension::resumeAll();
    core::CrashOwner::release();
    __atomic_store_n(&gate, kForwarded, __ATOMIC_RELEASE);
    core::futexWake(gate);
    restoreMask(context);
    CrashWatchdog::release();
    call(*previous, sig, info, context);
  }
  raiseSignal(sig);
}

/// Everything from the first look at the signal to its forwarding. Each section that runs out of
/// memory costs what it was about to do, not the rest.
void handle(int sig, siginfo_t* info, void* context, bool isFirst) noexcept {
  const std::uint32_t count = ++crashCount;
  const bool isKnown = isSameSignal(*info, temp_siginfo);
  const CrashFacts facts = factsOf(*info, context, count);
  const bool isForked = core::ForkTell::isForked();
  if (isFirst && isForked) {
    CrashWatchdog::arm(sig);  // a child's journal takes system calls to make
  }
  if (!isKnown) {
    temp_siginfo = *info;
    leaveParent();
    noteEntry(facts);
  }
  if (isFirst && !isForked) {
    CrashWatchdog::arm(sig);
  }
  if (isKnown) {
    core::CrashSection::run([&] {
      kiv_log_info("signal %d info(%d, %d, %d) already handled,uninstall", sig, info->si_signo, info->si_errno,
                   info->si_code);
    });
    kiv_uninstall_signal_handler();
    return;
  }
  CrashHandling& handling = CrashHandling::current();
  changeMask(SIG_SETMASK, waitingSignals());
  core::CrashSection::run([&] { CrashJournal::addStack(count, walkCrashed, context); });
  core::CrashSection::run([&] { handling.setCrashAccidentHappen(true); });
  core::CrashSection::run([&] { handling.stopStallMonitor(); });
  if (!KivSigHandler::sharedInstance().isInstalled()) {
    CrashJournal::settle(count);
    core::CrashSection::run([] { kiv_log_info("Signal handler uninstalled, won't handle it"); });
    kiv_uninstall_signal_handler();
    changeMask(SIG_BLOCK, fatalSignals());
    raiseSignal(sig);
    return;
  }
  KivCrashData& data = KivCrashData::expData();
  core::CrashSection::run([&] {
    kiv_log_always("<KIV> Trap a fatal signal: %d [%d, %d, %d]", sig, info->si_signo, info->si_errno, info->si_code);
  });
  bool isHandled = count <= 2;
  core::CrashSection::run([&] { isHandled = goesOn(data, sig, *info, count); });
  if (!isHandled) {
    core::CrashSection::run([&] { handling.uninstallHandler(); });
    changeMask(SIG_BLOCK, fatalSignals());
    raiseSignal(sig);
    return;
  }
  core::CrashSection::run([&] { describe(data, facts); });
  core::CrashSection::run([&] {
    const std::uint32_t port = data.crashThread();
    kiv_collect_crash_infos(contextOf(context), &port, 0);
  });
  core::CrashSection::run([&] {
    if (const auto log = data.crashlog()) {
      CrashJournal::putLog(*log, count);
    }
  });
  core::CrashSection::run([&] {
    kiv_log_info("Notify crash happened.");
    handling.crashHapped(nullptr);
  });
  changeMask(SIG_BLOCK, fatalSignals());
  core::CrashSection::run([&] {
    kiv_log_info("Crash handling complete. Uninstall the handlers and forward the signal.");
    handling.uninstallHandler();
  });
  forward(sig, info, context);
}

}  // namespace

void kiv_signal_handler(int sig, siginfo_t* info, void* context) noexcept {
  if (CrashJournal::mend(*info)) {
    return;
  }
  if (core::ForkTell::current() == core::ForkTell::Process::kVforked) {
    core::dieBySignal(sig);  // the memory is the parent's
  }
  const core::CrashOwner::Claim claim = core::CrashOwner::claim();
  switch (claim) {
    case core::CrashOwner::Claim::kRefused:
      waitAtGate();
      return;
    case core::CrashOwner::Claim::kAgain:
      core::ThreadSuspension::resumeAll();
      break;
    case core::CrashOwner::Claim::kFirst:
      __atomic_store_n(&gate, kClosed, __ATOMIC_RELAXED);
      break;
  }
  handle(sig, info, context, claim == core::CrashOwner::Claim::kFirst);
}

void kiv_uninstall_signal_handler() noexcept {
  struct sigaction standard {};
  standard.sa_handler = SIG_DFL;
  for (const int signal : fatalsigs) {
    sigaction(signal, &standard, nullptr);
  }
  std::memset(&temp_siginfo, 0, sizeof temp_siginfo);
}
