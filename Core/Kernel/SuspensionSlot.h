#pragma once

#include <signal.h>
#include <ucontext.h>

#include <cstdint>

#include "Core/Kernel/InterruptedCall.h"
#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/ThreadFiles.h"

namespace core {

/// How far one suspension has come. Who may step on: the asking thread from kFree, kAsked back
/// to it and out of kHeld, kAdopted and kCopied; the asked one from kAsked on to kHeld or kCopied; the
/// owner of a crash from kHeld to kAdopted.
enum class SlotPhase : std::uint32_t {
  kFree,
  kAsked,    ///< the signal is on its way
  kCopying,  ///< the thread has come and writes its answer
  kHeld,     ///< the answer stands, the thread waits
  kAdopted,  ///< the same, for the owner of a crash in place of whoever asked
  kCopied    ///< the answer stands, with a copy of the stack; the thread goes on
};

/// Stacks mostly end before that; a copy costs by the page that is there.
inline constexpr std::size_t kStackCopySize = 16384;
/// Bytes below the stack pointer that no handler touches. A function that has taken its registers off
/// the stack, and is about to return, is still described as having them there.
inline constexpr std::uint64_t kRedZone = 128;

/// Where a thread that is asked to stop meets the one that asks. Plain memory, since the
/// suspension handler must not call instrumented functions: both sides use atomic built-ins.
struct alignas(64) SuspensionSlot {
  /// Generation and phase; the asked thread sleeps on it, and so does the asking one.
  std::uint32_t word;
  /// The last generation that was given up though its thread did not block the signal.
  std::uint32_t starved;

  /// Whether the asking thread sleeps until the answer stands; both sides look after each other's
  /// write, so that one of them sees it.
  std::uint32_t isAwaited;

  int thread;
  CallAhead ahead;
  stack_t offeredStack;  ///< size 0 for none
  bool copiesStack;      ///< the thread is to go on once it has copied its stack, if it can

  mcontext_t context;  ///< of the held thread; its pointer to the float state points into its stack
  ThreadName name;
  bool tookStack;
  std::size_t stackSize;  ///< bytes of the copy, which begins with the red zone
};

/// For a round and the crash that interrupts it, each with the most threads that are asked at a time.
inline constexpr std::uint32_t kSuspensionSlots = 2 * SuspensionRound::kMostAsked + 4;
extern SuspensionSlot suspensionSlots[kSuspensionSlots];
/// The copies, by slot.
extern std::uint8_t suspensionStacks[kSuspensionSlots][kStackCopySize];

/// The word is the generation, counted up with each use of the slot, and below it the phase.
inline constexpr std::uint32_t kPhaseBits = 3;
inline constexpr std::uint32_t kPhaseMask = (std::uint32_t{1} << kPhaseBits) - 1;
inline constexpr std::uint32_t kGenerations = std::uint32_t{1} << (32 - kPhaseBits);

/// What the signal carries: the generation that is asked, and below it the slot.
inline constexpr std::uint64_t kPayloadSlotBits = 8;

/// For the asking side, which may be instrumented; the handler has its own.
constexpr std::uint32_t slotWordOf(std::uint32_t generation, SlotPhase phase) noexcept {
  return generation << kPhaseBits | static_cast<std::uint32_t>(phase);
}
constexpr SlotPhase phaseOf(std::uint32_t word) noexcept {
  return static_cast<SlotPhase>(word & kPhaseMask);
}
constexpr std::uint32_t generationOf(std::uint32_t word) noexcept {
  return word >> kPhaseBits;
}
constexpr bool isAnswered(std::uint32_t word) noexcept {
  return phaseOf(word) >= SlotPhase::kHeld;
}
constexpr bool isHeld(std::uint32_t word) noexcept {
  return phaseOf(word) == SlotPhase::kHeld || phaseOf(word) == SlotPhase::kAdopted;
}
inline std::uint32_t slotWord(const SuspensionSlot& slot) noexcept {
  return __atomic_load_n(&slot.word, __ATOMIC_ACQUIRE);
}
inline bool stepSlot(SuspensionSlot& slot, std::uint32_t from, std::uint32_t to) noexcept {
  return __atomic_compare_exchange_n(&slot.word, &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED);
}

}  // namespace core
