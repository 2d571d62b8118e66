#pragma once

#include <optional>

#include "Core/Files/RecordLock.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/Mutex.h"

/// Held while the store's files are read and then changed: keeps the process's threads apart, and the
/// processes that share the directory. Nests. The owner of a crash tries once and goes on without;
/// so does everybody where the directory takes no lock file.
class [[nodiscard]] StoreLock {
 public:
  explicit StoreLock(const core::String& folder) noexcept;
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;
  ~StoreLock();

  /// Whether another thread crashes: what is in the store by now is that crash's alone to change.
  static bool isLeftToCrash() noexcept { return core::CrashOwner::exists() && !core::CrashOwner::isCurrentThread(); }

 private:
  core::Lock threads_;
  std::optional<core::RecordLock> processes_;
};

/// `work`, which on the owner of a crash may run out of memory without ending more than itself: false.
template <class Work>
bool withinCrashMemory(Work&& work) noexcept {
  if (core::CrashOwner::isCurrentThread()) {
    return core::CrashSection::run(work);
  }
  work();
  return true;
}
