#pragma once

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>
#include <utility>

#include "Core/Memory/Allocator.h"

namespace core {

/// A growing array on core::allocate, for what the crash path reads or builds. Indexes are
/// not checked; nothing throws.
template <class T>
class Array {
 public:
  using value_type = T;

  Array() noexcept = default;
  Array(std::initializer_list<T> items) noexcept {
    reserve(items.size());
    for (const T& item : items) {
      append(item);
    }
  }
  Array(const Array& other) noexcept {
    reserve(other.size_);
    for (const T& item : other) {
      append(item);
    }
  }
  Array(Array&& other) noexcept
      : items_(std::exchange(other.items_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        capacity_(std::exchange(other.capacity_, 0)) {}
  Array& operator=(Array other) noexcept {
    std::swap(items_, other.items_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
  }
  ~Array() {
    clear();
    core::deallocate(items_);
  }

  template <class... Arguments>
  T& emplace(Arguments&&... arguments) noexcept {
    if (size_ == capacity_) {
      return emplaceGrown(std::forward<Arguments>(arguments)...);
    }
    return *new (items_ + size_++) T(std::forward<Arguments>(arguments)...);
  }
  void append(const T& item) noexcept { emplace(item); }
  void append(T&& item) noexcept { emplace(std::move(item)); }

  void removeAt(std::size_t index) noexcept {
    for (std::size_t i = index + 1; i < size_; ++i) {
      items_[i - 1] = std::move(items_[i]);
    }
    items_[--size_].~T();
  }
  void clear() noexcept {
    while (size_ != 0) {
      items_[--size_].~T();
    }
  }
  void reserve(std::size_t wanted) noexcept {
    if (wanted > capacity_) {
      T* grown = static_cast<T*>(core::allocate(wanted * sizeof(T)));
      moveInto(grown);
      capacity_ = wanted;
    }
  }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  T& operator[](std::size_t index) noexcept { return items_[index]; }
  const T& operator[](std::size_t index) const noexcept { return items_[index]; }
  T& back() noexcept { return items_[size_ - 1]; }
  const T& back() const noexcept { return items_[size_ - 1]; }
  T* data() noexcept { return items_; }
  const T* data() const noexcept { return items_; }
  T* begin() noexcept { return items_; }
  T* end() noexcept { return items_ + size_; }
  const T* begin() const noexcept { return items_; }
  const T* end() const noexcept { return items_ + size_; }

  template <class U>
  bool contains(const U& wanted) const noexcept {
    for (const T& item : *this) {
      if (item == wanted) {
        return true;
      }
    }
    return false;
  }

  friend bool operator==(const Array& a, const Array& b) noexcept {
    if (a.size_ != b.size_) {
      return false;
    }
    for (std::size_t i = 0; i < a.size_; ++i) {
      if (!(a.items_[i] == b.items_[i])) {
        return false;
      }
    }
    return true;
  }

 private:
  // The new item is built before the old ones move, since it may be a copy of one of them.
  template <class... Arguments>
  T& emplaceGrown(Arguments&&... arguments) noexcept {
    const std::size_t capacity = capacity_ == 0 ? 4 : capacity_ * 2;
    T* grown = static_cast<T*>(core::allocate(capacity * sizeof(T)));
    T* made = new (grown + size_) T(std::forward<Arguments>(arguments)...);
    moveInto(grown);
    capacity_ = capacity;
    ++size_;
    return *made;
  }
  void moveInto(T* grown) noexcept {
    for (std::size_t i = 0; i < size_; ++i) {
      new (grown + i) T(std::move(items_[i]));
      items_[i].~T();
    }
    core::deallocate(items_);
    items_ = grown;
  }

  T* items_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace core
