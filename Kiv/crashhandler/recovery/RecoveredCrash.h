#pragma once

#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/ReporterIdentity.h"
#include "Kiv/crashhandler/journal/JournalFields.h"
#include "Kiv/crashhandler/journal/JournalView.h"
#include "Kiv/crashhandler/recovery/DeadAddresses.h"

/// The crash that a journal tells of, put into crash data and text by what does that for a crash of
/// this process. Whatever is missing there is missing here, and nothing else. Normal running only.
class RecoveredCrash {
 public:
  /// Whether there is one: an entry into the handler, or an exception that nobody caught, which
  /// nobody has reported.
  static bool isIn(const JournalView& journal) noexcept;

  explicit RecoveredCrash(const JournalView& journal,
                          DeadAddresses::Files files = DeadAddresses::Files::kRead) noexcept;

  /// A part that the floor above wrote; as it is made where the part is missing.
  template <class T>
  T read(JournalPart part) const noexcept {
    T value{};
    JournalFieldReader(journal_.bytesOf(part)).take(value);
    return value;
  }
  /// The name that the report was to go by.
  core::String uid() const noexcept;

  const KivCrashData& data() const noexcept { return data_; }  ///< with the text
  const ReporterIdentity& identity() const noexcept { return identity_; }

 private:
  void addThreads(DeadAddresses& source) noexcept;
  void addLog() noexcept;

  const JournalView journal_;
  ReporterIdentity identity_;
  KivBinaryImageCollector::Images images_;
  KivCrashData data_;
};
