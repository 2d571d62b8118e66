#include "Core/Kernel/Unwind/StepRule.h"

namespace core {
namespace {

constexpr std::int64_t kWord = sizeof(std::uint64_t);

/// The slot of a register by its rule; nothing where a slot cannot tell it.
std::optional<std::uint64_t> slotOf(RegisterRule rule, std::int64_t offset) noexcept {
  if (rule == RegisterRule::kSame || rule == RegisterRule::kUndefined) {
    return 0;
  }
  const std::int64_t words = -offset / kWord - 1;
  const bool fits = rule == RegisterRule::kSavedAtOffset && offset % kWord == 0 && words >= 1 &&
                    words <= static_cast<std::int64_t>(StepRule::kSlotMask);
  return fits ? std::optional(static_cast<std::uint64_t>(words)) : std::nullopt;
}

}  // namespace

// The rules of the other registers do not matter: a call may change those, so no caller's row
// asks for them.
std::optional<StepRule> StepRule::of(const CallFrameRow& row) noexcept {
  const RegisterRule returnRule = row.rules[Registers::kReturnAddress];
  if (returnRule == RegisterRule::kUndefined) {
    return StepRule(kOutermost);
  }
  const bool isFramePointer = row.cfaRegister == Registers::kRbp;
  if (returnRule != RegisterRule::kSavedAtOffset || row.values[Registers::kReturnAddress] != -kWord ||
      row.rules[Registers::kRsp] != RegisterRule::kSame || row.cfaIsComputed ||
      (!isFramePointer && row.cfaRegister != Registers::kRsp) || row.cfaOffset < 0 || row.cfaOffset % kWord != 0 ||
      static_cast<std::uint64_t>(row.cfaOffset / kWord) > kOffsetMask) {
    return std::nullopt;
  }
  std::uint64_t bits = kCommon | (isFramePointer ? kFramePointerBit : 0) |
                       static_cast<std::uint64_t>(row.cfaOffset / kWord) << kOffsetShift;
  unsigned shift = kSlotsShift;
  for (const Registers::Number number : kKept) {
    const auto slot = slotOf(row.rules[number], row.values[number]);
    if (!slot) {
      return std::nullopt;
    }
    bits |= *slot << shift;
    shift += kSlotBits;
  }
  return StepRule(bits);
}

}  // namespace core
