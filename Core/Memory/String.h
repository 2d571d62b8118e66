#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

#include "Core/Memory/Bytes.h"

namespace core {

/// Immutable UTF-8 text; copies share their bytes. A text that may be missing is a
/// std::optional<String>.
///
/// Converts from and to std::string_view, so it passes wherever text is read; c_str() is
/// always terminated. Lengths that a limit speaks of are characters(), not bytes.
class String {
 public:
  String() noexcept = default;
  String(std::string_view text) noexcept : bytes_(text.data(), text.size()) {}
  String(const char* text) noexcept : String(std::string_view(text)) {}
  String(const std::string& text) noexcept : String(std::string_view(text)) {}
  explicit String(Bytes bytes) noexcept : bytes_(std::move(bytes)) {}

  std::string_view view() const noexcept { return {bytes_.data(), bytes_.size()}; }
  operator std::string_view() const noexcept { return view(); }
  std::string str() const { return std::string(view()); }
  const char* c_str() const noexcept { return bytes_.data(); }
  const char* data() const noexcept { return bytes_.data(); }
  std::size_t size() const noexcept { return bytes_.size(); }
  bool empty() const noexcept { return size() == 0; }

  /// Number of characters (Unicode code points; an invalid byte counts as one).
  std::size_t characters() const noexcept;

  friend bool operator==(const String& a, std::string_view b) noexcept { return a.view() == b; }
  friend bool operator==(const String& a, const String& b) noexcept { return a.view() == b.view(); }
  friend bool operator==(const String& a, const char* b) noexcept { return a.view() == b; }
  friend bool operator==(const String& a, const std::string& b) noexcept { return a.view() == b; }
  friend auto operator<=>(const String& a, const String& b) noexcept { return a.view() <=> b.view(); }

 private:
  Bytes bytes_;
};

/// Text functions on UTF-8 views.
std::size_t countCharacters(std::string_view text) noexcept;
/// The first `count` characters of `text`, never half of one.
std::string_view firstCharacters(std::string_view text, std::size_t count) noexcept;
/// The last `count` characters of `text`.
std::string_view lastCharacters(std::string_view text, std::size_t count) noexcept;
/// Without white space (blank, tab, line ends, form feed) at both ends.
std::string_view trimmed(std::string_view text) noexcept;
String uppercased(std::string_view asciiText) noexcept;
String replacedAll(std::string_view text, std::string_view what, std::string_view with) noexcept;

/// The text of a view, nothing for a view with null data: how the public facade spells nil.
inline std::optional<String> optionalString(std::string_view text) noexcept {
  if (text.data() == nullptr) {
    return std::nullopt;
  }
  return String(text);
}

/// A growing text; the finished String is made by str().
class StringBuilder {
 public:
  StringBuilder() noexcept = default;
  explicit StringBuilder(std::size_t capacity) noexcept { reserve(capacity); }
  StringBuilder(const StringBuilder&) = delete;
  StringBuilder& operator=(const StringBuilder&) = delete;
  StringBuilder(StringBuilder&& other) noexcept
      : data_(std::exchange(other.data_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  ~StringBuilder() { core::deallocate(data_); }

  void append(std::string_view text) noexcept {
    if (!text.empty()) {
      std::memcpy(extend(text.size()), text.data(), text.size());
    }
  }
  void append(char byte) noexcept { *extend(1) = byte; }
  void append(std::size_t count, char byte) noexcept {
    if (count != 0) {
      std::memset(extend(count), byte, count);
    }
  }
  /// Room for `count` further bytes, which the caller writes.
  char* extend(std::size_t count) noexcept {
    if (capacity_ - size_ < count) {
      reserve(size_ + count);
    }
    char* room = data_ + size_;
    size_ += count;
    return room;
  }
  void truncate(std::size_t size) noexcept { size_ = size < size_ ? size : size_; }
  void clear() noexcept { size_ = 0; }

  std::string_view view() const noexcept { return {data_, size_}; }
  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  String str() const noexcept { return String(view()); }

 private:
  void reserve(std::size_t wanted) noexcept;

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace core
