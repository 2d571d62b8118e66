#pragma once

#include <cstdint>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/String.h"

namespace core {

/// Hash of a key, seeded once a process so that stored keys cannot be chosen to collide.
std::uint64_t hashOfKey(std::string_view key) noexcept;

/// String keys to values, in the order in which the keys were first set.
///
///     Dictionary<String> names;
///     names.set("a", "first");
///     if (const String* name = names.find("a")) { ... }
///     for (const auto& [key, value] : names) { ... }
///
/// Small ones are searched through; from 16 entries on there is a hash index.
template <class V>
class Dictionary {
 public:
  struct Entry {
    String key;
    V value;
    friend bool operator==(const Entry&, const Entry&) = default;
  };

  Dictionary() noexcept = default;
  Dictionary(std::initializer_list<Entry> entries) noexcept {
    for (const Entry& entry : entries) {
      set(entry.key, entry.value);
    }
  }

  const V* find(std::string_view key) const noexcept {
    const std::size_t at = position(key);
    return at == kNone ? nullptr : &entries_[at].value;
  }
  V* find(std::string_view key) noexcept {
    const std::size_t at = position(key);
    return at == kNone ? nullptr : &entries_[at].value;
  }
  bool contains(std::string_view key) const noexcept { return position(key) != kNone; }

  void set(std::string_view key, V value) noexcept { set(String(key), std::move(value)); }
  void set(const char* key, V value) noexcept { set(String(key), std::move(value)); }
  void set(const String& key, V value) noexcept {
    if (V* held = find(key)) {
      *held = std::move(value);
      return;
    }
    entries_.append(Entry{key, std::move(value)});
    if (entries_.size() * 2 > slots_.size() && entries_.size() >= kIndexed) {
      rebuild();
    } else if (!slots_.empty()) {
      insertSlot(entries_.size() - 1);
    }
  }
  bool remove(std::string_view key) noexcept {
    const std::size_t at = position(key);
    if (at == kNone) {
      return false;
    }
    entries_.removeAt(at);
    if (!slots_.empty()) {
      rebuild();
    }
    return true;
  }
  void clear() noexcept {
    entries_.clear();
    slots_.clear();
  }

  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  const Entry* begin() const noexcept { return entries_.begin(); }
  const Entry* end() const noexcept { return entries_.end(); }

  /// Equal keys with equal values, in whatever order.
  friend bool operator==(const Dictionary& a, const Dictionary& b) noexcept {
    if (a.size() != b.size()) {
      return false;
    }
    for (const Entry& entry : a) {
      const V* other = b.find(entry.key);
      if (other == nullptr || !(*other == entry.value)) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::size_t kNone = ~std::size_t{0};
  static constexpr std::size_t kIndexed = 16;

  std::size_t position(std::string_view key) const noexcept {
    if (slots_.empty()) {
      for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i].key == key) {
          return i;
        }
      }
      return kNone;
    }
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t slot = hashOfKey(key) & mask; slots_[slot] != 0; slot = (slot + 1) & mask) {
      if (entries_[slots_[slot] - 1].key == key) {
        return slots_[slot] - 1;
      }
    }
    return kNone;
  }
  void insertSlot(std::size_t entry) noexcept {
    const std::size_t mask = slots_.size() - 1;
    std::size_t slot = hashOfKey(entries_[entry].key) & mask;
    while (slots_[slot] != 0) {
      slot = (slot + 1) & mask;
    }
    slots_[slot] = static_cast<std::uint32_t>(entry + 1);
  }
  void rebuild() noexcept {
    std::size_t capacity = 64;
    while (capacity < entries_.size() * 4) {
      capacity *= 2;
    }
    slots_.clear();
    slots_.reserve(capacity);
    for (std::size_t i = 0; i < capacity; ++i) {
      slots_.append(0);
    }
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      insertSlot(i);
    }
  }

  Array<Entry> entries_;
  Array<std::uint32_t> slots_;  // entry number + 1, 0 for a free slot
};

}  // namespace core
