#pragma once

#include <signal.h>

namespace core {

/// The action of the suspension signal: writes the interrupted context into the slot that the
/// signal names, waits there until let go, and repairs the system call that it interrupted.
/// A signal whose generation has passed is not waited for. All signals are to be blocked.
void onSuspensionSignal(int signal, siginfo_t* info, void* context) noexcept;

/// Where the kernel lets the handler return to: the call that restores the context.
extern "C" void kivReturnFromSuspension();

}  // namespace core
