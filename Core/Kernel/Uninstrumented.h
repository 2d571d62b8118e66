#pragma once

/// Marks a function that runs in the suspension handler, at any instruction of any thread: no
/// sanitizer may add calls of its own to it, since they could stand in the middle of theirs.
/// It may call only functions of its own file, or inline ones of internal linkage, that are
/// marked likewise.
#if defined(__clang__)
#define KIV_UNINSTRUMENTED \
  __attribute__((no_sanitize("address", "thread", "undefined"), disable_sanitizer_instrumentation))
#else
#define KIV_UNINSTRUMENTED __attribute__((no_sanitize("address,thread,undefined")))
#endif

namespace core {

/// A system call for such functions; see rawSystemCall.
KIV_UNINSTRUMENTED static inline long uninstrumentedCall(long number, long a = 0, long b = 0, long c = 0, long d = 0,
                                                         long e = 0, long f = 0) {
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

}  // namespace core
