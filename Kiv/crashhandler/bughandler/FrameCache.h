#pragma once

#include <cstdint>

#include "Core/Memory/Array.h"
#include "Kiv/crashhandler/bughandler/KivCrashAddrInfo.h"

/// Frames by the address that was walked. Only grows. Not locked; fit for the crash path.
class FrameCache {
 public:
  /// nullptr for none; stays until the next insert().
  const core::Shared<KivCrashAddrInfo>* find(std::uint64_t address) const noexcept;

  /// Adds a frame whose address is not in here yet.
  void insert(const core::Shared<KivCrashAddrInfo>& frame) noexcept;

 private:
  std::size_t slotOf(std::uint64_t address) const noexcept;
  void rebuild() noexcept;

  KivStack frames_;
  core::Array<std::uint32_t> slots_;  // a power of two; number of a frame + 1, 0 for a free slot
};
