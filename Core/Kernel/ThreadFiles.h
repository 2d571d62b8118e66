#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Core/Kernel/KernelSignal.h"

namespace core {

/// What the kernel shows of a thread without stopping it. All of it is fit for the crash path,
/// costs three system calls and may be out of date when it is answered.

/// The kernel's name of a thread: 15 bytes at most, ended by NUL.
struct ThreadName {
  char bytes[16];

  std::string_view view() const noexcept {
    const std::string_view all(bytes, sizeof bytes);
    return all.substr(0, all.find('\0'));
  }
};

/// Where a thread sleeps.
struct SleepingThread {
  long call;  ///< number of the system call, -1 when it sleeps elsewhere in the kernel (a page fault)
  std::uint64_t stackPointer;
  std::uint64_t instructionPointer;  ///< that of the instruction after the call
};

/// An empty name when there is no such thread.
ThreadName readThreadName(int thread) noexcept;

/// Nothing for a thread that runs, that is gone, or that may not be looked at.
std::optional<SleepingThread> readSleepingThread(int thread) noexcept;

/// The signals that a thread blocks; nothing when there is no such thread, or it has ended
/// but for its traces.
std::optional<KernelSignalSet> readBlockedSignals(int thread) noexcept;

/// The parsers of the kernel's texts, which its files "syscall" and "status" hold.
std::optional<SleepingThread> parseSleepingThread(std::string_view text) noexcept;
std::optional<KernelSignalSet> parseBlockedSignals(std::string_view text) noexcept;

}  // namespace core
