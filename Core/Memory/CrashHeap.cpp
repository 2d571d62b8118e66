#include "Core/Memory/CrashHeap.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <atomic>
#include <cstdint>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

std::atomic<std::uintptr_t> base{0};
std::atomic<std::size_t> next{0};

/// The chain of sections of the owning thread, innermost first.
struct Frame {
  void* jump[5];
  Frame* outer;
};
Frame* innermost = nullptr;

}  // namespace

bool CrashHeap::reserve() noexcept {
  if (base.load(std::memory_order_acquire) != 0) {
    return true;
  }
  const long mapped = systemCall(SYS_mmap, nullptr, kCapacity, PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapped < 0 && mapped > -4096) {
    return false;
  }
  std::uintptr_t expected = 0;
  const auto region = static_cast<std::uintptr_t>(mapped);
  if (!base.compare_exchange_strong(expected, region, std::memory_order_acq_rel)) {
    systemCall(SYS_munmap, region, kCapacity);
    return true;
  }
  return true;
}

void CrashHeap::touch() noexcept {
  if (const std::uintptr_t region = base.load(std::memory_order_acquire)) {
    systemCall(SYS_madvise, region, kTouched, MADV_POPULATE_WRITE);
  }
}

void* CrashHeap::take(std::size_t bytes) noexcept {
  const std::uintptr_t region = base.load(std::memory_order_acquire);
  const std::size_t rounded = (bytes + 15) & ~std::size_t{15};
  if (region == 0 || rounded < bytes || rounded > kCapacity) {
    CrashSection::leave();
  }
  const std::size_t offset = next.fetch_add(rounded, std::memory_order_relaxed);
  if (offset > kCapacity - rounded) {
    next.fetch_sub(rounded, std::memory_order_relaxed);
    CrashSection::leave();
  }
  return reinterpret_cast<void*>(region + offset);
}

bool CrashHeap::contains(const void* address) noexcept {
  const std::uintptr_t region = base.load(std::memory_order_relaxed);
  return region != 0 && reinterpret_cast<std::uintptr_t>(address) - region < kCapacity;
}

std::size_t CrashHeap::used() noexcept {
  return next.load(std::memory_order_relaxed);
}

// The builtin pair saves nothing but the stack and frame pointers: no mask, no mangling, no
// library call, so it is sound on an alternate stack.
[[gnu::noinline]] bool CrashSection::enter(void (*work)(void*), void* context) noexcept {
  Frame frame;
  Frame* volatile kept = innermost;
  frame.outer = kept;
  innermost = &frame;
  if (__builtin_setjmp(frame.jump) != 0) {
    innermost = kept;
    return false;
  }
  work(context);
  innermost = kept;
  return true;
}

[[gnu::noinline]] void CrashSection::leave() noexcept {
  if (innermost == nullptr) {
    dieBySignal(SIGABRT);
  }
  __builtin_longjmp(innermost->jump, 1);
}

}  // namespace core
