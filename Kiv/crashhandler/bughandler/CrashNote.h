#pragma once

#include <signal.h>

#include "Core/Memory/Array.h"
#include "Core/Memory/String.h"

/// The text file that a crash leaves in the data directory: time, signal, registers and the
/// place of the fault. One file a crash, "crash_<time>_<process id>.txt".
class CrashNote {
 public:
  /// Remembers where to write and which images are loaded. At installation.
  static void prepare(const core::String& directory) noexcept;

  /// Writes the note of the crash that `info` and the signal context describe. On the crash
  /// path; false when nothing could be written.
  static bool write(const siginfo_t& info, const void* context) noexcept;

  /// Moves the notes of earlier runs in `directory` to "seen_…", keeping the ten newest of
  /// those, and answers the newest found. Notes that cannot be moved are answered again.
  static std::optional<core::String> takeNewest(const core::String& directory) noexcept;
};
