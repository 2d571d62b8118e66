#pragma once

#include <optional>

#include "Core/Files/RecordLock.h"

/// The file of one process's journal: made whole on the disk before anybody sees it, held by a record lock
/// that ends with the process. Closing any other descriptor of it in this process would end the lock too.
class JournalFile {
 public:
  /// Names in the data directory of journals, and of those that are being made.
  static constexpr std::string_view kPrefix = ".journal_";
  static constexpr std::string_view kUnfinishedPrefix = "~journal_";

  /// Makes one of `size` bytes, all 0. Its blocks are allocated where the file system can do that.
  /// Fit for the crash path. errno on failure, nothing is left then.
  static core::Result<JournalFile, int> create(const core::String& directory, std::size_t size) noexcept;

  /// Opens one that another process left, and locks it. EAGAIN while that process lives; EPERM for one
  /// that is not a file of this user's alone; ENOENT for one that is gone, or is just being removed.
  static core::Result<JournalFile, int> take(const core::String& path) noexcept;

  const core::String& path() const noexcept { return path_; }
  const core::File& file() const noexcept { return lock_.file(); }

 private:
  JournalFile(core::String path, core::RecordLock lock) noexcept : path_(std::move(path)), lock_(std::move(lock)) {}

  core::String path_;
  core::RecordLock lock_;
};
