#pragma once

#include <signal.h>

/// What was in force for the signals before, as KivSigHandler keeps it.
struct PreviousActions {
  /// The action for `signal`, one of the six; nullptr when none were kept.
  static const struct sigaction* of(int signal) noexcept;
};

/// The installed action. The first crashing thread owns the crash: it collects and saves the
/// report, takes the handlers away and forwards the signal. Another thread waits for it to end the
/// process. A fault of the handling itself is handled once more, a third one ends the process.
void kiv_signal_handler(int sig, siginfo_t* info, void* context) noexcept;

/// Sets the six signals to their default actions and forgets the signal that was handled last.
void kiv_uninstall_signal_handler() noexcept;
