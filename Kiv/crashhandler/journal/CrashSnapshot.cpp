#include "Kiv/crashhandler/journal/CrashSnapshot.h"

#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <type_traits>

#include "Core/Kernel/SystemCall.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Core/Memory/Checksum.h"

// It is to be read by another process than the one that wrote it.
static_assert(std::is_trivially_copyable_v<CrashSnapshot> && std::is_standard_layout_v<CrashSnapshot>);
static_assert(sizeof(CrashSnapshot::Thread) == 36 && offsetof(CrashSnapshot::Thread, check) == 32);
static_assert(offsetof(CrashSnapshot, threads) == 8 && offsetof(CrashSnapshot, addresses) == 8 + 4096 * 36);

CrashSnapshot::Mapped CrashSnapshot::map() noexcept {
  const long mapped = core::systemCall(SYS_mmap, nullptr, sizeof(CrashSnapshot), PROT_READ | PROT_WRITE,
                                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return Mapped(mapped > 0 ? reinterpret_cast<CrashSnapshot*>(mapped) : nullptr);
}

void CrashSnapshot::Unmap::operator()(CrashSnapshot* snapshot) const noexcept {
  core::systemCall(SYS_munmap, snapshot, sizeof *snapshot);
}

bool CrashSnapshot::appendThread(std::uint32_t port, std::uint32_t index, const core::ThreadName& name,
                                 std::span<const std::uint64_t> stack, bool isCrashed) noexcept {
  if (threadCount >= kMostThreads - (isCrashed ? 0 : 1)) {
    return false;
  }
  Thread& thread = threads[threadCount];
  thread = {port, index, 0, 0, name, 0};
  setStack(thread, stack, isCrashed);
  std::atomic_signal_fence(std::memory_order_release);
  ++threadCount;
  return true;
}

void CrashSnapshot::setStack(Thread& thread, std::span<const std::uint64_t> stack, bool isCrashed) noexcept {
  const std::uint32_t end = kMostAddresses - (isCrashed ? 0 : std::uint32_t{core::kMostFrames});
  const std::uint32_t room = end - std::min(addressCount, end);
  thread.firstFrame = addressCount;
  thread.frameCount = static_cast<std::uint32_t>(std::min<std::size_t>(stack.size(), room));
  std::copy_n(stack.begin(), thread.frameCount, addresses + addressCount);
  addressCount += thread.frameCount;
  thread.check = checkOf(thread);
}

std::span<CrashSnapshot::Thread> CrashSnapshot::allThreads() noexcept {
  return {threads, std::min(threadCount, kMostThreads)};
}

std::span<const CrashSnapshot::Thread> CrashSnapshot::allThreads() const noexcept {
  return {threads, std::min(threadCount, kMostThreads)};
}

std::span<const std::uint64_t> CrashSnapshot::stackOf(const Thread& thread) const noexcept {
  const std::uint32_t first = std::min(thread.firstFrame, kMostAddresses);
  return {addresses + first, std::min(thread.frameCount, kMostAddresses - first)};
}

bool CrashSnapshot::isWhole(const Thread& thread) const noexcept {
  return thread.check == checkOf(thread) && stackOf(thread).size() == thread.frameCount;
}

std::uint32_t CrashSnapshot::checkOf(const Thread& thread) const noexcept {
  const auto stack = stackOf(thread);
  return core::checksum(&thread, offsetof(Thread, check)) ^ core::checksum(stack.data(), stack.size_bytes());
}
