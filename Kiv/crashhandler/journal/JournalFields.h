#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

#include "Core/Memory/Array.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/String.h"

/// A type that names its members once, for writing and reading alike:
///
///     template <class Self, class Each>
///     static void fields(Self& self, Each&& each) { each(self.name, self.size); }
template <class T>
concept JournalRecord = requires(T& record) {
  T::fields(record, [](auto&...) {});
};

/// Writes values one after the other into a part of a journal: numbers as 8 bytes, texts as length and
/// bytes, lists as count and items. What does not fit is left out, of a list its end; nothing
/// behind it is written then. Allocates nothing; fit for the crash path.
class JournalFieldWriter {
 public:
  explicit JournalFieldWriter(std::span<std::uint8_t> room) noexcept : room_(room) {}

  std::size_t size() const noexcept { return size_; }

  template <class T>
  requires std::integral<T>
  void put(T number) noexcept {
    const auto wide = static_cast<std::uint64_t>(number);
    putBytes(&wide, sizeof wide);
  }
  void put(std::string_view text) noexcept {
    if (hasRoom(sizeof(std::uint32_t) + text.size())) {
      const auto length = static_cast<std::uint32_t>(text.size());
      putBytes(&length, sizeof length);
      putBytes(text.data(), text.size());
    }
  }
  void put(const core::String& text) noexcept { put(text.view()); }
  void put(const std::optional<core::String>& text) noexcept {
    if (text) {
      put(text->view());
    } else {
      putBytes(&kNone, sizeof kNone);
    }
  }
  template <class V>
  void put(const core::Array<V>& items) noexcept {
    putList(items, [this](const V& item) { this->put(item); });
  }
  template <class V>
  void put(const core::Dictionary<V>& entries) noexcept {
    putList(entries, [this](const auto& entry) {
      this->put(entry.key);
      this->put(entry.value);
    });
  }
  template <JournalRecord T>
  void put(const T& record) noexcept {
    T::fields(record, [this](const auto&... members) { (this->put(members), ...); });
  }

 private:
  friend class JournalFieldReader;
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  bool hasRoom(std::size_t size) noexcept {
    isFull_ = isFull_ || room_.size() - size_ < size;
    return !isFull_;
  }
  void putBytes(const void* bytes, std::size_t size) noexcept {
    if (size != 0 && hasRoom(size)) {
      std::memcpy(room_.data() + size_, bytes, size);
      size_ += size;
    }
  }
  /// The count comes last, as only then it is known how many there is room for.
  template <class List, class Put>
  void putList(const List& items, Put&& putItem) noexcept {
    const std::size_t head = size_;
    put(std::uint64_t{0});
    std::uint64_t count = 0;
    for (const auto& item : items) {
      const std::size_t before = size_;
      putItem(item);
      if (isFull_) {
        size_ = before;
        break;
      }
      ++count;
    }
    if (head + sizeof count <= size_) {
      std::memcpy(room_.data() + head, &count, sizeof count);
    }
  }

  const std::span<std::uint8_t> room_;
  std::size_t size_ = 0;
  bool isFull_ = false;
};

/// Reads them back. Whatever the bytes are, it ends: what is not there, or not as it is written, is
/// left as the caller made it, and so is all behind it.
class JournalFieldReader {
 public:
  explicit JournalFieldReader(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes) {}

  template <class T>
  requires std::integral<T>
  void take(T& number) noexcept {
    std::uint64_t wide;
    if (takeBytes(&wide, sizeof wide)) {
      number = static_cast<T>(wide);
    }
  }
  void take(core::String& text) noexcept {
    std::uint32_t length;
    if (takeBytes(&length, sizeof length)) {
      takeText(length, text);
    }
  }
  void take(std::optional<core::String>& text) noexcept {
    std::uint32_t length;
    core::String taken;
    if (!takeBytes(&length, sizeof length)) {
      return;
    }
    if (length == JournalFieldWriter::kNone) {
      text.reset();
    } else if (takeText(length, taken)) {
      text = taken;
    }
  }
  template <class V>
  void take(core::Array<V>& items) noexcept {
    takeList([&] {
      V item{};
      take(item);
      if (!isSpent_) {
        items.append(std::move(item));
      }
    });
  }
  template <class V>
  void take(core::Dictionary<V>& entries) noexcept {
    takeList([&] {
      core::String key;
      V value{};
      take(key);
      take(value);
      if (!isSpent_) {
        entries.set(key, std::move(value));
      }
    });
  }
  template <JournalRecord T>
  void take(T& record) noexcept {
    T::fields(record, [this](auto&... members) { (this->take(members), ...); });
  }

 private:
  bool takeBytes(void* into, std::size_t size) noexcept {
    isSpent_ = isSpent_ || bytes_.size() < size;
    if (!isSpent_) {
      std::memcpy(into, bytes_.data(), size);
      bytes_ = bytes_.subspan(size);
    }
    return !isSpent_;
  }
  bool takeText(std::uint32_t length, core::String& text) noexcept {
    isSpent_ = isSpent_ || bytes_.size() < length;
    if (!isSpent_) {
      text = core::String(std::string_view(reinterpret_cast<const char*>(bytes_.data()), length));
      bytes_ = bytes_.subspan(length);
    }
    return !isSpent_;
  }
  /// Each item takes bytes, so a count that lies ends with them.
  template <class Take>
  void takeList(Take&& takeItem) noexcept {
    std::uint64_t count = 0;
    take(count);
    for (; count != 0 && !isSpent_; --count) {
      takeItem();
    }
  }

  std::span<const std::uint8_t> bytes_;
  bool isSpent_ = false;
};
