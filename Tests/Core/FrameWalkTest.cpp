#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Tests/Support/CallProbe.h"

namespace {

using core::Registers;
using Addresses = std::vector<std::uint64_t>;

constexpr std::size_t kPage = 4096;

std::uint64_t addressOf(const volatile void* place) {
  return reinterpret_cast<std::uint64_t>(place);
}

Addresses walked(const Registers& registers, bool mayRefreshImages = false) {
  static thread_local std::array<std::uint8_t, 8192> block;
  std::array<std::uint64_t, core::kMostFrames> frames;
  core::WalkContext context{block};
  context.mayRefreshImages = mayRefreshImages;
  const std::size_t count = core::walk(registers, frames, context);
  return Addresses(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(count));
}

Registers registersAt(std::uint64_t instruction, const volatile void* stack, const volatile void* frame = nullptr) {
  Registers registers;
  registers.instructionPointer = instruction;
  registers[Registers::kRsp] = addressOf(stack);
  registers[Registers::kRbp] = addressOf(frame);
  return registers;
}

[[gnu::noinline]] Addresses walkFromHere() {
  ucontext_t here;
  getcontext(&here);
  return walked(core::registersOf(here.uc_mcontext));
}

// Code without entries: two functions, and where a signal handler may return to. The first
// byte of the trampoline stands right behind a function that has an entry. At last a function with
// one that no step can tell.
asm(R"(
  .pushsection .text
  .globl walkTestBare
walkTestBare:
  nop
  call walkTestBare
walkTestBareReturn:
  ret
walkTestFramed:
  push %rbp
  mov %rsp, %rbp
  sub $16, %rsp
  call *%rdi
walkTestFramedReturn:
  leave
  ret
walkTestBeforeTrampoline:
  .cfi_startproc
  ud2
  .cfi_endproc
walkTestTrampoline:
  mov $15, %rax
  syscall
walkTestOdd:
  .cfi_startproc
  push %rbx
  .cfi_def_cfa_offset 16
  .cfi_offset %rbx, -16
  mov %rsp, %rbx
  .cfi_def_cfa_register %rbx
  call *%rdi
  pop %rbx
  .cfi_def_cfa %rsp, 8
  ret
  .cfi_endproc
  .popsection
)");
extern "C" {
extern const char walkTestBare[];
extern const char walkTestBareReturn[];
void walkTestFramed(void (*call)());
extern const char walkTestFramedReturn[];
void walkTestTrampoline();
void walkTestOdd(void (*call)());
}

class FrameWalk : public testing::Test {
 protected:
  void SetUp() override { core::CodeImages::refresh(); }
};

TEST_F(FrameWalk, takesTheWordAtTheStackPointerAfterACallToNowhere) {
  const Addresses here = walkFromHere();
  ASSERT_GT(here.size(), 3U);
  const std::uint64_t caller = addressOf(walkTestBareReturn);
  std::uint64_t stack[8] = {caller};
  EXPECT_EQ(walked(registersAt(0, stack)), Addresses({caller}));
  EXPECT_EQ(walked(registersAt(0x1234, stack)), Addresses({0x1234, caller}));
  EXPECT_EQ(walked(registersAt(addressOf(stack), stack)), Addresses({addressOf(stack), caller}));
}

TEST_F(FrameWalk, followsFramePointersWhereThereIsNothingElse) {
  std::array<std::uint64_t, 2 * 300> chain{};
  const auto link = [&](std::size_t frames) {
    for (std::size_t i = 0; i < frames; ++i) {
      chain[2 * i] = addressOf(&chain[2 * i + 2]);
      chain[2 * i + 1] = 0x1000 + i;
    }
  };
  link(2);
  chain[2] = 8;  // cannot be read
  std::uint64_t* const frame = chain.data();
  const std::uint64_t below[2] = {};
  EXPECT_EQ(walked(registersAt(0x10, below, frame)), Addresses({0x10, 0x1000, 0x1001}));
  EXPECT_EQ(walked(registersAt(0, below, frame)), Addresses({0x1000, 0x1001}));
  chain[2] = addressOf(frame);
  EXPECT_EQ(walked(registersAt(0x10, below, frame)), Addresses({0x10, 0x1000, 0x1001})) << "a circle";
  link(299);
  EXPECT_EQ(walked(registersAt(0x10, below, frame)).size(), core::kMostFrames);
  EXPECT_EQ(walked(registersAt(0x10, &chain.back(), frame)), Addresses({0x10})) << "away from the base";
}

TEST_F(FrameWalk, isEmptyWithNothingToGoBy) {
  const std::uint64_t stack[2] = {};
  EXPECT_EQ(walked(registersAt(0x10, stack)), Addresses());
  EXPECT_EQ(walked(registersAt(0, stack)), Addresses());
  EXPECT_EQ(walked(registersAt(addressOf(walkTestBare), stack)), Addresses());
  EXPECT_EQ(walked(registersAt(0x10, nullptr, reinterpret_cast<void*>(16))), Addresses({0x10}));
  const std::uint64_t known = walkFromHere()[0];
  EXPECT_EQ(walked(registersAt(known, nullptr)), Addresses({known})) << "a stack that cannot be read";
}

TEST_F(FrameWalk, checksReturnAddressesOfCodeWithoutAnEntry) {
  const std::uint64_t bare = addressOf(walkTestBare);
  const std::uint64_t caller = addressOf(walkTestBareReturn);
  std::uint64_t stack[8] = {caller};
  EXPECT_EQ(walked(registersAt(bare, stack)), Addresses({bare, caller}));
  stack[0] = bare + 1;  // follows no call
  stack[4] = 8;
  stack[5] = caller;
  EXPECT_EQ(walked(registersAt(bare, stack, &stack[4])), Addresses({bare, caller}));
  stack[5] = bare + 1;
  EXPECT_EQ(walked(registersAt(bare, stack, &stack[4])), Addresses({bare}));
}

Addresses below;

TEST_F(FrameWalk, goesOnThroughAFunctionThatKeepsAFramePointer) {
  walkTestFramed([] { below = walkFromHere(); });
  const Addresses here = walkFromHere();
  const auto framed = std::find(below.begin(), below.end(), addressOf(walkTestFramedReturn));
  ASSERT_GT(below.end() - framed, 3);
  EXPECT_TRUE(std::equal(framed + 2, below.end(), here.end() - (below.end() - framed - 2)));
}

Addresses interrupted;

void onBareSignal(int, siginfo_t*, void* context) {
  interrupted = walked(core::registersOf(static_cast<ucontext_t*>(context)->uc_mcontext));
  below = walkFromHere();
}

TEST_F(FrameWalk, returnsThroughATrampolineWithoutAnEntry) {
  constexpr unsigned long kHasRestorer = 0x04000000;
  struct {
    void (*handler)(int, siginfo_t*, void*);
    unsigned long flags;
    void (*restorer)();
    std::uint64_t mask;
  } action{onBareSignal, SA_SIGINFO | kHasRestorer, walkTestTrampoline, 0};
  ASSERT_EQ(core::rawSystemCall(SYS_rt_sigaction, SIGUSR1, core::systemCallArgument(&action), 0, 8), 0);
  raise(SIGUSR1);
  signal(SIGUSR1, SIG_DFL);
  ASSERT_GT(interrupted.size(), 3U);
  const auto trampoline =
      std::find(below.begin(), below.end(), addressOf(reinterpret_cast<void*>(&walkTestTrampoline)));
  ASSERT_NE(trampoline, below.end());
  EXPECT_EQ(Addresses(trampoline + 1, below.end()), interrupted);
}

TEST_F(FrameWalk, needsOneSystemCall) {
  static std::atomic<int> calls{0};
  const test::CallProbe probe([](long) noexcept -> long { return ++calls, 0; });
  ucontext_t here;
  getcontext(&here);
  calls = 0;
  walked(core::registersOf(here.uc_mcontext));
  EXPECT_EQ(calls, 1);
}

TEST_F(FrameWalk, readsTheMemoryFileWhereTheCallIsForbidden) {
  const Addresses free = walkFromHere();
  const test::CallProbe probe(test::failing<SYS_process_vm_readv, EPERM>);
  const Addresses bound = walkFromHere();
  EXPECT_EQ(Addresses(bound.begin() + 1, bound.end()).size(), free.size() - 1);
  EXPECT_EQ(walked(registersAt(0x10, nullptr)), Addresses());
  core::CodeImages::refreshIfChanged();
}

/// Does `work` again and again, each time another call of it fails; answers how many it makes.
template <class Work>
int failingEachCall(Work&& work) {
  int n = 1;
  while (test::runWithFault(n, -EFAULT, work)) {
    ++n;
  }
  return n - 1;
}

void walkWithFailures() {
  ucontext_t here;
  getcontext(&here);
  const Registers registers = core::registersOf(here.uc_mcontext);
  const Addresses whole = walked(registers);
  const int made = failingEachCall([&] {
    const Addresses part = walked(registers, true);
    ASSERT_FALSE(part.empty());
    EXPECT_EQ(part[0], whole[0]);
#ifdef KIV_PLAIN_BUILD  // a frame whose table cannot be read is guessed, and the sanitizers' are full of old addresses
    EXPECT_LE(part.size(), whole.size());
    EXPECT_TRUE(std::equal(part.begin(), part.end(), whole.begin()));
#endif
  });
  EXPECT_GT(made, 3) << "the tables were not read";
  failingEachCall([&] {
    core::CodeImages::refresh();
    EXPECT_GT(walked(registers).size(), 0U);
  });
}

TEST_F(FrameWalk, survivesTheFailureOfAnyCall) {
  walkTestOdd(walkWithFailures);
}

/// A library that nothing else loads, and a place where a function of it begins.
struct Library {
  void* handle = dlopen("libresolv.so.2", RTLD_NOW);
  std::uint64_t function = addressOf(dlsym(handle, "__p_class"));
  ~Library() { close(); }
  void close() {
    if (handle != nullptr) {
      dlclose(handle);
    }
    handle = nullptr;
  }
};

TEST_F(FrameWalk, learnsOfImagesThatComeAndGo) {
  const std::uint64_t caller = addressOf(walkTestBareReturn);
  std::uint64_t stack[8] = {caller};
  Library library;
  ASSERT_NE(library.function, 0U);
  const Registers inside = registersAt(library.function, stack);
  EXPECT_EQ(core::CodeImages::View().covering(library.function), nullptr);
  walked(inside);
  core::CodeImages::refreshIfChanged();
  ASSERT_NE(core::CodeImages::View().covering(library.function), nullptr) << "the walk told of it";
  EXPECT_EQ(walked(inside), Addresses({library.function, caller}));
  core::ImageHeaders headers;
  ASSERT_TRUE(headers.read(core::CodeImages::View().covering(library.function)->base));
  ASSERT_EQ(mprotect(reinterpret_cast<void*>(headers.base()), kPage, PROT_READ | PROT_WRITE), 0);
  ++*reinterpret_cast<std::uint8_t*>(headers.buildIdPlace().start);  // as of another file in the same place
  EXPECT_FALSE(core::CodeImages::View().isTrue(core::OwnMemory()));
  library.close();
  core::CodeImages::refreshIfChanged();
  EXPECT_EQ(core::CodeImages::View().covering(inside.instructionPointer), nullptr);

  Library again;
  walked(registersAt(again.function, stack), true);
  EXPECT_NE(core::CodeImages::View().covering(again.function), nullptr) << "read by the walk itself";
}

TEST_F(FrameWalk, goesOnWhileImagesComeAndGo) {
  std::atomic<bool> isDone{false};
  std::thread walker([&] {
    while (!isDone) {
      EXPECT_GT(walkFromHere().size(), 2U);
    }
  });
  for (int i = 0; i < 30; ++i) {
    Library library;
    core::CodeImages::refresh();
    EXPECT_TRUE(core::CodeImages::View().covering(library.function)->steps);
    library.close();
    core::CodeImages::refreshIfChanged();
  }
  isDone = true;
  walker.join();
}

}  // namespace
