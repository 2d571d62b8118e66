#pragma once

#include <ucontext.h>

#include <array>
#include <cstdint>
#include <span>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Kiv/crashhandler/bughandler/StackBlock.h"
#include "Kiv/crashhandler/journal/CrashSnapshot.h"

/// Reads names and stacks of threads into a snapshot, one after the other and with one frame buffer
/// for all of them. Each stands for the copy of its own stack only, or for its own walk where a copy will
/// not do, while the next ones are asked already. No text is made of anything here. Fit for the crash path; in normal
/// running another round is waited for.
class ThreadCapture {
 public:
  /// What is special about some of the threads.
  struct Request {
    const mcontext_t* context = nullptr;       ///< shows the crashed thread's stack, if given
    std::uint32_t crashThread = 0;             ///< its port
    std::span<const std::uint32_t> running{};  ///< ports of threads that are not stopped for their walk
  };

  /// Ports that differ in the low 8 bits only are taken for one thread.
  static bool isSameThread(std::uint32_t port, std::uint32_t other) noexcept { return (port ^ other) <= 255; }

  ThreadCapture(CrashSnapshot& snapshot, const Request& request) noexcept;

  /// Threads by the kernel's ids, in the order in which they are to stand; those before are dropped.
  void run(std::span<const int> threads) noexcept;

 private:
  /// How many entries of the buffer are cleared for a thread. Those behind them that a deeper
  /// thread left become part of a later stack that comes up to them: on purpose.
  static constexpr std::size_t kCleared = 32;

  /// Nanoseconds for another look at threads without a stack.
  static constexpr std::int64_t kSecondPatience = 150'000'000;

  void readAll(std::span<const int> threads) noexcept;
  void append(std::uint32_t port, std::uint32_t index, const core::ThreadName& name) noexcept;
  void readEmptyAgain() noexcept;
  bool isCrashed(std::uint32_t port) const noexcept { return isSameThread(port, request_.crashThread); }
  bool isToBeStopped(int thread) const noexcept;
  core::ThreadName readRunning(std::uint32_t port) noexcept;
  /// What the buffer holds up to its first 0.
  std::span<const std::uint64_t> stack() const noexcept;

  CrashSnapshot& snapshot_;
  const Request request_;
  const StackBlock block_;
  core::SuspensionRound round_;
  std::array<std::uint64_t, core::kMostFrames> frames_{};
};
