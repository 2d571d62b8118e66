#include "Tests/Kiv/CrashScenes.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <thread>

#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/CrashOwner.h"
#include "Tests/Support/HeapCount.h"

namespace test {
namespace {

// Numbers that the optimiser must not know.
volatile std::uintptr_t opaqueNull = 0;
volatile int opaqueZero = 0;

void nullWrite() {
  *reinterpret_cast<volatile int*>(opaqueNull) = 1;
}

[[gnu::noinline]] int overflowStack(int depth) {
  volatile char room[1024];
  room[0] = static_cast<char>(depth);
  return depth < opaqueZero ? 0 : overflowStack(depth + 1) + room[0];
}

void hang() {
  for (;;) {
    pause();
  }
}

/// The owner of the crash never comes back from opening a file.
void hangInHandling() {
  core::setSystemCallProbe([](long number) noexcept -> long {
    if (number == SYS_openat && core::CrashOwner::isCurrentThread()) {
      hang();
    }
    return 0;
  });
  nullWrite();
}

#ifdef KIV_SHOWS_HEAP_CALLS
void showHeapCallsOfCrash() {
  std::thread([] {
    showHeapCalls();
    void* volatile piece = std::malloc(1);  // shows that the showing works
    std::free(piece);
    nullWrite();
  }).join();
}
#endif

}  // namespace

void overflowOnceGivenAStack() {
  std::thread([] {
    for (stack_t stack{}; sigaltstack(nullptr, &stack) != 0 || (stack.ss_flags & SS_DISABLE) != 0;) {
      std::this_thread::yield();
    }
    overflowStack(0);
  }).detach();
}

void crash(const std::string& kind) {
  const std::map<std::string, void (*)()> kinds = {
      {"abort", std::abort},
      {"hang", hangInHandling},
      {"by-another-thread", hang},
#ifdef KIV_SHOWS_HEAP_CALLS
      {"heap-calls", showHeapCallsOfCrash},
#endif
  };
  kinds.at(kind)();
}

}  // namespace test
