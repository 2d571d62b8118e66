#include "Kiv/crashhandler/bughandler/StackBlock.h"

#include "Core/Memory/Allocator.h"
#include "Core/Memory/CrashOwner.h"

namespace {

std::uint8_t blockOfCrash[StackBlock::kSize];

}  // namespace

StackBlock::StackBlock() noexcept
    : isOwned_(!core::CrashOwner::isCurrentThread()),
      bytes_(isOwned_ ? static_cast<std::uint8_t*>(core::allocate(kSize)) : blockOfCrash) {}

StackBlock::~StackBlock() {
  if (isOwned_) {
    core::deallocate(bytes_);
  }
}
