#pragma once

#include <cstdint>
#include <optional>

#include "Core/Kernel/Unwind/CallFrameRow.h"

namespace core {

/// How to get from one frame to its caller, in 64 bits: what nearly every row of a call-frame
/// table comes down to. The CFA is the stack or the frame pointer plus an offset, the return
/// address lies right below it, and below that, in 15 slots of a word, the registers that a
/// function keeps. Fit for the crash path.
class StepRule {
 public:
  enum Kind : std::uint64_t {
    kNothing = 0,
    kCommon,
    kOutermost  ///< there is no caller
  };

  /// The registers that a rule may find in a slot.
  static constexpr Registers::Number kKept[] = {Registers::kRbp, Registers::kRbx, Registers::kR12,
                                                Registers::kR13, Registers::kR14, Registers::kR15};

  constexpr StepRule() noexcept = default;
  constexpr explicit StepRule(Kind kind) noexcept : bits_(kind) {}
  static constexpr StepRule fromBits(std::uint64_t bits) noexcept { return StepRule(bits); }

  /// Nothing for a row that needs more than a rule can say.
  static std::optional<StepRule> of(const CallFrameRow& row) noexcept;

  std::uint64_t bits() const noexcept { return bits_; }
  Kind kind() const noexcept { return static_cast<Kind>(bits_ & 3); }
  bool isFromFramePointer() const noexcept { return (bits_ & kFramePointerBit) != 0; }
  std::uint64_t cfaOffset() const noexcept { return (bits_ >> kOffsetShift & kOffsetMask) * sizeof(std::uint64_t); }

  /// The slots of kKept, four bits each, in their order: 0 for a register that was not stored,
  /// n for one that lies n words below the return address.
  std::uint64_t slots() const noexcept { return bits_ >> kSlotsShift; }
  static constexpr unsigned kSlotBits = 4;
  static constexpr std::uint64_t kSlotMask = (1 << kSlotBits) - 1;

 private:
  static constexpr std::uint64_t kFramePointerBit = 4;
  static constexpr unsigned kOffsetShift = 3;
  static constexpr unsigned kOffsetBits = 37;
  static constexpr std::uint64_t kOffsetMask = (std::uint64_t{1} << kOffsetBits) - 1;
  static constexpr unsigned kSlotsShift = kOffsetShift + kOffsetBits;

  constexpr explicit StepRule(std::uint64_t bits) noexcept : bits_(bits) {}

  std::uint64_t bits_ = kNothing;
};

}  // namespace core
