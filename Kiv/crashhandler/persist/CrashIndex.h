#pragma once

#include "Core/Memory/Published.h"
#include "Core/Memory/Shared.h"
#include "Kiv/crashhandler/persist/CrashIndexFile.h"

/// Which crashes are stored where: the entries that this process loaded, and what it changed since.
/// KivFilePersistHandler's; what other processes put is left to them, and kept in the file.
///
/// A change costs the same with one entry as with thousands, until it is written. Any thread and
/// the crash path, which waits for no lock: changes that another thread was about to write it writes itself.
class CrashIndex {
 public:
  using Entries = CrashIndexFile::Entries;

  explicit CrashIndex(const core::String& folder) noexcept : folder_(folder) {}

  /// Where the file lies from now on; what was loaded stays.
  void setFolder(const core::String& folder) noexcept { folder_.set(folder); }

  /// Takes over what the file holds, under the changes made so far.
  void load() noexcept;

  /// What the file holds is an older version's and does not count, until it is replaced or removed. For
  /// good after the first time.
  void setFileObsolete() noexcept;
  void fileWasRemoved() noexcept;
  bool isFileObsolete() const noexcept { return older_ == Older::kThere; }

  bool empty() const noexcept;
  Entries all() const noexcept;
  std::optional<KivCrashMetaData> find(std::string_view hash) const noexcept;
  /// The same, and where this process never had such an entry, the file's.
  std::optional<KivCrashMetaData> lookUp(std::string_view hash) const noexcept;

  void put(std::string_view hash, const KivCrashMetaData& entry) noexcept;
  void remove(const core::Array<core::String>& hashes) noexcept;

  /// Whether one of this process's entries calls its file `name`.
  bool names(std::string_view name) const noexcept;
  /// What all entries call their files, those of the file included; nothing when that cannot be read.
  using Names = core::Dictionary<bool>;
  std::optional<Names> allNames() const noexcept;

  /// Brings the changes into the file. False, with a line in the log, when that failed: they stay for
  /// the next time.
  bool write() noexcept;

 private:
  using Change = CrashIndexFile::Change;
  using Changes = CrashIndexFile::Changes;
  struct State {
    core::Shared<Entries> stored{Entries()};  // as they are in the file
    Changes changes;                          // that are not in there yet
    std::uint64_t lastNumber = 0;
  };
  enum class Older { kUnknown, kThere, kGone };

  template <class Matches>
  bool hasEntry(Matches&& matches) const noexcept;
  bool isChanged(std::string_view hash) const noexcept;
  int merge() noexcept;

  core::Published<core::String> folder_;
  core::Published<State> state_;
  std::atomic<Older> older_{Older::kUnknown};
  std::atomic<std::uint64_t> crashWrote_{~std::uint64_t{0}};  // the last change that a crash wrote
};
