#include "Core/Kernel/OwnMemory.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <atomic>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

/// The process that opened the memory file (upper half) and the descriptor: one that a fork
/// hands down still reads the parent.
std::atomic<std::uint64_t> memoryFile{0};

int descriptorIn(std::uint64_t known) noexcept {
  return static_cast<int>(known & 0xFFFFFFFFU);
}

int memoryDescriptor() noexcept {
  const auto process = static_cast<std::uint32_t>(processId());
  std::uint64_t known = memoryFile.load(std::memory_order_relaxed);
  if (known >> 32 == process) {
    return descriptorIn(known);
  }
  const long opened = restartedSystemCall(SYS_openat, AT_FDCWD, "/proc/thread-self/mem", O_RDONLY | O_CLOEXEC);
  if (opened < 0) {
    return -1;
  }
  const std::uint64_t made = std::uint64_t{process} << 32 | static_cast<std::uint64_t>(opened);
  if (!memoryFile.compare_exchange_strong(known, made, std::memory_order_relaxed)) {
    systemCall(SYS_close, opened);
    return descriptorIn(known);
  }
  return static_cast<int>(opened);
}

}  // namespace

// By thread: once the first thread has ended, the process's id stands for no memory any more.
bool readOwnMemory(std::uint64_t address, void* into, std::size_t size) noexcept {
  const iovec local{into, size};
  const iovec remote{reinterpret_cast<void*>(address), size};
  long count = systemCall(SYS_process_vm_readv, threadId(), &local, 1, &remote, 1, 0);
  if (count == -EPERM || count == -ENOSYS) {
    const int descriptor = memoryDescriptor();
    count = descriptor < 0 ? -EBADF : restartedSystemCall(SYS_pread64, descriptor, into, size, address);
  }
  return count >= 0 && static_cast<std::size_t>(count) == size;
}

}  // namespace core
