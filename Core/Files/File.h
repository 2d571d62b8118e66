#pragma once

#include <cstdint>
#include <span>

#include "Core/Memory/Bytes.h"
#include "Core/Memory/Result.h"
#include "Core/Memory/String.h"

namespace core {

/// An open file; closed with the object. All operations go through counted system calls,
/// are fit for the crash path, restart when interrupted and answer errors as errno values.
class File {
 public:
  static Result<File, int> open(const String& path, int flags, unsigned mode = 0600) noexcept;

  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  ~File();

  int descriptor() const noexcept { return descriptor_; }
  /// Everything from the current position on, EFBIG when that is more than `limit` bytes.
  Result<Data, int> readAll(std::size_t limit) const noexcept;
  /// 0 or errno; continues after short writes.
  int write(std::span<const std::uint8_t> bytes) const noexcept;
  int sync() const noexcept;
  /// Closes ahead of the destructor. 0 or errno: some file systems tell of a full disk only here.
  int close() noexcept;

 private:
  explicit File(int descriptor) noexcept : descriptor_(descriptor) {}
  int descriptor_;
};

/// What the file system says of a path (symbolic links followed). Times in nanoseconds since 1970.
struct FileFacts {
  bool isDirectory;
  bool isRegular;
  std::uint64_t size;
  unsigned mode;  ///< permission bits
  unsigned owner;
  std::int64_t modified;
  std::int64_t created;  ///< birth time, the modification time where the file system keeps none
};

Result<FileFacts, int> fileFacts(const String& path) noexcept;
bool fileExists(const String& path) noexcept;

/// The whole file; EFBIG when it is larger than `limit`, EISDIR for a directory, EINVAL for
/// anything else that is not a regular file (never waits on a pipe).
Result<Data, int> readFile(const String& path, std::size_t limit = std::size_t{64} << 20) noexcept;

enum class Durability {
  kPageCache,  ///< outlives the process
  kSynced      ///< the content is on the disk before it takes the name
};

/// Replaces `path` in one step: a reader sees the old content or the new, a failure leaves the
/// old in place and no temporary file behind. Temporary names begin with "~" in the same
/// directory. 0 or errno.
int writeFileAtomically(const String& path, std::span<const std::uint8_t> bytes, unsigned mode = 0600,
                        Durability durability = Durability::kPageCache) noexcept;

int removeFile(const String& path) noexcept;
int renameFile(const String& from, const String& to) noexcept;

}  // namespace core
