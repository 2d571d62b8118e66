#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

#include "Core/Kernel/OwnMemory.h"

namespace core {

/// Reads a stretch of table front to back, out of a copy at hand or, block by block, out of
/// memory that may vanish. Whatever is read past the end or cannot be fetched is 0, and the
/// cursor has failed() from then on. Fit for the crash path.
class ByteCursor {
 public:
  /// Over bytes at hand that stand at `address`.
  ByteCursor(std::span<const std::uint8_t> bytes, std::uint64_t address) noexcept
      : at_(bytes.data()), handEnd_(bytes.data() + bytes.size()), start_(address), end_(address + bytes.size()) {
    setAddress(address);
  }

  /// Over memory from `address` to `end`, fetched into `block`.
  ByteCursor(const OwnMemory& memory, std::span<std::uint8_t> block, std::uint64_t address, std::uint64_t end) noexcept
      : at_(block.data()), handEnd_(at_), start_(address), end_(end), memory_(&memory), block_(block) {
    setAddress(address);
  }

  std::uint64_t address() const noexcept { return reinterpret_cast<std::uint64_t>(at_) + fromPlace_; }
  std::uint64_t end() const noexcept { return end_; }
  bool failed() const noexcept { return failed_; }
  /// True at the end and after a failure.
  bool done() const noexcept { return at_ == handEnd_ && (failed_ || address() >= end_); }

  template <class T>
  T take() noexcept {
    static_assert(std::is_integral_v<T>);
    T value = 0;
    if (atHand() >= sizeof value || fetch(sizeof value)) [[likely]] {
      std::memcpy(&value, at_, sizeof value);
      at_ += sizeof value;
    }
    return value;
  }
  std::uint8_t byte() noexcept { return take<std::uint8_t>(); }

  /// Numbers of variable length; bits beyond the 64th are dropped.
  std::uint64_t unsignedLeb() noexcept {
    if (at_ != handEnd_ && *at_ < 0x80) [[likely]] {
      return *at_++;
    }
    return longLeb();
  }
  std::int64_t signedLeb() noexcept;

  /// Goes on at `address`, back as well as forward, anywhere between the ends.
  void moveTo(std::uint64_t address) noexcept;
  void skip(std::uint64_t count) noexcept;
  /// Nothing from `address` on is read any more.
  void endAt(std::uint64_t address) noexcept;
  void fail() noexcept {
    failed_ = true;
    handEnd_ = at_;
  }

 private:
  std::size_t atHand() const noexcept { return static_cast<std::size_t>(handEnd_ - at_); }
  void setAddress(std::uint64_t address) noexcept { fromPlace_ = address - reinterpret_cast<std::uint64_t>(at_); }
  std::uint64_t longLeb() noexcept;
  [[gnu::noinline]] bool fetch(std::size_t wanted) noexcept;

  const std::uint8_t* at_;
  const std::uint8_t* handEnd_;  // of the bytes at hand, none of which lies beyond end_
  std::uint64_t fromPlace_ = 0;  // from where a byte is at hand to its address
  std::uint64_t start_;
  std::uint64_t end_;
  bool failed_ = false;
  const OwnMemory* memory_ = nullptr;
  std::span<std::uint8_t> block_;
};

}  // namespace core
