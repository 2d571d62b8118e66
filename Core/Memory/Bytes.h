#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

#include "Core/Memory/Allocator.h"

namespace core {

/// Immutable, shared bytes followed by a NUL: the storage of String and Data. Copies share,
/// any thread may hold one, and the last holder frees.
class Bytes {
 public:
  Bytes() noexcept = default;
  Bytes(const void* bytes, std::size_t size) noexcept {
    if (size != 0) {
      std::memcpy(create(size), bytes, size);
    }
  }
  Bytes(const Bytes& other) noexcept : rep_(other.rep_) {
    if (rep_ != nullptr) {
      rep_->holders.fetch_add(1, std::memory_order_relaxed);
    }
  }
  Bytes(Bytes&& other) noexcept : rep_(std::exchange(other.rep_, nullptr)) {}
  Bytes& operator=(Bytes other) noexcept {
    std::swap(rep_, other.rep_);
    return *this;
  }
  ~Bytes() { drop(); }

  /// Bytes of `size` that `fill(char*)` writes before anybody can see them.
  template <class Fill>
  static Bytes filled(std::size_t size, Fill&& fill) noexcept {
    Bytes made;
    if (size != 0) {
      fill(made.create(size));
    }
    return made;
  }

  const char* data() const noexcept { return rep_ != nullptr ? rep_->bytes() : ""; }
  std::size_t size() const noexcept { return rep_ != nullptr ? rep_->size : 0; }

 private:
  struct Rep {
    std::atomic<std::uint32_t> holders{1};
    std::size_t size = 0;
    char* bytes() noexcept { return reinterpret_cast<char*>(this + 1); }
  };

  char* create(std::size_t size) noexcept {
    rep_ = new (core::allocate(sizeof(Rep) + size + 1)) Rep;
    rep_->size = size;
    rep_->bytes()[size] = '\0';
    return rep_->bytes();
  }
  void drop() noexcept {
    if (rep_ != nullptr && rep_->holders.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      core::deallocate(rep_);
    }
  }

  Rep* rep_ = nullptr;
};

/// Immutable binary data.
class Data {
 public:
  Data() noexcept = default;
  Data(const void* bytes, std::size_t size) noexcept : bytes_(bytes, size) {}
  explicit Data(std::span<const std::uint8_t> bytes) noexcept : bytes_(bytes.data(), bytes.size()) {}
  explicit Data(Bytes bytes) noexcept : bytes_(std::move(bytes)) {}

  const std::uint8_t* data() const noexcept { return reinterpret_cast<const std::uint8_t*>(bytes_.data()); }
  std::size_t size() const noexcept { return bytes_.size(); }
  bool empty() const noexcept { return size() == 0; }
  std::span<const std::uint8_t> span() const noexcept { return {data(), size()}; }

  friend bool operator==(const Data& a, const Data& b) noexcept {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
  }

 private:
  Bytes bytes_;
};

}  // namespace core
