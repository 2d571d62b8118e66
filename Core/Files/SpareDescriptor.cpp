#include "Core/Files/SpareDescriptor.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <atomic>

#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constinit std::atomic<int> spares[SpareDescriptor::kHeld] = {-1, -1, -1};

}  // namespace

void SpareDescriptor::prepare() noexcept {
  for (std::atomic<int>& spare : spares) {
    if (spare.load() >= 0) {
      continue;
    }
    const long opened = systemCall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC, 0);
    int none = -1;
    if (opened >= 0 && !spare.compare_exchange_strong(none, static_cast<int>(opened))) {
      systemCall(SYS_close, opened);
    }
  }
}

bool SpareDescriptor::giveUp() noexcept {
  for (std::atomic<int>& spare : spares) {
    const int held = spare.exchange(-1);
    if (held >= 0 && systemCall(SYS_close, held) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace core
