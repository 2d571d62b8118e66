#pragma once

#include "Core/Kernel/SystemCall.h"

namespace test {

/// Has a probe asked before each counted system call of the process while it lives.
class CallProbe {
 public:
  explicit CallProbe(core::SystemCallProbe probe) { core::setSystemCallProbe(probe); }
  CallProbe(const CallProbe&) = delete;
  CallProbe& operator=(const CallProbe&) = delete;
  ~CallProbe() { core::setSystemCallProbe(nullptr); }
};

/// A probe that has every call of that number fail.
template <long kNumber, int kError>
long failing(long number) noexcept {
  return number == kNumber ? -kError : 0;
}

/// The n-th call of `work` answers `result`, or does what `act` does. False once `work` makes fewer calls.
template <class Work>
bool runWithFault(long n, long result, Work&& work, void (*act)() = nullptr) {
  static long left;
  static long answer;
  static void (*instead)();
  left = n;
  answer = result;
  instead = act;
  const CallProbe probe([](long) noexcept -> long {
    if (--left != 0) {
      return 0;
    }
    if (instead != nullptr) {
      instead();
    }
    return answer;
  });
  work();
  return left <= 0;
}

}  // namespace test
