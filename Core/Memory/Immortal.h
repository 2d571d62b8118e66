#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace core {

/// Static storage for a value that is made once and never destroyed, without the heap:
///
///     static core::Immortal<Published<String>> directory;
///     directory->set(path);
template <class T>
class Immortal {
 public:
  template <class... Arguments>
  explicit Immortal(Arguments&&... arguments) noexcept {
    new (storage_) T(std::forward<Arguments>(arguments)...);
  }
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;

  T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(storage_)); }
  T* operator->() noexcept { return &**this; }

 private:
  alignas(T) std::byte storage_[sizeof(T)];
};

}  // namespace core
