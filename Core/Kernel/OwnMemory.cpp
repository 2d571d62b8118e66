#include "Core/Kernel/OwnMemory.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
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

bool isForbidden(long result) noexcept {
  return result == -EPERM || result == -ENOSYS;
}

/// The bytes of a result, 0 for an error.
std::size_t countIn(long result) noexcept {
  return result > 0 ? static_cast<std::size_t>(result) : 0;
}

long readFile(std::uint64_t address, void* into, std::size_t size) noexcept {
  const int descriptor = memoryDescriptor();
  return descriptor < 0 ? -EBADF : restartedSystemCall(SYS_pread64, descriptor, into, size, address);
}

}  // namespace

// By thread: once the first thread has ended, the process's id stands for no memory any more.
OwnMemory::OwnMemory() noexcept : thread_(threadId()) {}

std::size_t OwnMemory::readFront(std::uint64_t address, void* into, std::size_t size) const noexcept {
  const iovec local{into, size};
  const iovec remote{reinterpret_cast<void*>(address), size};
  long count = systemCall(SYS_process_vm_readv, thread_, &local, 1, &remote, 1, 0);
  if (isForbidden(count)) {
    count = readFile(address, into, size);
  }
  return countIn(count);
}

bool OwnMemory::gather(std::span<const iovec> pieces, void* into, std::size_t size) const noexcept {
  const iovec local{into, size};
  const long count = systemCall(SYS_process_vm_readv, thread_, &local, 1, pieces.data(), pieces.size(), 0);
  if (!isForbidden(count)) {
    return countIn(count) == size;
  }
  char* at = static_cast<char*>(into);
  return std::all_of(pieces.begin(), pieces.end(), [&at](const iovec& piece) {
    char* const place = at;
    at += piece.iov_len;
    return countIn(readFile(reinterpret_cast<std::uint64_t>(piece.iov_base), place, piece.iov_len)) == piece.iov_len;
  });
}

}  // namespace core
