#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include "Core/Memory/Allocator.h"

namespace core {

/// An immutable value with shared ownership; never empty unless moved from.
template <class T>
class Shared {
 public:
  explicit Shared(T value) noexcept : node_(new (core::allocate(sizeof(Node))) Node{{1}, std::move(value)}) {}
  Shared(const Shared& other) noexcept : node_(other.node_) {
    if (node_ != nullptr) {
      node_->holders.fetch_add(1, std::memory_order_relaxed);
    }
  }
  Shared(Shared&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Shared& operator=(Shared other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~Shared() {
    if (node_ != nullptr && node_->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      node_->~Node();
      core::deallocate(node_);
    }
  }

  const T& operator*() const noexcept { return node_->value; }
  const T* operator->() const noexcept { return &node_->value; }

 private:
  struct Node {
    std::atomic<std::uint32_t> holders;
    T value;
  };
  Node* node_;
};

}  // namespace core
