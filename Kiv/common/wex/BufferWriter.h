#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include "Core/Memory/Bytes.h"

namespace analyticsyut {

/// A growing array of bytes, which it owns: what tagged fields are encoded into. Its memory
/// is the crash path's own (core::allocate), so that nothing here fails. One thread at a time.
class BufferWriter {
 public:
  BufferWriter() noexcept = default;
  BufferWriter(const BufferWriter&) = delete;
  BufferWriter& operator=(const BufferWriter&) = delete;
  ~BufferWriter() { core::deallocate(buffer_); }

  /// Makes the capacity at least `n` bytes in total: where it is less, it becomes 2 n. It never shrinks.
  void reserve(std::uint64_t n) noexcept;

  /// Appends `n` bytes.
  void writeBuf(const void* source, std::uint64_t n) noexcept {
    if (n != 0) {
      std::memcpy(room(n), source, n);
      length_ += n;
    }
  }

  /// Forgets the bytes, keeps the memory.
  void clear() noexcept { length_ = 0; }

  const std::uint8_t* buffer() const noexcept { return buffer_; }
  std::uint64_t length() const noexcept { return length_; }
  std::uint64_t capacity() const noexcept { return capacity_; }

  /// The bytes written, until the next change; and a copy of them.
  std::span<const std::uint8_t> span() const noexcept { return {buffer_, length_}; }
  core::Data data() const noexcept { return core::Data(span()); }

 protected:
  /// Where `n` further bytes may be written; those that are, up to `end`, then count by commit(end).
  std::uint8_t* room(std::uint64_t n) noexcept {
    if (capacity_ - length_ < n) [[unlikely]] {
      reserve(length_ + n);
    }
    return buffer_ + length_;
  }
  void commit(const std::uint8_t* end) noexcept { length_ = static_cast<std::uint64_t>(end - buffer_); }

 private:
  std::uint8_t* buffer_ = nullptr;
  std::uint64_t length_ = 0;
  std::uint64_t capacity_ = 0;
};

}  // namespace analyticsyut
