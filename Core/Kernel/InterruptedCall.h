#pragma once

#include <ucontext.h>

#include <cstdint>

namespace core {

/// What was read of a thread just before it was interrupted: in which system call it slept.
struct CallAhead {
  long number;  ///< -1 when it was not seen to sleep in one
  std::uint64_t stackPointer;
  std::uint64_t instructionPointer;
};

/// Makes the system call that the calling signal handler has interrupted start over when the
/// handler returns, as if the signal had not been. For those calls that the kernel does not
/// start over itself and that may safely be; others keep their EINTR, and so do all when
/// another signal with a handler waits for this one to return.
///
/// A relative time-out starts over too, save where the call writes back what is left (select,
/// ppoll; nanosleep with one variable for both): the call may then end late by the time that had gone by.
///
/// Called in a signal handler that blocks all signals. Uninstrumented.
void repairInterruptedCall(ucontext_t& context, const CallAhead& ahead) noexcept;

/// Bytes of code looked at before an instruction pointer.
inline constexpr int kCodeBefore = 24;

/// The number that the code loads before its `syscall` instruction, which ends the bytes; other
/// arguments may be fetched from the stack in between. -1 when the number cannot be told, as in
/// a wrapper that is handed it, or the bytes do not end so. Uninstrumented.
long callNumberInCode(const std::uint8_t (&code)[kCodeBefore]) noexcept;

}  // namespace core
