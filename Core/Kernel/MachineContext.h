#pragma once

#include <ucontext.h>

namespace core {

/// The whole state of a processor as a signal handler is shown it, with a float state of its own.
///
/// `machine.gregs` holds the general registers and the exception state: REG_TRAPNO, REG_ERR and
/// REG_CR2 are those of the last fault that the thread had, 0 before any. `machine.fpregs` points to
/// `floats` (the first 512 bytes of the float state: x87 and SSE registers), or to nothing when
/// that could not be read.
struct MachineContext {
  MachineContext() noexcept = default;
  MachineContext(const MachineContext&) = delete;
  MachineContext& operator=(const MachineContext&) = delete;

  mcontext_t machine{};
  alignas(16) _libc_fpstate floats{};
};

/// The general registers of the calling thread as they are when this call has returned to its
/// caller, whose frame they belong to. rax, rcx, rdx, rsi, rdi and r8 to r11 hold what the call
/// left in them. Floats and exception state are left alone. Fit for the crash path.
extern "C" void kivCaptureRegisters(greg_t* registers) noexcept;

/// The same with the float state.
[[gnu::always_inline]] inline void captureContext(MachineContext& context) noexcept {
  asm volatile("fxsave64 %0" : "=m"(context.floats));
  context.machine.fpregs = &context.floats;
  kivCaptureRegisters(context.machine.gregs);
}

}  // namespace core
