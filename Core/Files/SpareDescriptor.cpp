#include "Core/Files/SpareDescriptor.h"

#include <fcntl.h>
#include <sys/syscall.h>

#include <atomic>

#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constinit std::atomic<int> spare{-1};

}  // namespace

void SpareDescriptor::prepare() noexcept {
  if (spare.load() < 0) {
    const long opened = systemCall(SYS_openat, AT_FDCWD, "/dev/null", O_RDONLY | O_CLOEXEC, 0);
    int none = -1;
    if (opened >= 0 && !spare.compare_exchange_strong(none, static_cast<int>(opened))) {
      systemCall(SYS_close, opened);
    }
  }
}

bool SpareDescriptor::giveUp() noexcept {
  const int held = spare.exchange(-1);
  return held >= 0 && systemCall(SYS_close, held) == 0;
}

}  // namespace core
