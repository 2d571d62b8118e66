#pragma once

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "Core/Memory/Array.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/String.h"

namespace core {

/// String keys to values in ascending order of the keys' bytes, in one flat array: small to
/// hold, cheap to build from what is sorted already, searched in halves.
///
/// Inserting one key moves the entries behind it; many at once go through the constructor
/// that takes entries. Not for several threads at a time.
template <class V>
class SortedMap {
 public:
  struct Entry {
    String key;
    V value;
    friend bool operator==(const Entry&, const Entry&) = default;
  };

  SortedMap() noexcept = default;
  SortedMap(std::initializer_list<Entry> entries) noexcept : SortedMap(Array<Entry>(entries)) {}
  /// Entries in any order; of equal keys the first one stays.
  explicit SortedMap(Array<Entry> entries) noexcept : entries_(std::move(entries)) {
    if (!isAscending()) {
      sort();
    }
  }
  explicit SortedMap(const Dictionary<V>& dictionary) noexcept {
    entries_.reserve(dictionary.size());
    for (const auto& [key, value] : dictionary) {
      entries_.append(Entry{key, value});
    }
    if (!isAscending()) {
      sort();
    }
  }

  const V* find(std::string_view key) const noexcept {
    const std::size_t at = position(key);
    return isAt(at, key) ? &entries_[at].value : nullptr;
  }
  bool contains(std::string_view key) const noexcept { return find(key) != nullptr; }

  /// False, and nothing changed, when the key is there.
  bool insert(const String& key, V value) noexcept {
    const std::size_t at = position(key);
    if (isAt(at, key)) {
      return false;
    }
    insertAt(at, Entry{key, std::move(value)});
    return true;
  }
  /// The key's value, a new one for a new key.
  V& operator[](std::string_view key) noexcept {
    const std::size_t at = position(key);
    if (!isAt(at, key)) {
      insertAt(at, Entry{String(key), V()});
    }
    return entries_[at].value;
  }
  void clear() noexcept { entries_.clear(); }

  std::size_t size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  const Entry* begin() const noexcept { return entries_.begin(); }
  const Entry* end() const noexcept { return entries_.end(); }

  friend bool operator==(const SortedMap& a, const SortedMap& b) noexcept { return a.entries_ == b.entries_; }

 private:
  std::size_t position(std::string_view key) const noexcept {
    return static_cast<std::size_t>(
        std::lower_bound(begin(), end(), key,
                         [](const Entry& entry, std::string_view wanted) { return entry.key.view() < wanted; }) -
        begin());
  }
  bool isAt(std::size_t at, std::string_view key) const noexcept { return at < size() && entries_[at].key == key; }

  void insertAt(std::size_t at, Entry entry) noexcept {
    entries_.append(std::move(entry));
    std::rotate(entries_.begin() + at, entries_.end() - 1, entries_.end());
  }

  bool isAscending() const noexcept {
    return std::adjacent_find(begin(), end(), [](const Entry& a, const Entry& b) { return !(a.key < b.key); }) == end();
  }

  // By numbers, which break the ties of equal keys: the library's stable sort would call the heap.
  void sort() noexcept {
    Array<std::uint32_t> order;
    order.reserve(size());
    for (std::uint32_t i = 0; i < size(); ++i) {
      order.append(i);
    }
    std::sort(order.begin(), order.end(), [this](std::uint32_t a, std::uint32_t b) {
      const auto compared = entries_[a].key <=> entries_[b].key;
      return compared != 0 ? compared < 0 : a < b;
    });
    Array<Entry> sorted;
    sorted.reserve(size());
    for (const std::uint32_t index : order) {
      if (sorted.empty() || !(sorted.back().key == entries_[index].key)) {
        sorted.append(std::move(entries_[index]));
      }
    }
    entries_ = std::move(sorted);
  }

  Array<Entry> entries_;
};

}  // namespace core
