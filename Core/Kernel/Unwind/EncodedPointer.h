#pragma once

#include <cstdint>

#include "Core/Kernel/Unwind/ByteCursor.h"

namespace core {

/// What pointers in call-frame tables are relative to, beside their own place.
struct PointerBases {
  std::uint64_t text = 0;
  std::uint64_t data = 0;
  std::uint64_t function = 0;
};

/// The encoding that stands for a pointer that is left out.
inline constexpr std::uint8_t kOmittedPointer = 0xFF;

/// Takes a pointer in the encoding that one byte of a table tells (DW_EH_PE_*). An unknown
/// encoding, or an indirect pointer to memory that cannot be read, fails the cursor. Fit for
/// the crash path.
std::uint64_t takePointer(ByteCursor& cursor, std::uint8_t encoding, const PointerBases& bases,
                          const OwnMemory& memory) noexcept;

}  // namespace core
