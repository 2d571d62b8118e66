// Dies in the way that its command line names, beside as many blocked threads as it says:
// crash_victim <case> <threads>. HarnessTest.cpp looks at what is left.

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <link.h>
#include <barrier>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Kiv/crashhandler/CrashReporter.h"
#include "Tests/Harness/VictimParts.h"

#define CASE extern "C" [[gnu::noinline]] void

namespace {

using namespace victim;

struct OwnError {
  int code;
};

class Incomplete {
 public:
  [[gnu::noinline]] Incomplete() { callOwn(this); }
  virtual ~Incomplete() = default;
  virtual void work() = 0;

 private:
  [[gnu::noinline]] static void callOwn(Incomplete* self) { self->work(); }
};
class Complete final : public Incomplete {
  void work() override {}
};

/// Ends by a call that may throw, as far as the compiler can see.
struct CallsAtItsEnd {
  void (*volatile call)();
  ~CallsAtItsEnd() noexcept(false) { call(); }
};

void onThreadsAtOnce(int count, void (*work)()) {
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

void onOwnThread(void (*work)()) {
  std::thread(work).join();
}

}  // namespace

CASE callThroughNull() {
  reinterpret_cast<void (*)()>(opaqueNull)();
  asm volatile("");  // not a jump
}
CASE wildJump() {
  const std::uintptr_t wild = 0x123456789000 + opaqueNull;
  reinterpret_cast<void (*)()>(wild)();
  asm volatile("");
}
CASE nonCanonicalPointer() {
  writeTo(0x5A5A5A5A5A5A5A5A + opaqueNull);
}
CASE readOnlyWrite() {
  static const int kFixed = 5;
  writeTo(reinterpret_cast<std::uintptr_t>(&kFixed) + opaqueNull);
}
CASE truncatedMapping() {
  const int file = memfd_create("mapping", 0);
  void* mapped =
      ftruncate(file, 4096) == 0 ? mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0) : nullptr;
  if (mapped != nullptr && ftruncate(file, 0) == 0) {
    writeTo(reinterpret_cast<std::uintptr_t>(mapped));
  }
}
CASE illegalInstruction() {
  asm volatile("ud2");
}
CASE breakpoint() {
  asm volatile("int3");
  asm volatile("");
}
CASE callAbort() {
  std::abort();
}
CASE failedAssertion() {
  assert(opaqueZero != 0);
}
CASE throwStandard() {
  throw std::runtime_error("nobody catches this");
}
CASE throwOwn() {
  throw OwnError{7};
}
CASE throwFromNoexcept() {
  []() noexcept { throwStandard(); }();
}
CASE throwFromDestructor() {
  try {
    const CallsAtItsEnd thrower{throwStandard};
    throwOwn();
  } catch (const OwnError&) {
  }
}
CASE pureVirtualCall() {
  const Complete complete;
}
CASE doubleFree() {
  void* volatile piece = std::malloc(32);
  std::free(piece);
  std::free(piece);
}
CASE heapOverrun() {
  char* volatile piece = static_cast<char*>(std::malloc(3000));  // beyond the thread's own cache
  std::memset(piece, 0x41, malloc_usable_size(piece) + 16);
  std::free(piece);
}
// The allocator reads a chunk's size through a pointer that leads nowhere, with its lock held.
CASE faultInMalloc() {
  constexpr std::size_t kSize = 2000;  // beyond the thread's own cache
  std::vector<void*> pieces;
  for (int i = 0; i < 8; ++i) {
    pieces.push_back(std::malloc(kSize));
  }
  for (std::size_t i = 0; i < pieces.size(); i += 2) {
    std::free(pieces[i]);
  }
  for (std::size_t i = 0; i < pieces.size(); i += 2) {
    std::memset(pieces[i], 0x5A, 16);  // the links of the free list
  }
  void* volatile taken = std::malloc(kSize * 3);
  static_cast<void>(taken);
}
CASE faultUnderLoaderLock() {
  dl_iterate_phdr(
      [](dl_phdr_info*, std::size_t, void*) {
        nullWrite();
        return 0;
      },
      nullptr);
}
CASE useUpDescriptors() {
  setLimit(RLIMIT_NOFILE, 64);
  while (open("/dev/null", O_RDONLY) >= 0) {
  }
  nullWrite();
}
CASE useUpAddressSpace() {
  setLimit(RLIMIT_AS, 1);
  nullWrite();
}
CASE overwrittenFramePointer() {
  asm volatile("movq $0x41, %%rbp\n\tmovl $1, (%%rbp)" ::: "memory");
}

namespace {

const std::map<std::string, std::function<void()>> kCases = {
    {"null-write", nullWrite},
    {"call-null", callThroughNull},
    {"wild-jump", wildJump},
    {"non-canonical", nonCanonicalPointer},
    {"read-only", readOnlyWrite},
    {"truncated-mapping", truncatedMapping},
    {"division", integerDivision},
    {"illegal", illegalInstruction},
    {"breakpoint", breakpoint},
    {"abort", callAbort},
    {"assert", failedAssertion},
    {"throw", throwStandard},
    {"throw-own", throwOwn},
    {"throw-in-thread", [] { onOwnThread(throwStandard); }},
    {"throw-noexcept", throwFromNoexcept},
    {"throw-destructor", throwFromDestructor},
    {"pure-virtual", pureVirtualCall},
    {"overflow", overflowStack},
    {"overflow-in-thread", [] { onOwnThread(overflowStack); }},
    {"double-free", doubleFree},
    {"heap-overrun", heapOverrun},
    {"in-malloc", faultInMalloc},
    {"loader-lock", faultUnderLoaderLock},
    {"two-faults", [] { onThreadsAtOnce(2, nullWrite); }},
    {"ten-faults", [] { onThreadsAtOnce(10, nullWrite); }},
    {"two-aborts", [] { onThreadsAtOnce(2, callAbort); }},
    {"no-descriptors", useUpDescriptors},
    {"no-memory", useUpAddressSpace},
    {"frame-pointer", overwrittenFramePointer},
};

}  // namespace

int main(int argc, char** argv) {
  const auto wanted = argc == 3 ? kCases.find(argv[1]) : kCases.end();
  if (wanted == kCases.end()) {
    std::cerr << "usage: crash_victim <case> <further threads>; cases:\n";
    for (const auto& [name, crash] : kCases) {
      std::cerr << "  " << name << "\n";
    }
    return 2;
  }
  prctl(PR_SET_DUMPABLE, 0);  // no core files from the crashes made here
  CrashReporter& reporter = CrashReporter::sharedInstance();
  reporter.setEnableSymbolicateInProcess(true);
  if (!reporter.installWithAppkey("victim")) {
    return 3;
  }
  startBlockedThreads(std::atoi(argv[2]));
  waitForNames();
  wanted->second();
  _exit(4);  // it did not die
}
