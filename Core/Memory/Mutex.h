#pragma once

#include <pthread.h>

#include "Core/Memory/CrashOwner.h"

namespace core {

/// The lock of an object's state. The thread that holds it may take it again, as operations
/// of one object call each other.
class Mutex {
 public:
  Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() noexcept { pthread_mutex_lock(&mutex_); }
  bool tryLock() noexcept { return pthread_mutex_trylock(&mutex_) == 0; }
  void unlock() noexcept { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_ = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};

/// Holds a mutex for a scope. The owner of a crash tries once and goes on without it: the
/// holder may be stopped for good. What the crash path reads must therefore be Published.
class [[nodiscard]] Lock {
 public:
  explicit Lock(Mutex& mutex) noexcept : mutex_(mutex) {
    if (CrashOwner::isCurrentThread()) [[unlikely]] {
      held_ = mutex_.tryLock();
    } else {
      mutex_.lock();
    }
  }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() {
    if (held_) {
      mutex_.unlock();
    }
  }

  /// False only on the owner of a crash.
  bool held() const noexcept { return held_; }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

}  // namespace core
