#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Core/Kernel/ThreadFiles.h"
#include "Core/Memory/Array.h"

namespace core {

/// The number under which reports and records speak of a thread. Kernel ids are consecutive,
/// while readers of ports take those that differ in the low 8 bits for one thread.
constexpr std::uint32_t threadPort(int thread) noexcept {
  return static_cast<std::uint32_t>(thread) * 256 + 3;
}
constexpr int threadOfPort(std::uint32_t port) noexcept {
  return static_cast<int>(port / 256);
}

/// The threads of the process as the kernel lists them: the main thread first, then by kernel id.
/// Fit for the crash path, whose owner reads the directory opened ahead; make the list before a
/// thread is suspended, since it allocates.
class ThreadList {
 public:
  /// Opens what the crash path reads and notes the process's short name. Normal running only.
  static void prepare() noexcept;

  static ThreadList read() noexcept;

  std::span<const int> threads() const noexcept { return {threads_.data(), threads_.size()}; }

  /// False when there was no process file system: the list then holds the calling thread alone.
  bool isComplete() const noexcept { return isComplete_; }

 private:
  Array<int> threads_;
  bool isComplete_ = true;
};

/// The name to be reported: threads inherit the process's short name, which therefore counts as none.
std::string_view reportedThreadName(const ThreadName& name) noexcept;

}  // namespace core
