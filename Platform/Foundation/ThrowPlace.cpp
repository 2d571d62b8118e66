#include "Platform/Foundation/ThrowPlace.h"

#include <algorithm>
#include <array>

#include "Core/Kernel/MachineContext.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"

namespace platform {
namespace {

/// The hook's own frame and this one's.
constexpr std::size_t kOwnFrames = 2;
constexpr std::size_t kBlock = 8192;

struct Throw {
  const void* exception = nullptr;
  std::vector<std::uintptr_t> addresses;
};
thread_local Throw lastThrow;

}  // namespace

std::vector<std::uintptr_t> throwPlace(const void* exception) {
  return lastThrow.exception == exception ? lastThrow.addresses : std::vector<std::uintptr_t>();
}

}  // namespace platform

void kiv_note_throw(const void* exception) noexcept {
  core::MachineContext here;
  core::captureContext(here);
  std::array<std::uint8_t, platform::kBlock> block;
  std::array<std::uint64_t, core::kMostFrames> frames;
  const std::size_t count =
      core::walk(core::registersOf(here.machine), frames, {.block = block, .mayRefreshImages = true});
  platform::lastThrow.exception = exception;
  platform::lastThrow.addresses.assign(frames.begin() + std::min(count, platform::kOwnFrames), frames.begin() + count);
}
