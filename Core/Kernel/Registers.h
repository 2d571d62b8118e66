#pragma once

#include <ucontext.h>

#include <array>
#include <cstdint>

namespace core {

/// The general registers of a stopped thread, numbered as call-frame information numbers
/// them. Fit for the crash path.
struct Registers {
  enum Number : unsigned {
    kRax,
    kRdx,
    kRcx,
    kRbx,
    kRsi,
    kRdi,
    kRbp,
    kRsp,
    kR8,
    kR9,
    kR10,
    kR11,
    kR12,
    kR13,
    kR14,
    kR15
  };
  static constexpr unsigned kGeneral = 16;
  /// The column of the return address, the register after the general ones.
  static constexpr unsigned kReturnAddress = 16;

  std::array<std::uint64_t, kGeneral> general{};
  std::uint64_t instructionPointer = 0;

  std::uint64_t operator[](Number number) const noexcept { return general[number]; }
  std::uint64_t& operator[](Number number) noexcept { return general[number]; }
};

/// The registers in the context that the kernel hands to a signal handler.
Registers registersOf(const mcontext_t& context) noexcept;

}  // namespace core
