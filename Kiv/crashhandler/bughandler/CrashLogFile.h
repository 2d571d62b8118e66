#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Core/Memory/String.h"

/// The crash log as a file in the data directory, where the next start finds it: one a crash,
/// "crash_<time>_<process id>.txt".
class CrashLogFile {
 public:
  /// Remembers where to write, and keeps a descriptor for it. At installation.
  static void prepare(const core::String& directory) noexcept;

  /// Writes the log of a crash of `seconds` since 1970 in a process, whole or not at all, and syncs
  /// it. Fit for the crash path; false when it could not be written.
  static bool write(std::string_view log, std::int64_t seconds, int process) noexcept;
  /// Whether it is there, seen or not.
  static bool exists(std::int64_t seconds, int process) noexcept;

  /// Moves the logs of earlier runs in `directory` to "seen_…", keeping the ten newest of
  /// those, and answers the newest found. Logs that cannot be moved are answered again.
  static std::optional<core::String> takeNewest(const core::String& directory) noexcept;
};
