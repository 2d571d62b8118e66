#pragma once

#include <cstdint>

namespace core {

/// Kernel facts of the calling process and thread. All are fit for a signal handler.
int processId() noexcept;
int threadId() noexcept;

/// Ends the process as `signal` would by default: action reset, signal unblocked and
/// raised; where that does not end it (the first process of a namespace), exit status 128 + signal.
[[noreturn]] void dieBySignal(int signal) noexcept;

/// Nanoseconds of the wall clock since 1970 and of the monotonic clock.
std::int64_t wallClockNanoseconds() noexcept;
std::int64_t monotonicNanoseconds() noexcept;

}  // namespace core
