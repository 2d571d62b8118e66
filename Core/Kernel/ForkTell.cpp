#include "Core/Kernel/ForkTell.h"

#include <sys/mman.h>
#include <sys/syscall.h>

#include <atomic>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/SystemCall.h"

namespace core {
namespace {

constexpr std::size_t kPage = 4096;

/// The word at the page's start: the process that prepared, 0 once wiped.
std::atomic<std::atomic<int>*> page{nullptr};

}  // namespace

bool ForkTell::prepare() noexcept {
  std::atomic<int>* word = page.load(std::memory_order_acquire);
  if (word == nullptr) {
    const long made = systemCall(SYS_mmap, nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (made < 0) {
      return false;
    }
    word = reinterpret_cast<std::atomic<int>*>(made);
  }
  const bool wiped = systemCall(SYS_madvise, word, kPage, MADV_WIPEONFORK) == 0;
  word->store(processId(), std::memory_order_relaxed);
  page.store(word, std::memory_order_release);
  return wiped;
}

ForkTell::Process ForkTell::current() noexcept {
  const std::atomic<int>* word = page.load(std::memory_order_acquire);
  if (word == nullptr) {
    return Process::kOwn;
  }
  if (isForked()) {
    return Process::kForked;
  }
  return word->load(std::memory_order_relaxed) == processId() ? Process::kOwn : Process::kVforked;
}

bool ForkTell::isForked() noexcept {
  const std::atomic<int>* word = page.load(std::memory_order_acquire);
  return word != nullptr && word->load(std::memory_order_relaxed) == 0;
}

}  // namespace core
