#pragma once

#include <cstdint>
#include <optional>

#include "Kiv/crashhandler/persist/KivCrashMetaData.h"
#include "Platform/Foundation/PropertyListFile.h"

/// The crash index on disk, ".crash_meta.data": a property-list dictionary of crash hashes and the
/// archives of their entries. Several processes may share it, so nobody writes what it remembers:
/// changes are made to what the file holds by then. Callers hold the StoreLock.
///
/// A file that cannot be understood is set aside, under a name that the store's cleaning leaves
/// alone; one that cannot be opened is neither read nor written. Any thread and the crash path.
class CrashIndexFile {
 public:
  static constexpr std::string_view kName = ".crash_meta.data";

  using Entries = core::Dictionary<KivCrashMetaData>;
  /// An entry that was put, or nothing for one that was removed.
  struct Change {
    std::optional<KivCrashMetaData> entry;
    std::uint64_t number;  ///< changes are numbered as they are made
  };
  using Changes = core::Dictionary<Change>;

  explicit CrashIndexFile(const core::String& folder) noexcept;

  platform::StoredPropertyList read() const noexcept;

  /// Makes `changes` on what the file holds, and writes it unless that is the same. Where there is no
  /// file, or its content does not count any more, it gets all of `entries` with the changes. 0 or
  /// errno, ECANCELED for a file that must not be written.
  int merge(const Entries& entries, const Changes& changes, bool isContentObsolete) const noexcept;

  /// The entry that `value` archives: false, with a line in the log, when it does not.
  static bool decode(const core::Value& value, KivCrashMetaData& entry) noexcept;

  static Entries changed(const Entries& entries, const Changes& changes) noexcept;

 private:
  core::String path_;
  core::String aside_;
};
