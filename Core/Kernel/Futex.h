#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>

#include <climits>
#include <cstdint>

#include "Core/Kernel/SystemCall.h"

namespace core {

/// Sleeps while `word` holds `expected`, at most `nanoseconds`. It may also come back early:
/// look again. Fit for the crash path.
inline void futexWait(const std::uint32_t& word, std::uint32_t expected, std::int64_t nanoseconds) noexcept {
  const timespec timeout{static_cast<time_t>(nanoseconds / 1'000'000'000),
                         static_cast<long>(nanoseconds % 1'000'000'000)};
  systemCall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, expected, &timeout);
}

/// Wakes all that sleep on `word`. The kernel never refuses it; should anything else do so once, they
/// are woken all the same, since they might sleep for good.
inline void futexWake(const std::uint32_t& word) noexcept {
  if (systemCall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX) < 0) {
    systemCall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, INT_MAX);
  }
}

}  // namespace core
