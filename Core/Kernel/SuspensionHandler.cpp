#include "Core/Kernel/SuspensionHandler.h"

#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <climits>

#include "Core/Kernel/SuspensionSlot.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/Uninstrumented.h"

// The instructions that stack walkers know a signal frame by.
asm(R"(
  .text
  .globl kivReturnFromSuspension
  .hidden kivReturnFromSuspension
  .type kivReturnFromSuspension, @function
  .p2align 4
  nop
kivReturnFromSuspension:
  movq $15, %rax
  syscall
  .size kivReturnFromSuspension, .-kivReturnFromSuspension
)");

namespace core {

constinit SuspensionSlot suspensionSlots[kSuspensionSlots]{};
constinit std::uint8_t suspensionStacks[kSuspensionSlots][kStackCopySize]{};

namespace {

KIV_UNINSTRUMENTED std::uint32_t wordOf(std::uint32_t generation, SlotPhase phase) noexcept {
  return generation << kPhaseBits | static_cast<std::uint32_t>(phase);
}

KIV_UNINSTRUMENTED bool step(SuspensionSlot& slot, std::uint32_t from, std::uint32_t to) noexcept {
  return __atomic_compare_exchange_n(&slot.word, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

// Volatile, lest the loop become a call of memcpy.
KIV_UNINSTRUMENTED void copyRegisters(const ucontext_t& context, SuspensionSlot& slot) noexcept {
  auto* to = static_cast<volatile greg_t*>(slot.context.gregs);
  for (int i = 0; i < NGREG; ++i) {
    to[i] = context.uc_mcontext.gregs[i];
  }
  slot.context.fpregs = context.uc_mcontext.fpregs;
}

// The return from the handler installs the stack of its context.
KIV_UNINSTRUMENTED void takeStack(ucontext_t& context, SuspensionSlot& slot) noexcept {
  slot.tookStack = slot.offeredStack.ss_size != 0 && (context.uc_stack.ss_flags & SS_DISABLE) != 0;
  if (slot.tookStack) {
    context.uc_stack.ss_sp = slot.offeredStack.ss_sp;
    context.uc_stack.ss_size = slot.offeredStack.ss_size;
    context.uc_stack.ss_flags = 0;
  }
}

KIV_UNINSTRUMENTED void waitToBeResumed(const SuspensionSlot& slot, std::uint32_t generation) noexcept {
  for (;;) {
    const std::uint32_t word = __atomic_load_n(&slot.word, __ATOMIC_ACQUIRE);
    if (word != wordOf(generation, SlotPhase::kHeld) && word != wordOf(generation, SlotPhase::kAdopted)) {
      return;
    }
    rawSystemCall(SYS_futex, reinterpret_cast<long>(&slot.word), FUTEX_WAIT_PRIVATE, word);
  }
}

/// Through the kernel, which stops at the stack's end instead of faulting there.
KIV_UNINSTRUMENTED bool copyStack(SuspensionSlot& slot) noexcept {
  iovec copy;
  copy.iov_base = suspensionStacks[&slot - suspensionSlots];
  copy.iov_len = kStackCopySize;
  iovec stack;
  stack.iov_base = reinterpret_cast<void*>(static_cast<std::uint64_t>(slot.context.gregs[REG_RSP]) - kRedZone);
  stack.iov_len = kStackCopySize;
  const long size = rawSystemCall(SYS_process_vm_readv, slot.thread, reinterpret_cast<long>(&copy), 1,
                                  reinterpret_cast<long>(&stack), 1, 0);
  slot.stackSize = size > 0 ? static_cast<std::size_t>(size) : 0;
  return size > 0;
}

KIV_UNINSTRUMENTED void answer(SuspensionSlot& slot, std::uint32_t word) noexcept {
  __atomic_store_n(&slot.word, word, __ATOMIC_SEQ_CST);
  if (__atomic_load_n(&slot.isAwaited, __ATOMIC_SEQ_CST) != 0) {
    rawSystemCall(SYS_futex, reinterpret_cast<long>(&slot.word), FUTEX_WAKE_PRIVATE, INT_MAX);
  }
}

}  // namespace

KIV_UNINSTRUMENTED void onSuspensionSignal(int, siginfo_t* info, void* interrupted) noexcept {
  const auto payload = reinterpret_cast<std::uint64_t>(info->si_value.sival_ptr);
  const std::uint64_t index = payload & ((1U << kPayloadSlotBits) - 1);
  const auto generation = static_cast<std::uint32_t>(payload >> kPayloadSlotBits);
  if (info->si_code != SI_QUEUE || index >= kSuspensionSlots) {
    return;
  }
  SuspensionSlot& slot = suspensionSlots[index];
  auto& context = *static_cast<ucontext_t*>(interrupted);
  CallAhead ahead;
  ahead.number = -1;
  if (!step(slot, wordOf(generation, SlotPhase::kAsked), wordOf(generation, SlotPhase::kCopying))) {
    // One that was late because it blocked the signal may come from another handler's return.
    if (__atomic_load_n(&slot.starved, __ATOMIC_RELAXED) == generation) {
      repairInterruptedCall(context, ahead);
    }
    return;
  }
  ahead.number = slot.ahead.number;
  ahead.stackPointer = slot.ahead.stackPointer;
  ahead.instructionPointer = slot.ahead.instructionPointer;
  copyRegisters(context, slot);
  takeStack(context, slot);
  rawSystemCall(SYS_prctl, PR_GET_NAME, reinterpret_cast<long>(slot.name.bytes));
  if (slot.copiesStack && copyStack(slot)) {
    answer(slot, wordOf(generation, SlotPhase::kCopied));
  } else {
    answer(slot, wordOf(generation, SlotPhase::kHeld));
    waitToBeResumed(slot, generation);
  }
  repairInterruptedCall(context, ahead);
}

}  // namespace core
