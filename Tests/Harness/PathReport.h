#pragma once

#include <array>
#include <atomic>
#include <cstdint>

/// What a victim tells its test by shared memory while it dies: the counted system calls that the crash path
/// has made, the one that is about to be made included. The memory is a descriptor that the victim inherits,
/// whose number kVariable tells.
struct PathReport {
  static constexpr const char* kVariable = "KIV_PATH_REPORT";
  static constexpr std::size_t kKinds = 512;

  std::atomic<std::uint32_t> calls;
  std::array<std::atomic<std::uint32_t>, kKinds> callsOfKind;  ///< by the number of the system call
};
