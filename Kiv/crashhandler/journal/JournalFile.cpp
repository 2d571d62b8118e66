#include "Kiv/crashhandler/journal/JournalFile.h"

#include <fcntl.h>
#include <linux/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Core/Files/Directory.h"
#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"
#include "Core/Text/Format.h"

namespace {

constexpr unsigned kOthersMayDo = 0077;

int reserve(const core::File& file, std::size_t size) noexcept {
  const int error = core::errorOf(core::restartedSystemCall(SYS_fallocate, file.descriptor(), 0, 0, size));
  // Without blocks of its own, a disk that is full by the time of the crash costs the journal.
  return error == EOPNOTSUPP || error == ENOSYS
             ? core::errorOf(core::restartedSystemCall(SYS_ftruncate, file.descriptor(), size))
             : error;
}

/// 0 for a file that this user alone can have written and that still has a name.
int faultOf(const core::File& file) noexcept {
  struct statx found {};
  const long result =
      core::restartedSystemCall(SYS_statx, file.descriptor(), "", AT_EMPTY_PATH, STATX_BASIC_STATS, &found);
  if (result < 0) {
    return core::errorOf(result);
  }
  const bool isOwn =
      (found.stx_mode & S_IFMT) == S_IFREG && found.stx_uid == geteuid() && (found.stx_mode & kOthersMayDo) == 0;
  return !isOwn ? EPERM : found.stx_nlink == 0 ? ENOENT : 0;
}

}  // namespace

core::Result<JournalFile, int> JournalFile::create(const core::String& directory, std::size_t size) noexcept {
  const core::String name = core::kiv_format("%d_%llx", core::processId(), core::wallClockNanoseconds());
  const core::String unfinished = core::joinPath(directory, core::kiv_format("%@%@", kUnfinishedPrefix, name));
  auto file = core::File::open(unfinished, O_RDWR | O_CREAT | O_EXCL);
  if (!file) {
    return file.error();
  }
  int error = reserve(*file, size);
  const core::String path = core::joinPath(directory, core::kiv_format("%@%@", kPrefix, name));
  if (error == 0) {
    auto lock = core::RecordLock::acquire(std::move(*file), core::RecordLock::Mode::kTry);
    error = lock ? core::renameFile(unfinished, path) : lock.error();
    if (error == 0) {
      return JournalFile(path, std::move(*lock));
    }
  }
  core::removeFile(unfinished);
  return error;
}

core::Result<JournalFile, int> JournalFile::take(const core::String& path) noexcept {
  auto file = core::File::open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (!file) {
    return file.error() == ELOOP || file.error() == EISDIR || file.error() == ENXIO ? EPERM : file.error();
  }
  if (const int fault = faultOf(*file); fault != 0) {
    return fault;
  }
  auto lock = core::RecordLock::acquire(std::move(*file), core::RecordLock::Mode::kTry);
  if (!lock) {
    return lock.error();
  }
  // The process that removed it may have had the lock until now.
  if (const int fault = faultOf(lock->file()); fault != 0) {
    return fault;
  }
  return JournalFile(path, std::move(*lock));
}
