#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <type_traits>

#include "Core/Kernel/Uninstrumented.h"

namespace core {

/// One system call straight to the kernel: no errno, no cancellation point, no
/// interposed wrapper, fit for the suspension handler too. Answers the result or -errno.
KIV_UNINSTRUMENTED inline long rawSystemCall(long number, long a = 0, long b = 0, long c = 0, long d = 0, long e = 0,
                                             long f = 0) noexcept {
  long result;
  register long r10 asm("r10") = d;
  register long r8 asm("r8") = e;
  register long r9 asm("r9") = f;
  asm volatile("syscall"
               : "=a"(result)
               : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8), "r"(r9)
               : "rcx", "r11", "memory");
  return result;
}

/// Asked before each counted call; a value below 0 is answered in the call's place.
/// Tests set it to count, to fail the n-th call, or to die there.
using SystemCallProbe = long (*)(long number) noexcept;

/// Installs `probe` for the whole process, nullptr for none. Answers the one before.
SystemCallProbe setSystemCallProbe(SystemCallProbe probe) noexcept;

extern std::atomic<SystemCallProbe> systemCallProbe;

template <class T>
long systemCallArgument(T value) noexcept {
  if constexpr (std::is_pointer_v<T> || std::is_null_pointer_v<T>) {
    return reinterpret_cast<long>(value);
  } else {
    return static_cast<long>(value);
  }
}

/// The counted system call that every file, clock and thread operation of Core goes
/// through, so that a test can sweep them. Answers the result or -errno; errno is left alone.
template <class... Arguments>
long systemCall(long number, Arguments... arguments) noexcept {
  if (const SystemCallProbe probe = systemCallProbe.load(std::memory_order_relaxed)) {
    if (const long injected = probe(number); injected < 0) {
      return injected;
    }
  }
  return rawSystemCall(number, systemCallArgument(arguments)...);
}

/// The same, made again for as long as a signal interrupts it.
template <class... Arguments>
long restartedSystemCall(long number, Arguments... arguments) noexcept {
  long result;
  do {
    result = systemCall(number, arguments...);
  } while (result == -EINTR);
  return result;
}

/// The errno value in a call's result, 0 for success.
inline int errorOf(long result) noexcept {
  return result < 0 ? static_cast<int>(-result) : 0;
}

}  // namespace core
