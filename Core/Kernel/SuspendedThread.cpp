#include "Core/Kernel/SuspendedThread.h"

#include <errno.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>

#include "Core/Kernel/Futex.h"
#include "Core/Kernel/KernelSignal.h"
#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/SuspensionSlot.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/ThreadSuspension.h"
#include "Core/Memory/CrashOwner.h"

namespace core {
namespace {

/// How long a thread is waited for before it is looked into why it does not come, and then
/// how often.
constexpr std::int64_t kPatience = 2'000'000;
constexpr std::int64_t kLook = 10'000'000;
/// A thread that runs, or sleeps on an idle processor, comes before sleeping for it would pay; and while
/// one is held, nobody is to be woken first. One that copies its stack and goes on can wait.
constexpr std::int64_t kSpin = 10'000;
constexpr std::int64_t kSpinForCopy = 2'000;

/// Threads that did not come, by the low bits of their ids. While one still blocks the
/// signal it is not sent another, which would only pile up in the kernel.
class SilentThreads {
 public:
  static bool contains(int thread) noexcept { return place(thread).load(std::memory_order_relaxed) == thread; }
  static void add(int thread) noexcept { place(thread).store(thread, std::memory_order_relaxed); }
  static void remove(int thread) noexcept {
    int expected = thread;
    place(thread).compare_exchange_strong(expected, 0, std::memory_order_relaxed);
  }

 private:
  static std::atomic<int>& place(int thread) noexcept { return threads_[static_cast<unsigned>(thread) % kPlaces]; }

  static constexpr std::size_t kPlaces = 1024;
  static std::atomic<int> threads_[kPlaces];
};
std::atomic<int> SilentThreads::threads_[kPlaces];

bool blocksSignal(int thread) noexcept {
  const auto blocked = readBlockedSignals(thread);
  return blocked && (*blocked & signalBit(ThreadSuspension::kSignal)) != 0;
}

bool isThere(int thread) noexcept {
  return systemCall(SYS_tgkill, processId(), thread, 0) != -ESRCH;
}

}  // namespace

SuspendedThread::SuspendedThread(SuspendedThread&& other) noexcept : SuspendedThread(other) {
  other.slot_ = -1;
}

SuspendedThread& SuspendedThread::operator=(SuspendedThread&& other) noexcept {
  if (this != &other) {
    resume();
    *this = static_cast<const SuspendedThread&>(other);
    other.slot_ = -1;
  }
  return *this;
}

void SuspendedThread::ask(const SuspensionRequest& request) noexcept {
  if (thread_ == round_->thread_ || (!round_->isCrash() && CrashOwner::exists())) {
    answer_ = Answer::kRefused;
    return;
  }
  if (adopt()) {
    return;
  }
  const CallAhead ahead = lookAhead();
  if (shouldBeSent(ahead) && claimSlot(request, ahead)) {
    send();
  } else {
    settleUnheld();
  }
}

CallAhead SuspendedThread::lookAhead() const noexcept {
  const auto sleeping = round_->isCrash() ? std::nullopt : readSleepingThread(thread_);
  return sleeping ? CallAhead{sleeping->call, sleeping->stackPointer, sleeping->instructionPointer}
                  : CallAhead{-1, 0, 0};
}

bool SuspendedThread::shouldBeSent(const CallAhead& ahead) const noexcept {
  if (ahead.number == SYS_rt_sigtimedwait || !ThreadSuspension::isInstalled()) {
    return false;
  }
  if ((SilentThreads::contains(thread_) || round_->budget_ <= 0) && blocksSignal(thread_)) {
    return false;
  }
  SilentThreads::remove(thread_);
  return true;
}

bool SuspendedThread::claimSlot(const SuspensionRequest& request, const CallAhead& ahead) noexcept {
  for (std::uint32_t tried = 0; tried < kSuspensionSlots; ++tried) {
    const std::uint32_t i = round_->nextSlot_++ % kSuspensionSlots;
    SuspensionSlot& slot = suspensionSlots[i];
    const std::uint32_t word = slotWord(slot);
    const std::uint32_t generation = (generationOf(word) + 1) % kGenerations;
    if (phaseOf(word) == SlotPhase::kFree && stepSlot(slot, word, slotWordOf(generation, SlotPhase::kAsked))) {
      slot.thread = thread_;
      slot.ahead = ahead;
      slot.offeredStack = request.offeredStack;
      slot.copiesStack = request.copiesStack;
      slot.isAwaited = 0;
      slot_ = static_cast<int>(i);
      generation_ = generation;
      return true;
    }
  }
  return false;
}

void SuspendedThread::send() noexcept {
  siginfo_t info{};
  info.si_signo = ThreadSuspension::kSignal;
  info.si_code = SI_QUEUE;
  info.si_pid = round_->process_;
  info.si_value.sival_ptr =
      reinterpret_cast<void*>(std::uint64_t{generation_} << kPayloadSlotBits | static_cast<std::uint64_t>(slot_));
  if (systemCall(SYS_rt_tgsigqueueinfo, info.si_pid, thread_, info.si_signo, &info) < 0) {
    giveUp();
    settleUnheld();
  }
}

SuspendedThread::Answer SuspendedThread::wait() noexcept {
  if (answer_ != Answer::kAsked) {
    return answer_;
  }
  SuspensionSlot& slot = suspensionSlots[slot_];
  const std::int64_t start = monotonicNanoseconds();
  const std::int64_t spin = slot.copiesStack ? kSpinForCopy : kSpin;
  std::int64_t deadline = start + kPatience;
  for (std::uint32_t word; !isAnswered(word = slotWord(slot)) || generationOf(word) != generation_;) {
    if (generationOf(word) != generation_ || phaseOf(word) == SlotPhase::kFree) {
      slot_ = -1;  // the owner of a crash has taken the thread and let it go
      return answer_ = Answer::kRefused;
    }
    const std::int64_t now = monotonicNanoseconds();
    if (now - start < spin) {
      __builtin_ia32_pause();
    } else if (now < deadline) {
      __atomic_store_n(&slot.isAwaited, 1, __ATOMIC_SEQ_CST);
      futexWait(slot.word, word, deadline - now);  // looks at the word again before it sleeps
    } else if (isLost(now - start) && giveUp()) {
      round_->budget_ -= now - start;
      return adopt() ? answer_ : settleUnheld();
    } else {
      deadline = now + kLook;
    }
  }
  if (const std::int64_t waited = monotonicNanoseconds() - start; waited > kPatience) {
    round_->budget_ -= waited;
  }
  return settleAnswered();
}

// One that blocks the signal and runs may just be leaving the handler of its last suspension.
bool SuspendedThread::isLost(std::int64_t waited) const noexcept {
  const bool blocks = blocksSignal(thread_);
  if (!blocks) {
    __atomic_store_n(&suspensionSlots[slot_].starved, generation_, __ATOMIC_RELAXED);
  }
  return waited >= round_->budget_ || !isThere(thread_) || (blocks && readSleepingThread(thread_));
}

/// False when the thread has come after all. Once given up, it will find its generation over.
bool SuspendedThread::giveUp() noexcept {
  const bool gaveUp = stepSlot(suspensionSlots[slot_], slotWordOf(generation_, SlotPhase::kAsked),
                               slotWordOf(generation_, SlotPhase::kFree));
  if (gaveUp) {
    slot_ = -1;
    SilentThreads::add(thread_);
  }
  return gaveUp;
}

/// A thread that another round holds, when that round is interrupted by a crash.
bool SuspendedThread::adopt() noexcept {
  if (!round_->mayAdopt_) {
    return false;
  }
  for (std::uint32_t i = 0; i < kSuspensionSlots; ++i) {
    SuspensionSlot& slot = suspensionSlots[i];
    const std::uint32_t word = slotWord(slot);
    if (isHeld(word) && slot.thread == thread_ &&
        stepSlot(slot, word, slotWordOf(generationOf(word), SlotPhase::kAdopted))) {
      slot_ = static_cast<int>(i);
      generation_ = generationOf(word);
      isAdopted_ = true;
      settleAnswered();
      return true;
    }
  }
  return false;
}

SuspendedThread::Answer SuspendedThread::settleAnswered() noexcept {
  const SuspensionSlot& slot = suspensionSlots[slot_];
  registers_ = registersOf(slot.context);
  name_ = slot.name;
  tookStack_ = slot.tookStack;
  answer_ = phaseOf(slotWord(slot)) == SlotPhase::kCopied ? Answer::kCopied : Answer::kHeld;
  round_->copiesFail_ |= slot.copiesStack && answer_ == Answer::kHeld;
  return answer_;
}

SuspendedThread::Answer SuspendedThread::settleUnheld() noexcept {
  if (!isThere(thread_)) {
    return answer_ = Answer::kGone;
  }
  if (const auto sleeping = readSleepingThread(thread_)) {
    registers_.instructionPointer = sleeping->instructionPointer;
    registers_[Registers::kRsp] = sleeping->stackPointer;
  }
  name_ = readThreadName(thread_);
  return answer_ = Answer::kSilent;
}

void SuspendedThread::resume() noexcept {
  if (slot_ >= 0 && answer_ == Answer::kAsked && !giveUp()) {
    wait();
  }
  if (slot_ < 0) {
    return;
  }
  SuspensionSlot& slot = suspensionSlots[slot_];
  const SlotPhase phase = answer_ == Answer::kCopied ? SlotPhase::kCopied
                          : isAdopted_               ? SlotPhase::kAdopted
                                                     : SlotPhase::kHeld;
  if (stepSlot(slot, slotWordOf(generation_, phase), slotWordOf(generation_, SlotPhase::kFree)) &&
      phase != SlotPhase::kCopied) {
    futexWake(slot.word);
  }
  slot_ = -1;
}

void SuspendedThread::askToStay() noexcept {
  resume();
  answer_ = Answer::kAsked;
  isAdopted_ = false;
  ask(SuspensionRequest{});
}

bool SuspendedThread::copyContext(MachineContext& into) const noexcept {
  if (answer_ != Answer::kHeld) {
    into.machine.gregs[REG_RIP] = static_cast<greg_t>(registers_.instructionPointer);
    into.machine.gregs[REG_RSP] = static_cast<greg_t>(registers_[Registers::kRsp]);
    return false;
  }
  into.machine = suspensionSlots[slot_].context;
  const auto floats = reinterpret_cast<std::uint64_t>(into.machine.fpregs);
  into.machine.fpregs = &into.floats;
  return floats != 0 && readOwnMemory(floats, &into.floats, sizeof into.floats);
}

StackCopy SuspendedThread::stackCopy() const noexcept {
  if (answer_ != Answer::kCopied) {
    return {};
  }
  return {registers_[Registers::kRsp] - kRedZone, {suspensionStacks[slot_], suspensionSlots[slot_].stackSize}};
}

}  // namespace core
