#pragma once

#include <cstdint>
#include <limits>

#include "Core/Kernel/Process.h"

namespace platform {

/// What a run loop measures time by. Nanoseconds that never go back, from any start.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual std::int64_t nanoseconds() const noexcept = 0;

  /// The machine's monotonic clock; never destroyed.
  static const Clock& monotonic() noexcept;
};

/// A moment that no clock reaches.
inline constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

/// A length of time; below 0 and not a number count as 0, beyond thirty years as thirty years.
constexpr std::int64_t nanosecondsOf(double seconds) noexcept {
  constexpr double kLongest = 1e9;
  if (!(seconds > 0)) {
    return 0;
  }
  return static_cast<std::int64_t>((seconds < kLongest ? seconds : kLongest) * 1e9);
}

inline const Clock& Clock::monotonic() noexcept {
  struct Monotonic final : Clock {
    std::int64_t nanoseconds() const noexcept override { return core::monotonicNanoseconds(); }
  };
  static const Clock* const clock = new Monotonic;
  return *clock;
}

}  // namespace platform
