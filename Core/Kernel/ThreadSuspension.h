#pragma once

namespace core {

/// The signal that stops threads of this process so that their stacks can be read; see
/// SuspensionRound for its use.
class ThreadSuspension {
 public:
  /// Reserved for this, near the upper end where programs rarely look. A thread should not block
  /// it; one that does is seen from outside only.
  static constexpr int kSignal = 61;

  /// Takes the signal. 0 (also when it is ours already), EBUSY when the program uses it, else
  /// errno. Normal running only.
  static int install() noexcept;

  /// Whether the signal is still ours; sent otherwise, it would end the process.
  static bool isInstalled() noexcept;

  /// Lets all held threads go, whoever holds them, and forgets those that are still to come: for the owner of a crash,
  /// when its handling ends or has itself faulted.
  static void resumeAll() noexcept;
};

}  // namespace core
