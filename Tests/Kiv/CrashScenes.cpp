#include "Tests/Kiv/CrashScenes.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <barrier>
#include <cstdlib>
#include <functional>
#include <map>
#include <thread>
#include <vector>

#include "Core/Kernel/SystemCall.h"
#include "Core/Memory/CrashOwner.h"
#include "Tests/Support/HeapCount.h"

namespace test {
namespace {

// Addresses and numbers that the optimiser must not know.
volatile std::uintptr_t opaqueNull = 0;
volatile std::uintptr_t opaqueWild = 0x5A5A5A5A5A5A5A5A;
volatile int opaqueZero = 0;

[[gnu::noinline]] void writeThrough(std::uintptr_t address) {
  *reinterpret_cast<volatile int*>(address) = 1;
}

[[gnu::noinline]] int overflowStack(int depth) {
  volatile char room[1024];
  room[0] = static_cast<char>(depth);
  return depth < opaqueZero ? 0 : overflowStack(depth + 1) + room[0];
}

void limit(int resource, rlim_t value) {
  const rlimit lowered{value, value};
  setrlimit(resource, &lowered);
}

void useUpDescriptors() {
  limit(RLIMIT_NOFILE, 64);
  while (open("/dev/null", O_RDONLY) >= 0) {
  }
}

template <class Work>
void onThreadsAtOnce(int count, Work work) {
  std::barrier<> together(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&] {
      together.arrive_and_wait();
      work();
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

/// Acts on the first file that the owner of a crash opens.
template <void (*act)()>
void onFirstOpen() {
  core::setSystemCallProbe([](long number) noexcept -> long {
    if (number == SYS_openat && core::CrashOwner::isCurrentThread()) {
      act();
    }
    return 0;
  });
}

void hang() {
  for (;;) {
    pause();
  }
}

void divide() {
  volatile int one = 1;
  one = one / opaqueZero;
}

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
  const auto nullWrite = [] { writeThrough(opaqueNull); };
  const std::map<std::string, std::function<void()>> kinds = {
      {"null-write", nullWrite},
      {"call-null", [] { reinterpret_cast<void (*)()>(opaqueNull)(); }},
      {"non-canonical", [] { writeThrough(opaqueWild); }},
      {"division", divide},
      {"abort", [] { std::abort(); }},
      {"stack-overflow", [] { overflowStack(0); }},
      {"no-descriptors",
       [&] {
         useUpDescriptors();
         nullWrite();
       }},
      {"no-memory",
       [&] {
         limit(RLIMIT_AS, 1);
         nullWrite();
       }},
      {"ten-faults", [&] { onThreadsAtOnce(10, nullWrite); }},
      {"two-aborts", [] { onThreadsAtOnce(2, [] { std::abort(); }); }},
      {"hang",
       [&] {
         onFirstOpen<hang>();
         nullWrite();
       }},
      {"by-another-thread", hang},
      {"second-fault",
       [&] {
         onFirstOpen<divide>();
         nullWrite();
       }},
#ifdef KIV_SHOWS_HEAP_CALLS
      {"heap-calls",
       [&] {
         std::thread([&] {
           showHeapCalls();
           void* volatile piece = std::malloc(1);  // shows that the showing works
           std::free(piece);
           nullWrite();
         }).join();
       }},
#endif
  };
  kinds.at(kind)();
}

}  // namespace test
