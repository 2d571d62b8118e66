#pragma once

#include "Core/Memory/String.h"
#include "Kiv/crashhandler/journal/JournalFields.h"

/// Keeps the parts of this process's journal as the process stands: who reports, which program files are
/// in memory, what the program told. Some microseconds a change, on the thread that makes it.
class JournalKeeper {
 public:
  /// Makes the journal in `directory` and keeps it from now on; once a process, at installation.
  static void start(const core::String& directory) noexcept;

  /// All parts as they stand. Fit for the crash path.
  static void keepAll() noexcept;
  static void keepIdentity() noexcept;
  /// What the floor above keeps, by that function from now on.
  static void keepSettings(void (*write)(JournalFieldWriter&)) noexcept;
  /// The exception that is about to end the process.
  static void keepException() noexcept;
};
