#pragma once

#include "Core/Files/File.h"

namespace core {

/// A whole-file record lock between processes. It belongs to the process and dies with it;
/// two of one process do not exclude each other, and closing any other descriptor of the
/// same file drops it: open a lock file through this class alone.
class RecordLock {
 public:
  enum class Mode { kTry, kWait };

  /// Opens (making it, 0600) and locks `path`. EAGAIN when another process holds it and `mode`
  /// is kTry.
  static Result<RecordLock, int> acquire(const String& path, Mode mode) noexcept;
  /// The same for a file that is open for writing, and stays so as long as it is locked.
  static Result<RecordLock, int> acquire(File file, Mode mode) noexcept;

  const File& file() const noexcept { return file_; }

 private:
  explicit RecordLock(File file) noexcept : file_(std::move(file)) {}
  File file_;
};

}  // namespace core
