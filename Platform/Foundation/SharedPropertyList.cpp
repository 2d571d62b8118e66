#include "Platform/Foundation/SharedPropertyList.h"

#include <cerrno>

#include "Core/Files/Directory.h"
#include "Core/Files/RecordLock.h"
#include "Core/Memory/Mutex.h"
#include "Core/Text/Format.h"

namespace platform {
namespace {

/// Record locks keep processes apart, this one the threads of this process.
core::Mutex threads;

/// Exclusive access to a file for a scope. Where its directory takes no lock file nothing can
/// be written or renamed either, and reading needs no lock.
class Exclusion {
 public:
  explicit Exclusion(const core::String& path) noexcept
      : lock_(threads), recordLock_(core::RecordLock::acquire(core::kiv_format("%@.lock", path), mode())) {}

 private:
  static core::RecordLock::Mode mode() noexcept {
    return core::CrashOwner::isCurrentThread() ? core::RecordLock::Mode::kTry : core::RecordLock::Mode::kWait;
  }

  core::Lock lock_;
  core::Result<core::RecordLock, int> recordLock_;
};

}  // namespace

StoredPropertyList readSharedPropertyList(const core::String& path) noexcept {
  if (!core::fileExists(path)) {
    return {};
  }
  const Exclusion exclusion(path);
  return readStoredPropertyList(path);
}

int changeSharedPropertyList(const core::String& path,
                             const core::Block<bool(core::ValueDictionary&)>& change) noexcept {
  if (const int error = core::createDirectories(core::parentPath(path))) {
    return error;
  }
  const Exclusion exclusion(path);
  StoredPropertyList stored = readStoredPropertyList(path);
  if (!stored.writable) {
    return ECANCELED;
  }
  return change(stored.content) ? writeStoredPropertyList(path, stored.content) : 0;
}

}  // namespace platform
