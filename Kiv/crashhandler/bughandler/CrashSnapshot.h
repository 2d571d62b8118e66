#pragma once

#include <ucontext.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "Core/Kernel/ThreadFiles.h"

/// What a crash, or a dump of all threads, found: numbers and names as they were read, without any
/// pointer, in room of a fixed size (1.2 MiB of address space). Reports are made from it afterwards.
///
/// Written by one thread. What does not fit is dropped, the outermost frames of a stack first; room
/// for one more thread with a whole stack is kept for the crashed one. Fit for the crash path.
struct CrashSnapshot {
  static constexpr std::uint32_t kMostThreads = 4096;
  static constexpr std::uint32_t kMostAddresses = 128 * 1024;

  /// The crash itself; all 0 in a dump.
  struct Facts {
    std::int64_t time;          ///< milliseconds since 1970
    std::uint64_t address;      ///< of the fault, 0 where the signal has none
    std::int32_t signal;        ///< si_signo
    std::int32_t code;          ///< si_code
    std::int32_t error;         ///< si_errno
    std::uint32_t count;        ///< of entries into the handler, this one included
    std::uint32_t crashThread;  ///< port
    std::uint32_t unused;       ///< 0
    gregset_t registers;        ///< of the crashed thread, REG_R8 to REG_CR2
  };

  struct Thread {
    std::uint32_t port;        ///< core::threadPort
    std::uint32_t index;       ///< in the process's list
    std::uint32_t firstFrame;  ///< where in `addresses` its stack begins, innermost first
    std::uint32_t frameCount;
    core::ThreadName name;
  };

  Facts facts;
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
};
