#pragma once

#include "Core/Memory/String.h"
#include "Kiv/crashhandler/recovery/RecoveredCrash.h"

/// Finds what processes left in a data directory that died before their crash was reported, and reports it
/// in their place. Journals of processes that live are left alone. Normal running, any thread.
class JournalRecovery {
 public:
  /// Stores a crash for good, or finds that it is stored already: it may have been so by the process
  /// itself, or by a start that died after it. False to be asked again at the next start.
  using Report = bool (*)(const RecoveredCrash& crash);

  /// Journals that have been reported, or hold no crash, are removed; what cannot be understood, and
  /// what has been tried in vain three times, becomes "….broken-TIME".
  static void run(const core::String& directory, Report report) noexcept;
};
