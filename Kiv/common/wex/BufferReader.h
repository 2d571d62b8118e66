#pragma once

#include <cstdint>
#include <cstring>
#include <span>

namespace analyticsyut {

/// A cursor over bytes that the caller keeps alive: what tagged fields are decoded from. What
/// would go beyond the last byte throws WexDecodeException and moves nothing.
class BufferReader {
 public:
  BufferReader() noexcept = default;
  explicit BufferReader(std::span<const std::uint8_t> bytes) noexcept : buffer_(bytes.data()), length_(bytes.size()) {}

  /// Copies `n` bytes that begin `offset` behind the cursor, which stays.
  void peekBuf(void* destination, std::uint64_t n, std::uint64_t offset = 0) const {
    if (offset > left() || n > left() - offset) [[unlikely]] {
      throwPeekOverflow();
    }
    copy(destination, buffer_ + position_ + offset, n);
  }
  void readBuf(void* destination, std::uint64_t n) { copy(destination, take(n), n); }
  void skip(std::uint64_t n) {
    if (n > left()) [[unlikely]] {
      throwSkipOverflow();
    }
    position_ += n;
  }

  /// Reads `n` bytes by answering where they are.
  const std::uint8_t* take(std::uint64_t n) {
    if (n > left()) [[unlikely]] {
      throwReadOverflow();
    }
    const std::uint8_t* taken = buffer_ + position_;
    position_ += n;
    return taken;
  }

  const std::uint8_t* buffer() const noexcept { return buffer_; }
  std::uint64_t length() const noexcept { return length_; }
  std::uint64_t position() const noexcept { return position_; }
  std::uint64_t left() const noexcept { return length_ - position_; }

 private:
  static void copy(void* destination, const std::uint8_t* source, std::uint64_t n) noexcept {
    if (n != 0) {
      std::memcpy(destination, source, n);
    }
  }
  [[noreturn]] void throwPeekOverflow() const;
  [[noreturn]] void throwReadOverflow() const;
  [[noreturn]] void throwSkipOverflow() const;

  const std::uint8_t* buffer_ = nullptr;
  std::uint64_t length_ = 0;
  std::uint64_t position_ = 0;
};

}  // namespace analyticsyut
