#pragma once

#include <cstdint>

/// Ends a crash whose handling does not come to its end.
///
/// A library thread sleeps from installation on; arming wakes it, and when the time is up it
/// ends the process by the original signal. Where that thread does not run (a forked child, a
/// stopped scheduler), a timer on the crashing thread does the same.
class CrashWatchdog {
 public:
  /// What all of the handling may take, in nanoseconds.
  static constexpr std::int64_t kHandlingTime = 2'500'000'000;

  /// Starts the thread and takes the timer's signal; once a process. Not on the crash path.
  static bool prepare() noexcept;

  /// Starts the count for the calling thread, which handles `signal`.
  static void arm(int signal) noexcept;
  static void release() noexcept;

  /// What the timer sends; arming unblocks it.
  static int timerSignal() noexcept;
};
