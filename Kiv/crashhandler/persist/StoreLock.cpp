#include "Kiv/crashhandler/persist/StoreLock.h"

#include <fcntl.h>

#include "Core/Files/Directory.h"

namespace {

constexpr std::string_view kName = ".store.lock";

/// Of the process, as the record lock is: a second one would drop it.
core::Mutex mutex;
int depth = 0;  // under mutex

}  // namespace

StoreLock::StoreLock(const core::String& folder) noexcept : threads_(mutex) {
  if (!threads_.held() || depth++ != 0) {
    return;
  }
  using Mode = core::RecordLock::Mode;
  const bool isCrash = core::CrashOwner::isCurrentThread();
  auto lock = core::RecordLock::acquire(core::joinPath(folder, kName), isCrash ? Mode::kTry : Mode::kWait);
  // A crash needs its last descriptor for the record.
  if (lock && (!isCrash || core::File::open(folder, O_RDONLY | O_DIRECTORY))) {
    processes_.emplace(std::move(*lock));
  }
}

StoreLock::~StoreLock() {
  if (threads_.held()) {
    --depth;
  }
}
