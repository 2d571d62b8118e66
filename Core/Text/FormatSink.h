#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Core/Memory/String.h"

namespace core {

/// memcpy without the call for the short pieces that most texts are made of.
inline void copyShort(char* to, const char* from, std::size_t size) noexcept {
  if (size > 16) {
    std::memcpy(to, from, size);
  } else if (size >= 8) {
    std::uint64_t first;
    std::uint64_t last;
    std::memcpy(&first, from, 8);
    std::memcpy(&last, from + size - 8, 8);
    std::memcpy(to, &first, 8);
    std::memcpy(to + size - 8, &last, 8);
  } else if (size >= 4) {
    std::uint32_t first;
    std::uint32_t last;
    std::memcpy(&first, from, 4);
    std::memcpy(&last, from + size - 4, 4);
    std::memcpy(to, &first, 4);
    std::memcpy(to + size - 4, &last, 4);
  } else if (size != 0) {
    to[0] = from[0];
    to[size / 2] = from[size / 2];
    to[size - 1] = from[size - 1];
  }
}

/// Where the formatter writes: gathers the text on the stack and hands it on to a builder
/// when there is too much of it or at flush().
class FormatSink {
 public:
  explicit FormatSink(StringBuilder& overflow) noexcept : overflow_(overflow) {}

  void append(std::string_view text) noexcept {
    if (text.size() > room()) [[unlikely]] {
      appendLong(text);
      return;
    }
    copyShort(at_, text.data(), text.size());
    at_ += text.size();
  }
  void append(std::size_t count, char byte) noexcept {
    for (; count > room(); flush()) {
      std::memset(at_, byte, room());
      count -= room();
      at_ = end();
    }
    for (; count != 0; --count) {
      *at_++ = byte;
    }
  }
  void append(char byte) noexcept {
    if (room() == 0) [[unlikely]] {
      flush();
    }
    *at_++ = byte;
  }
  void flush() noexcept {
    overflow_.append(view());
    at_ = buffer_;
  }
  /// Everything that was written, the builder's text first.
  String finish() noexcept {
    if (overflow_.empty()) {
      return String(view());
    }
    flush();
    return overflow_.str();
  }

 private:
  std::size_t room() const noexcept { return static_cast<std::size_t>(end() - at_); }
  const char* end() const noexcept { return buffer_ + sizeof buffer_; }
  char* end() noexcept { return buffer_ + sizeof buffer_; }
  std::string_view view() const noexcept { return {buffer_, static_cast<std::size_t>(at_ - buffer_)}; }
  void appendLong(std::string_view text) noexcept {
    flush();
    overflow_.append(text);
  }

  StringBuilder& overflow_;
  char* at_ = buffer_;
  char buffer_[512];
};

}  // namespace core
