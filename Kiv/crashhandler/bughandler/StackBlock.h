#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Core/Kernel/OwnMemory.h"

/// Room for copies of a stack while it is walked, to be made before a thread is stopped. The owner
/// of a crash, whose memory never comes back, has one for all its walks. Fit for the crash path.
class StackBlock {
 public:
  static constexpr std::size_t kSize = 16384;

  StackBlock() noexcept;
  StackBlock(const StackBlock&) = delete;
  StackBlock& operator=(const StackBlock&) = delete;
  ~StackBlock();

  const core::OwnMemory& memory() const noexcept { return memory_; }
  std::span<std::uint8_t> bytes() const noexcept { return {bytes_, kSize}; }

 private:
  bool isOwned_;
  std::uint8_t* bytes_;
  core::OwnMemory memory_;
};
