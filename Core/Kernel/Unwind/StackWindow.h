#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/StackCopy.h"

namespace core {

/// A copy of a piece of stack that a walk reads in place of the stack itself: a block costs one
/// system call, hardly more than a word would. The window moves up with the walk; a word
/// behind it is read singly. Fit for the crash path.
///
/// The block is the caller's, 4 KiB at least. A read costs by the page that it touches, a quarter of
/// what the call itself does, and next to nothing by the byte. So the first fill takes two pages, which
/// hold most stacks (one would only pay if four stacks in five ended in it); later ones, which only deep
/// stacks see, take all of the block.
///
/// Over a copy that was made already there is nothing but the copy.
class StackWindow {
 public:
  StackWindow(const OwnMemory& memory, std::span<std::uint8_t> block) noexcept
      : memory_(memory), block_(block), bytes_(block.data()) {}
  StackWindow(const OwnMemory& memory, const StackCopy& copy) noexcept
      : memory_(memory), bytes_(copy.bytes.data()), start_(copy.address), words_(wordsIn(copy.bytes.size())) {}

  /// The 8 bytes at `address`; false when they cannot be read, or were not copied.
  bool word(std::uint64_t address, std::uint64_t& into) noexcept {
    if (const std::uint64_t offset = address - start_; offset < words_) [[likely]] {
      std::memcpy(&into, bytes_ + offset, sizeof into);
      return true;
    }
    return readAside(address, into);
  }

  /// The walk goes on on another stack.
  void leave() noexcept {
    if (!block_.empty()) {
      start_ = words_ = 0;
    }
  }

  /// Whether a word was asked for that had not been copied.
  bool isShort() const noexcept { return isShort_; }

  const OwnMemory& memory() const noexcept { return memory_; }

 private:
  static std::uint64_t wordsIn(std::size_t size) noexcept {
    return size < sizeof(std::uint64_t) ? 0 : size - sizeof(std::uint64_t) + 1;
  }
  [[gnu::noinline]] bool readAside(std::uint64_t address, std::uint64_t& into) noexcept;
  std::size_t nextFill(std::uint64_t address) const noexcept;

  const OwnMemory& memory_;
  std::span<std::uint8_t> block_;  // empty over a copy
  const std::uint8_t* bytes_;
  std::uint64_t start_ = 0;
  std::uint64_t words_ = 0;  // offsets below this begin a whole word of the copy
  bool isShort_ = false;
};

}  // namespace core
