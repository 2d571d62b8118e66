#include "Core/Memory/CrashOwner.h"

#include <sys/syscall.h>

#include "Core/Kernel/SystemCall.h"

namespace core {

std::atomic<int> CrashOwner::owner_{0};

int CrashOwner::currentThreadId() noexcept {
  return static_cast<int>(rawSystemCall(SYS_gettid));
}

CrashOwner::Claim CrashOwner::claim() noexcept {
  const int self = currentThreadId();
  int expected = 0;
  if (owner_.compare_exchange_strong(expected, self, std::memory_order_seq_cst)) {
    return Claim::kFirst;
  }
  return expected == self ? Claim::kAgain : Claim::kRefused;
}

void CrashOwner::release() noexcept {
  owner_.store(0, std::memory_order_seq_cst);
}

}  // namespace core
