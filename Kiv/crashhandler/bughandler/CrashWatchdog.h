#pragma once

#include <cstdint>

/// Ends a crash whose handling does not come to its end.
///
/// A library thread sleeps from installation on; arming wakes it, and when the time is up it
/// ends the process by the original signal. Where that thread does not run (a forked child, a
/// stopped scheduler), a timer on the crashing thread does the same.
class CrashWatchdog {
 public:
  /// What all of the handling may take, and the program's callback in it, in nanoseconds.
  static constexpr std::int64_t kHandlingTime = 2'500'000'000;
  static constexpr std::int64_t kCallbackTime = 1'000'000'000;

  /// Starts the thread and takes the timer's signal; once a process. Not on the crash path.
  static bool prepare() noexcept;

  /// Starts the count for the calling thread, which handles `signal`.
  static void arm(int signal) noexcept;
  static void release() noexcept;

  /// Gives a part of the handling less time while it lives. Owner of the crash.
  class Limit {
   public:
    explicit Limit(std::int64_t nanoseconds) noexcept;
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
    ~Limit();

   private:
    std::int64_t outer_;
  };

  /// Ends the process where the time is up and nobody did: should even the call have hung that wakes the
  /// thread. For whoever comes by now and then.
  static void endIfOverdue() noexcept;

  /// What the timer sends; arming unblocks it.
  static int timerSignal() noexcept;
};
