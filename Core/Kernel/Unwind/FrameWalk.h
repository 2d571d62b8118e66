#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Registers.h"
#include "Core/Kernel/StackCopy.h"

namespace core {

/// The most addresses that a walk writes.
inline constexpr std::size_t kMostFrames = 256;

/// What walks work with; made once a dump by the thread that walks, one walk at a time.
struct WalkContext {
  /// Memory for copies of the stack, 4 KiB at least; 16 KiB serve deep stacks best.
  std::span<std::uint8_t> block;
  /// Whether a walk that meets code of no known image may read the memory map. Never while
  /// another thread is suspended: such code is then noted for CodeImages::refreshIfChanged().
  bool mayRefreshImages = false;
  OwnMemory memory{};
};

/// Writes the stack of a stopped thread (or of the caller, up from a context of its own):
/// first its instruction pointer, unless that is 0, then return addresses, innermost first.
/// Answers how many there are; the rest of `frames` is left alone. 0 for a thread whose frame
/// pointer is 0 and whose stack has nothing else to go by.
///
/// Takes no lock, allocates nothing (refreshing apart) and reads the thread's stack through
/// checked reads only, so the registers may be any. Images must have been refreshed once. Fit
/// for the crash path.
std::size_t walk(const Registers& start, std::span<std::uint64_t, kMostFrames> frames,
                 const WalkContext& context) noexcept;

/// The same of a thread that goes on, over what was copied while it stood. Nothing when that is
/// not all of its stack, and `frames` is left alone. Images are not refreshed.
std::optional<std::size_t> walk(const Registers& start, std::span<std::uint64_t, kMostFrames> frames,
                                const StackCopy& copy, const OwnMemory& memory) noexcept;

}  // namespace core
