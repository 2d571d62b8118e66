#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "Core/Kernel/ThreadFiles.h"

/// The threads that a crash, or a dump of all threads, found: names and addresses as they were
/// read, without any pointer, in room of a fixed size (1.2 MiB of address space). Reports are made
/// from it afterwards, that of a crash perhaps by another process.
///
/// Written by one thread. Each thread's entry is closed by a checksum of its own, so that what a
/// process had read before it was killed counts. What does not fit is dropped, the outermost frames of a
/// stack first; room for one more thread with a whole stack is kept for the crashed one. Fit for the crash path.
struct CrashSnapshot {
  static constexpr std::uint32_t kMostThreads = 4096;
  static constexpr std::uint32_t kMostAddresses = 128 * 1024;

  struct Thread {
    std::uint32_t port;        ///< core::threadPort
    std::uint32_t index;       ///< in the process's list
    std::uint32_t firstFrame;  ///< where in `addresses` its stack begins, innermost first
    std::uint32_t frameCount;
    core::ThreadName name;
    std::uint32_t check;  ///< of the rest and of the stack
  };

  std::uint32_t threadCount;
  std::uint32_t addressCount;
  Thread threads[kMostThreads];
  std::uint64_t addresses[kMostAddresses];

  struct Unmap {
    void operator()(CrashSnapshot* snapshot) const noexcept;
  };
  using Mapped = std::unique_ptr<CrashSnapshot, Unmap>;
  /// An empty one in memory of its own, nullptr where there is no room. Not on the crash path.
  static Mapped map() noexcept;

  void clearThreads() noexcept { threadCount = addressCount = 0; }
  /// False, and nothing changed, when the thread does not fit.
  bool appendThread(std::uint32_t port, std::uint32_t index, const core::ThreadName& name,
                    std::span<const std::uint64_t> stack, bool isCrashed) noexcept;

  /// Gives a thread that had none its stack after all.
  void setStack(Thread& thread, std::span<const std::uint64_t> stack, bool isCrashed) noexcept;

  std::span<Thread> allThreads() noexcept;
  std::span<const Thread> allThreads() const noexcept;
  /// Within the pool whatever the thread's numbers are.
  std::span<const std::uint64_t> stackOf(const Thread& thread) const noexcept;
  /// Whether the entry and its stack are as they were written.
  bool isWhole(const Thread& thread) const noexcept;

 private:
  std::uint32_t checkOf(const Thread& thread) const noexcept;
};
