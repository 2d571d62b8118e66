#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>

namespace core {

/// Signal sets and actions in the kernel's own layout, for the raw calls.
using KernelSignalSet = std::uint64_t;

constexpr KernelSignalSet signalBit(int signal) noexcept {
  return KernelSignalSet{1} << (signal - 1);
}

struct KernelSignalAction {
  void (*handler)(int, siginfo_t*, void*);
  unsigned long flags;
  void (*restorer)();
  KernelSignalSet mask;
};

/// Flag of an action whose restorer is set.
inline constexpr unsigned long kSignalRestorer = 0x04000000;

}  // namespace core
