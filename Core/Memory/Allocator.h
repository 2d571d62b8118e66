#pragma once

#include <cstddef>

namespace core {

/// Memory for everything that may be touched while a crash is handled.
///
/// Normally `operator new`. On the thread that owns a crash, a piece of CrashHeap, and
/// nothing is freed there. Whether memory goes back to the heap is decided by its
/// address, so that any thread may drop what the owner made. Aligned to 16 bytes, never null.
[[nodiscard]] void* allocate(std::size_t bytes) noexcept;
void deallocate(void* memory) noexcept;

/// The same as a standard allocator, for containers of the C++ library.
template <class T>
struct Allocator {
  using value_type = T;

  Allocator() noexcept = default;
  template <class U>
  Allocator(const Allocator<U>&) noexcept {}

  T* allocate(std::size_t count) { return static_cast<T*>(core::allocate(count * sizeof(T))); }
  void deallocate(T* memory, std::size_t) noexcept { core::deallocate(memory); }

  friend bool operator==(const Allocator&, const Allocator&) noexcept { return true; }
};

}  // namespace core
