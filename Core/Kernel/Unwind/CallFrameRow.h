#pragma once

#include <array>
#include <cstdint>

#include "Core/Kernel/Registers.h"

namespace core {

/// How the caller's value of one register follows from the frame. The number that goes with
/// each is in CallFrameRow::values.
enum class RegisterRule : std::uint8_t {
  kSame = 0,         ///< it is still in the register
  kUndefined,        ///< lost; for the return address: there is no caller
  kSavedAtOffset,    ///< stored at CFA + number
  kOffset,           ///< is CFA + number
  kRegister,         ///< is in the register of that number
  kSavedAtComputed,  ///< stored where the expression at that address says
  kComputed          ///< is what the expression at that address says
};

/// One row of a call-frame table: the canonical frame address (CFA) and the rules of the
/// general registers and the return address at one instruction. All zero: nothing was defined yet.
struct CallFrameRow {
  static constexpr unsigned kColumns = Registers::kGeneral + 1;

  std::array<RegisterRule, kColumns> rules;
  bool cfaIsComputed;
  std::uint8_t cfaRegister;
  std::int64_t cfaOffset;  ///< or the address of the CFA's expression
  std::array<std::int64_t, kColumns> values;
};

}  // namespace core
