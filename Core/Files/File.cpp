#include "Core/Files/File.h"

#include <fcntl.h>
#include <linux/stat.h>
#include <sys/random.h>
#include <sys/syscall.h>

#include <algorithm>

#include "Core/Files/Directory.h"
#include "Core/Files/SpareDescriptor.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Text/Uuid.h"

namespace core {
namespace {

constexpr std::size_t kReadBlock = 4096;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
/// Of a temporary name's 255 bytes, so that a file with the longest name can be replaced too.
constexpr std::size_t kKeptOfName = 200;
constexpr int kNameAttempts = 16;

std::int64_t nanoseconds(const statx_timestamp& time) noexcept {
  return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

Result<FileFacts, int> factsOf(int directory, const char* path, int flags) noexcept {
  struct statx found {};
  const long result = restartedSystemCall(SYS_statx, directory, path, flags, STATX_BASIC_STATS | STATX_BTIME, &found);
  if (result < 0) {
    return errorOf(result);
  }
  const auto type = found.stx_mode & S_IFMT;
  const bool hasBirth = (found.stx_mask & STATX_BTIME) != 0;
  return FileFacts{.isDirectory = type == S_IFDIR,
                   .isRegular = type == S_IFREG,
                   .size = found.stx_size,
                   .mode = found.stx_mode & 07777U,
                   .owner = found.stx_uid,
                   .modified = nanoseconds(found.stx_mtime),
                   .created = nanoseconds(hasBirth ? found.stx_btime : found.stx_mtime)};
}

Result<FileFacts, int> factsOf(const File& file) noexcept {
  return factsOf(file.descriptor(), "", AT_EMPTY_PATH);
}

/// A name beside `path` that no other writer chooses at the same time.
String temporaryPath(const String& path) noexcept {
  std::uint8_t random[8];
  if (systemCall(SYS_getrandom, random, sizeof random, GRND_NONBLOCK) != sizeof random) {
    const auto substitute = static_cast<std::uint64_t>(monotonicNanoseconds()) ^ (std::uint64_t(threadId()) << 40);
    std::memcpy(random, &substitute, sizeof random);
  }
  StringBuilder name;
  name.append('~');
  name.append(lowerHex(random));
  name.append(lastPathComponent(path).substr(0, kKeptOfName));
  return joinPath(parentPath(path), name.view());
}

int writeAndClose(File file, std::span<const std::uint8_t> bytes, Durability durability) noexcept {
  int error = file.write(bytes);
  if (error == 0 && durability == Durability::kSynced) {
    error = file.sync();
  }
  const int closeError = file.close();
  return error != 0 ? error : closeError;
}

/// Best effort: not every file system syncs directories, and the rename is done by now.
void syncDirectory(std::string_view path) noexcept {
  if (const auto directory = File::open(path.empty() ? "." : String(path), O_RDONLY | O_DIRECTORY)) {
    directory->sync();
  }
}

}  // namespace

Result<File, int> File::open(const String& path, int flags, unsigned mode) noexcept {
  const auto attempt = [&] { return restartedSystemCall(SYS_openat, AT_FDCWD, path.c_str(), flags | O_CLOEXEC, mode); };
  long result = attempt();
  if (result == -EMFILE && CrashOwner::isCurrentThread() && SpareDescriptor::giveUp()) {
    result = attempt();
  }
  if (result < 0) {
    return errorOf(result);
  }
  return File(static_cast<int>(result));
}

File::File(File&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

File& File::operator=(File&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  return *this;
}

File::~File() {
  close();
}

// Never restarted: the kernel has given the descriptor up even when it says EINTR.
int File::close() noexcept {
  const int descriptor = std::exchange(descriptor_, -1);
  const int error = descriptor >= 0 ? errorOf(systemCall(SYS_close, descriptor)) : 0;
  return error == EINTR ? 0 : error;
}

Result<Data, int> File::readAll(std::size_t limit) const noexcept {
  // Room for one byte more than expected finds the end without growing; files of /proc have no size.
  const auto facts = factsOf(*this);
  const std::size_t expected = std::min<std::size_t>(facts && facts->size != 0 ? facts->size : kReadBlock, limit);
  StringBuilder content(expected + 1);
  for (;;) {
    const std::size_t before = content.size();
    const std::size_t most = before <= expected ? expected - before : std::min(kReadBlock, limit - before);
    char* room = content.extend(most + 1);
    const long count = restartedSystemCall(SYS_read, descriptor_, room, most + 1);
    if (count < 0) {
      return errorOf(count);
    }
    content.truncate(before + static_cast<std::size_t>(count));
    if (content.size() > limit) {
      return EFBIG;
    }
    if (count == 0) {
      return Data(content.view().data(), content.size());
    }
  }
}

int File::write(std::span<const std::uint8_t> bytes) const noexcept {
  while (!bytes.empty()) {
    const long count = restartedSystemCall(SYS_write, descriptor_, bytes.data(), bytes.size());
    if (count <= 0) {
      return count < 0 ? errorOf(count) : EIO;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return 0;
}

int File::sync() const noexcept {
  return errorOf(restartedSystemCall(SYS_fsync, descriptor_));
}

Result<FileFacts, int> fileFacts(const String& path) noexcept {
  return factsOf(AT_FDCWD, path.c_str(), 0);
}

bool fileExists(const String& path) noexcept {
  return static_cast<bool>(fileFacts(path));
}

Result<Data, int> readFile(const String& path, std::size_t limit) noexcept {
  const auto file = File::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file) {
    return file.error() == ENXIO ? EINVAL : file.error();  // ENXIO: a socket, or a device that is not there
  }
  const auto facts = factsOf(*file);
  if (!facts) {
    return facts.error();
  }
  if (!facts->isRegular) {
    return facts->isDirectory ? EISDIR : EINVAL;
  }
  if (facts->size > limit) {
    return EFBIG;
  }
  return file->readAll(limit);
}

int writeFileAtomically(const String& path, std::span<const std::uint8_t> bytes, unsigned mode,
                        Durability durability) noexcept {
  for (int attempt = 0;; ++attempt) {
    const String temporary = temporaryPath(path);
    auto file = File::open(temporary, O_WRONLY | O_CREAT | O_EXCL, mode);
    if (!file) {
      if (file.error() == EEXIST && attempt < kNameAttempts) {
        continue;
      }
      return file.error();
    }
    int error = writeAndClose(std::move(*file), bytes, durability);
    if (error == 0) {
      error = renameFile(temporary, path);
    }
    if (error != 0) {
      removeFile(temporary);
      return error;
    }
    if (durability == Durability::kSynced) {
      syncDirectory(parentPath(path));
    }
    return 0;
  }
}

int removeFile(const String& path) noexcept {
  return errorOf(restartedSystemCall(SYS_unlinkat, AT_FDCWD, path.c_str(), 0));
}

int renameFile(const String& from, const String& to) noexcept {
  return errorOf(restartedSystemCall(SYS_renameat, AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str()));
}

}  // namespace core
