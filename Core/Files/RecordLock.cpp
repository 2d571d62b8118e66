#include "Core/Files/RecordLock.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include "Core/Kernel/SystemCall.h"

namespace core {

Result<RecordLock, int> RecordLock::acquire(const String& path, Mode mode) noexcept {
  auto file = File::open(path, O_RDWR | O_CREAT);
  if (!file) {
    return file.error();
  }
  return acquire(std::move(*file), mode);
}

Result<RecordLock, int> RecordLock::acquire(File file, Mode mode) noexcept {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  const int operation = mode == Mode::kWait ? F_SETLKW : F_SETLK;
  const int error = errorOf(restartedSystemCall(SYS_fcntl, file.descriptor(), operation, &whole));
  if (error != 0) {
    return error == EACCES ? EAGAIN : error;
  }
  return RecordLock(std::move(file));
}

}  // namespace core
