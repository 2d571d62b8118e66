#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include "Core/Kernel/OwnMemory.h"

namespace core {

/// A copy of a piece of stack that a walk reads in place of the stack itself: a block costs one
/// system call, hardly more than a word would. The window moves up with the walk; a word
/// behind it is read singly. Fit for the crash path.
///
/// The block is the caller's, 4 KiB at least. A read costs by the page that it touches, a quarter of
/// what the call itself does, and next to nothing by the byte. So the first fill takes two pages, which
/// hold most stacks (one would only pay if four stacks in five ended in it); later ones, which only deep
/// stacks see, take all of the block.
class StackWindow {
 public:
  StackWindow(const OwnMemory& memory, std::span<std::uint8_t> block) noexcept : memory_(memory), block_(block) {}

  /// The 8 bytes at `address`; false when they cannot be read.
  bool word(std::uint64_t address, std::uint64_t& into) noexcept {
    if (const std::uint64_t offset = address - start_; offset < words_) [[likely]] {
      std::memcpy(&into, block_.data() + offset, sizeof into);
      return true;
    }
    return readAside(address, into);
  }

  /// The walk goes on on another stack.
  void leave() noexcept { start_ = words_ = 0; }

  const OwnMemory& memory() const noexcept { return memory_; }

 private:
  [[gnu::noinline]] bool readAside(std::uint64_t address, std::uint64_t& into) noexcept;
  std::size_t nextFill(std::uint64_t address) const noexcept;

  const OwnMemory& memory_;
  std::span<std::uint8_t> block_;
  std::uint64_t start_ = 0;
  std::uint64_t words_ = 0;  // offsets below this begin a whole word of the copy
};

}  // namespace core
