#pragma once

#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <thread>

#include "Core/Kernel/Symbols/SymbolTables.h"

/// What the programs that die on purpose share: ways to die, handlers of other components, threads that
/// stand by. Their functions are looked for by name in what is left.
namespace victim {

// Numbers that the optimiser must not know.
inline volatile std::uintptr_t opaqueNull = 0;
inline volatile int opaqueZero = 0;

[[gnu::always_inline]] inline void writeTo(std::uintptr_t address) {
  *reinterpret_cast<volatile int*>(address) = 1;
}

[[gnu::noinline]] inline void nullWrite() {
  writeTo(opaqueNull);
}
[[gnu::noinline]] inline void writeNearNull() {
  writeTo(opaqueNull + 8);
}
[[gnu::noinline]] inline void integerDivision() {
  volatile int one = 1;
  one = one / opaqueZero;
}

[[gnu::noinline]] inline int recurse(int depth) {
  volatile char room[1024];
  room[depth % 1024] = static_cast<char>(depth);
  return depth < opaqueZero ? 0 : recurse(depth + 1) + room[depth % 1024];
}
[[gnu::noinline]] inline void overflowStack() {
  recurse(0);
  asm volatile("");  // not a jump
}

/// The application's callback, which faults at its first call, or at its first two.
template <void (*first)(), void (*second)() = nullptr>
int faultingCallback() {
  static int calls = 0;
  ++calls;
  if (calls == 1) {
    first();
  } else if (calls == 2 && second != nullptr) {
    second();
  }
  return 0;
}

/// The handler of another component.
inline void setHandler(int signal, void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigaction(signal, &action, nullptr);
}

inline void setLimit(int resource, rlim_t value) {
  const rlimit lowered{value, value};
  setrlimit(resource, &lowered);
}

inline std::atomic<int> blocked{0};
inline std::mutex& gate = *new std::mutex;
inline std::condition_variable& never = *new std::condition_variable;  // an end in order waits for no thread

[[gnu::noinline]] inline int blockDeep(int depth) {
  volatile int kept = depth;
  if (depth == 0) {
    std::unique_lock lock(gate);
    ++blocked;
    never.wait(lock, [] { return opaqueZero != 0; });
  } else {
    kept = blockDeep(depth - 1);
  }
  return kept + 1;
}

/// Threads that stand by, each with 18 frames of blockDeep.
inline void startBlockedThreads(int count) {
  constexpr int kDepth = 17;
  for (int i = 0; i < count; ++i) {
    std::thread([] { blockDeep(kDepth); }).detach();
  }
  while (blocked < count) {
    std::this_thread::yield();
  }
}

/// Crashes of one second share a file, so that the later one replaces the other.
inline void waitForNextSecond() {
  for (const std::time_t now = std::time(nullptr); std::time(nullptr) == now;) {
    std::this_thread::yield();
  }
}

/// The tables are made in the background: functions have names from then on.
inline void waitForNames() {
  const auto address = reinterpret_cast<std::uint64_t>(&nullWrite);
  while (!core::SymbolTables::View().lookup(address)) {
    std::this_thread::yield();
  }
}

}  // namespace victim
