#pragma once

#include <cstdint>
#include <string_view>

/// Counts the counted system calls of one thread for the test (see PathReport) and interferes with the
/// n-th of one kind, which unlike the n-th of all is the same call every time. Part of the victims alone; calls of
/// other threads pass.
class PathProbe {
 public:
  static constexpr long kAnyKind = -1;

  /// From now on, for the calling thread. `act` is "count" for nothing, "ENOSPC", "EMFILE" or "EFAULT" for a
  /// failure, "hang" for a call that does not return, "kill" for the end of the process, "fault" and
  /// "same-fault" for a write beside null and to null. `kind` is the number of a system call. False for any
  /// other act.
  static bool start(std::string_view act, long kind, std::uint32_t n);
};
