#include "Core/Memory/CrashOwner.h"

#include <sys/syscall.h>

#include "Core/Kernel/SystemCall.h"

namespace core {

std::atomic<int> CrashOwner::owner_{0};
std::atomic<const void*> CrashOwner::control_{nullptr};

CrashOwner::Claim CrashOwner::claim() noexcept {
  const auto self = static_cast<int>(rawSystemCall(SYS_gettid));
  int expected = 0;
  if (owner_.compare_exchange_strong(expected, self, std::memory_order_seq_cst)) {
    control_.store(currentControl(), std::memory_order_relaxed);
    return Claim::kFirst;
  }
  return expected == self ? Claim::kAgain : Claim::kRefused;
}

void CrashOwner::release() noexcept {
  control_.store(nullptr, std::memory_order_relaxed);
  owner_.store(0, std::memory_order_seq_cst);
}

}  // namespace core
