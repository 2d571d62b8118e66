#pragma once

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "Core/Memory/Allocator.h"
#include "Core/Memory/Mutex.h"

namespace core {

/// State that any thread reads and writes, and that a crash may read at any moment.
///
/// A writer makes a changed copy and publishes it with one atomic exchange. The old copy is
/// freed unless a crash has an owner by then: the owner is set, the pointer exchanged and
/// the owner looked at in one sequentially consistent order, so either the crash sees the
/// new copy or the writer sees the crash. The owner itself reads without the lock.
template <class T>
class Published {
 public:
  Published() noexcept : Published(T()) {}
  explicit Published(T initial) noexcept : current_(make(std::move(initial))) {}
  Published(const Published&) = delete;
  Published& operator=(const Published&) = delete;
  ~Published() { free(current_.load()); }

  /// A copy of the state as it stands.
  T get() const noexcept {
    return read([](const T& value) { return value; });
  }

  /// What `look(const T&)` answers; it must not keep a reference nor call back here.
  template <class Look>
  auto read(Look&& look) const noexcept {
    const Lock lock(mutex_);
    return look(static_cast<const T&>(*current_.load(std::memory_order_seq_cst)));
  }

  void set(T value) noexcept {
    const Lock lock(mutex_);
    publish(current_.load(std::memory_order_seq_cst), make(std::move(value)));
  }

  /// `change(T&)` on a copy, which is then published; answers what `change` answers.
  template <class Change>
  auto update(Change&& change) noexcept {
    const Lock lock(mutex_);
    T* const old = current_.load(std::memory_order_seq_cst);
    T* const copy = make(*old);
    if constexpr (std::is_void_v<decltype(change(*copy))>) {
      change(*copy);
      publish(old, copy);
    } else {
      auto answer = change(*copy);
      publish(old, copy);
      return answer;
    }
  }

 private:
  static T* make(T value) noexcept { return new (core::allocate(sizeof(T))) T(std::move(value)); }
  static void free(T* value) noexcept {
    value->~T();
    core::deallocate(value);
  }
  void publish(T* old, T* fresh) noexcept {
    if (CrashOwner::isCurrentThread()) [[unlikely]] {
      current_.store(fresh, std::memory_order_seq_cst);
      return;
    }
    // Only the owner of a crash, who needs no lock, can have come between: what it published stays.
    if (current_.compare_exchange_strong(old, fresh, std::memory_order_seq_cst) && !CrashOwner::exists()) {
      free(old);
    }
  }

  mutable Mutex mutex_;
  std::atomic<T*> current_;
};

}  // namespace core
