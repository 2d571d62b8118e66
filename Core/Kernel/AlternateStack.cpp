#include "Core/Kernel/AlternateStack.h"

#include <errno.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SuspensionRound.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kAddressSpace = std::size_t{256} << 10;
constexpr std::size_t kLeastForHandlers = std::size_t{64} << 10;
constexpr std::uint32_t kMost = 16384;
/// Stacks that must have been handed out since the last look for ended threads, at the least.
constexpr std::uint32_t kLookAfter = 16;

struct Record {
  std::atomic<char*> low{nullptr};      ///< above the guard
  std::atomic<std::uint64_t> owner{0};  ///< process and thread, 0 for none
  std::atomic<std::uint32_t> next{0};   ///< in the free list: index + 1, 0 at its end
};
std::array<Record, kMost> records;
std::atomic<std::uint32_t> recordCount{0};

/// The free list's head: index + 1 below, above it a count of changes, so that a head that was taken and
/// put back meanwhile is noticed.
std::atomic<std::uint64_t> freeHead{0};

std::atomic<std::uint32_t> handedOut{0};
std::atomic<std::uint32_t> nextLook{kLookAfter};

std::uint64_t ownerOf(int thread) noexcept {
  return static_cast<std::uint64_t>(processId()) << 32 | static_cast<std::uint32_t>(thread);
}

std::uint64_t headAfter(std::uint64_t head, std::uint32_t link) noexcept {
  return ((head >> 32) + 1) << 32 | link;
}

void putBack(Record& record) noexcept {
  const auto link = static_cast<std::uint32_t>(&record - records.data()) + 1;
  std::uint64_t head = freeHead.load(std::memory_order_relaxed);
  do {
    record.next.store(static_cast<std::uint32_t>(head), std::memory_order_relaxed);
  } while (!freeHead.compare_exchange_weak(head, headAfter(head, link), std::memory_order_acq_rel));
}

Record* takeFree() noexcept {
  std::uint64_t head = freeHead.load(std::memory_order_acquire);
  while (const auto link = static_cast<std::uint32_t>(head)) {
    Record& record = records[link - 1];
    const std::uint32_t next = record.next.load(std::memory_order_relaxed);
    if (freeHead.compare_exchange_weak(head, headAfter(head, next), std::memory_order_acq_rel)) {
      return &record;
    }
  }
  return nullptr;
}

/// Takes the stacks of ended threads back. A parent's threads, seen by a forked child, do not
/// count as ended: the child's own thread still uses one of their stacks.
void collect() noexcept {
  const int process = processId();
  std::uint32_t owned = 0;
  const std::uint32_t count = std::min(recordCount.load(std::memory_order_acquire), kMost);
  for (std::uint32_t i = 0; i < count; ++i) {
    Record& record = records[i];
    std::uint64_t owner = record.owner.load(std::memory_order_acquire);
    if (owner == 0 || static_cast<int>(owner >> 32) != process) {
      continue;
    }
    if (systemCall(SYS_tgkill, process, owner & 0xFFFFFFFFU, 0) != -ESRCH) {
      ++owned;
    } else if (record.owner.compare_exchange_strong(owner, 0, std::memory_order_acq_rel)) {
      systemCall(SYS_madvise, record.low.load(std::memory_order_relaxed), AlternateStack::size(), MADV_DONTNEED);
      putBack(record);
    }
  }
  nextLook.store(handedOut.load(std::memory_order_relaxed) + std::max(kLookAfter, owned / 4),
                 std::memory_order_relaxed);
}

Record* makeRecord() noexcept {
  const std::size_t whole = AlternateStack::size() + kPage;
  const long mapped = systemCall(SYS_mmap, nullptr, whole, PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
  if (mapped < 0) {
    return nullptr;
  }
  std::uint32_t index = recordCount.load(std::memory_order_relaxed);
  while (index < kMost && !recordCount.compare_exchange_weak(index, index + 1, std::memory_order_acq_rel)) {
  }
  if (index == kMost || systemCall(SYS_mprotect, mapped, kPage, PROT_NONE) < 0) {
    systemCall(SYS_munmap, mapped, whole);
    return nullptr;
  }
  records[index].low.store(reinterpret_cast<char*>(mapped) + kPage, std::memory_order_release);
  return &records[index];
}

/// Makes memory of the pages that the kernel's frame and a small handler's own take.
void touchTop(const Record& record) noexcept {
  constexpr std::size_t kSmallHandler = 1024;
  const std::size_t used = getauxval(AT_MINSIGSTKSZ) + kSmallHandler;
  volatile char* const end = record.low.load(std::memory_order_relaxed) + AlternateStack::size();
  for (std::size_t depth = 1; depth < used + kPage; depth += kPage) {
    *(end - depth) = 0;
  }
}

Record* take(int thread) noexcept {
  Record* record = takeFree();
  if (record == nullptr && handedOut.load(std::memory_order_relaxed) >= nextLook.load(std::memory_order_relaxed)) {
    collect();
    record = takeFree();
  }
  if (record == nullptr) {
    record = makeRecord();
  }
  if (record != nullptr) {
    touchTop(*record);
    handedOut.fetch_add(1, std::memory_order_relaxed);
    record->owner.store(ownerOf(thread), std::memory_order_release);
  }
  return record;
}

void release(Record& record) noexcept {
  record.owner.store(0, std::memory_order_release);
  putBack(record);
}

stack_t stackOf(const Record& record) noexcept {
  stack_t stack{};
  stack.ss_sp = record.low.load(std::memory_order_relaxed);
  stack.ss_size = AlternateStack::size();
  return stack;
}

enum class Outcome { kGiven, kHad, kUnreachable };

Outcome giveToCalling() noexcept {
  stack_t current{};
  if (systemCall(SYS_sigaltstack, nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0) {
    return Outcome::kHad;
  }
  Record* record = take(threadId());
  if (record == nullptr) {
    return Outcome::kUnreachable;
  }
  const stack_t stack = stackOf(*record);
  if (systemCall(SYS_sigaltstack, &stack, nullptr) != 0) {
    release(*record);
    return Outcome::kUnreachable;
  }
  return Outcome::kGiven;
}

Outcome giveTo(SuspensionRound& round, int thread) noexcept {
  Record* record = take(thread);
  if (record == nullptr) {
    return Outcome::kUnreachable;
  }
  bool held;
  bool took;
  {
    SuspendedThread suspended = round.ask(thread, {.offeredStack = stackOf(*record)});
    held = suspended.wait() == SuspendedThread::Answer::kHeld;
    took = suspended.tookStack();
  }
  if (!took) {
    release(*record);
  }
  return took ? Outcome::kGiven : held ? Outcome::kHad : Outcome::kUnreachable;
}

std::size_t touched(const Record& record) noexcept {
  std::uint8_t pages[kAddressSpace / kPage];
  const char* low = record.low.load(std::memory_order_acquire);
  const std::size_t count = std::min(AlternateStack::size() / kPage, std::size(pages));
  const std::size_t skipped = AlternateStack::size() / kPage - count;
  if (low == nullptr || systemCall(SYS_mincore, low + skipped * kPage, count * kPage, pages) != 0) {
    return 0;
  }
  const std::uint8_t* first = std::find_if(pages, pages + count, [](std::uint8_t page) { return (page & 1) != 0; });
  return static_cast<std::size_t>(pages + count - first) * kPage;
}

}  // namespace

bool AlternateStack::giveToCaller() noexcept {
  return giveToCalling() != Outcome::kUnreachable;
}

AlternateStack::Handout AlternateStack::giveToAll(SuspensionRound& round) noexcept {
  Handout handout{};
  std::size_t* const counts[] = {&handout.given, &handout.had, &handout.unreachable};
  const ThreadList list = ThreadList::read();
  for (const int thread : list.threads()) {
    const Outcome outcome = thread == threadId() ? giveToCalling() : giveTo(round, thread);
    ++*counts[static_cast<std::size_t>(outcome)];
  }
  return handout;
}

std::size_t AlternateStack::count() noexcept {
  return recordCount.load(std::memory_order_relaxed);
}

std::size_t AlternateStack::highWaterMark() noexcept {
  std::size_t most = 0;
  for (std::uint32_t i = 0; i < recordCount.load(std::memory_order_acquire); ++i) {
    most = std::max(most, touched(records[i]));
  }
  return most;
}

std::size_t AlternateStack::size() noexcept {
  const std::size_t least = (kLeastForHandlers + getauxval(AT_MINSIGSTKSZ) + kPage - 1) / kPage * kPage;
  return std::max(kAddressSpace - kPage, least);
}

}  // namespace core
