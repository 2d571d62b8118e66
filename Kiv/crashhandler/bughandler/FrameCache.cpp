#include "Kiv/crashhandler/bughandler/FrameCache.h"

#include <utility>

namespace {

constexpr std::size_t kFirstSlots = 256;

}  // namespace

std::size_t FrameCache::slotOf(std::uint64_t address) const noexcept {
  const std::size_t mask = slots_.size() - 1;
  std::size_t slot = (address * 0x9E3779B97F4A7C15) >> 32 & mask;
  while (slots_[slot] != 0 && frames_[slots_[slot] - 1]->addr != address) {
    slot = (slot + 1) & mask;
  }
  return slot;
}

const core::Shared<KivCrashAddrInfo>* FrameCache::find(std::uint64_t address) const noexcept {
  const std::uint32_t number = slots_.empty() ? 0 : slots_[slotOf(address)];
  return number != 0 ? &frames_[number - 1] : nullptr;
}

void FrameCache::insert(const core::Shared<KivCrashAddrInfo>& frame) noexcept {
  frames_.append(frame);
  if (frames_.size() * 2 > slots_.size()) {
    rebuild();
  } else {
    slots_[slotOf(frame->addr)] = static_cast<std::uint32_t>(frames_.size());
  }
}

// The old table stays in force until the new one is whole: the crash heap may run out in between.
void FrameCache::rebuild() noexcept {
  const std::size_t size = slots_.empty() ? kFirstSlots : slots_.size() * 2;
  core::Array<std::uint32_t> slots;
  slots.reserve(size);
  while (slots.size() < size) {
    slots.append(0);
  }
  slots_ = std::move(slots);
  for (std::uint32_t number = 1; number <= frames_.size(); ++number) {
    slots_[slotOf(frames_[number - 1]->addr)] = number;
  }
}
