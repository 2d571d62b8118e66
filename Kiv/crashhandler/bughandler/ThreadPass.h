#pragma once

#include <ucontext.h>

#include <array>
#include <cstdint>

#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Kiv/crashhandler/bughandler/KivThreadInfo.h"

class KivStackCollector;

/// Reads one thread after the other, with one frame buffer for all of them. Each is stopped for
/// its own walk only; its frames are made when it runs again. Fit for the crash path.
class ThreadPass {
 public:
  explicit ThreadPass(KivStackCollector& collector) noexcept;

  /// The thread with name and stack: that of `context`, else its own. The calling thread is
  /// never stopped.
  KivThreadInfo read(std::uint32_t port, std::uint32_t index, const mcontext_t* context, bool suspend) noexcept;

 private:
  /// How many entries of the buffer are cleared for a thread. Those behind them that a deeper
  /// thread left become part of a later stack that comes up to them: on purpose.
  static constexpr std::size_t kCleared = 32;

  KivStackCollector& collector_;
  core::SuspensionRound round_;
  std::array<std::uint64_t, core::kMostFrames> frames_{};
};
