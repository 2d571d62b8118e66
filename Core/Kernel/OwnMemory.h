#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace core {

/// Reads of the own process's memory that fail instead of faulting, each of them one counted
/// system call. Where the kernel forbids the call for that, the process's memory file is read,
/// which stays open from the first such read on. Fit for the crash path.
///
/// An object belongs to the thread that made it (it saves asking the kernel who that is) and
/// is not to be kept over a fork.
class OwnMemory {
 public:
  OwnMemory() noexcept;

  /// Copies `size` bytes at `address`; false when any of them cannot be read.
  bool read(std::uint64_t address, void* into, std::size_t size) const noexcept {
    return readFront(address, into, size) == size;
  }

  /// Copies as many of the `size` bytes from `address` on as can be read, up to the first page
  /// that cannot; answers how many.
  std::size_t readFront(std::uint64_t address, void* into, std::size_t size) const noexcept;

  /// Copies the pieces one after the other; false when any byte of them cannot be read.
  bool gather(std::span<const iovec> pieces, void* into, std::size_t size) const noexcept;

 private:
  int thread_;
};

/// One read by whichever thread calls.
inline bool readOwnMemory(std::uint64_t address, void* into, std::size_t size) noexcept {
  return OwnMemory().read(address, into, size);
}

}  // namespace core
