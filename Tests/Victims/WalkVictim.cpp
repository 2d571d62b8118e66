// Gets itself into trouble as its argument says, and compares the walk of the stack that its
// signal handler makes with what glibc's backtrace makes of it. Ends with status 0 where they
// agree, else with 1 and both stacks on standard output. Built several times with other flags.

#include <dlfcn.h>
#include <execinfo.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <stdexcept>
#include <string_view>

#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Kernel/Unwind/FrameWalk.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"

namespace {

std::array<std::uint8_t, 16384> block;
std::array<std::uint64_t, core::kMostFrames> walked;
std::size_t walkedCount = 0;
std::array<std::uint64_t, core::kMostFrames + 8> expected;
std::size_t expectedCount = 0;
int comparisons = 0;

/// Where an exception lands, the stack pointer is above the frame that the table still tells for
/// an instruction or two.
constexpr int kMostCutShort = 4;
int cutShort = 0;
bool isStepping = false;
std::uint64_t outermost = 0;  // where the program's first function was called

int* volatile nowhere = nullptr;

#ifdef KIV_STATIC
_Unwind_Reason_Code takeFrame(_Unwind_Context* context, void*) {
  if (expectedCount == expected.size()) {
    return _URC_END_OF_STACK;
  }
  expected[expectedCount++] = _Unwind_GetIP(context);
  return _URC_NO_REASON;
}
#endif

/// In a static program by what backtrace is made of: backtrace itself would load a library.
void takeExpected() {
  expectedCount = 0;
#ifdef KIV_STATIC
  _Unwind_Backtrace(takeFrame, nullptr);
  while (expectedCount != 0 && expected[expectedCount - 1] == 0) {
    --expectedCount;
  }
#else
  std::array<void*, expected.size()> frames;
  expectedCount = static_cast<std::size_t>(backtrace(frames.data(), int{frames.size()}));
  std::transform(frames.begin(), frames.begin() + expectedCount, expected.begin(),
                 [](void* frame) { return reinterpret_cast<std::uint64_t>(frame); });
#endif
}

void print(const char* title, const std::uint64_t* frames, std::size_t count) {
  std::printf("%s\n", title);
  for (std::size_t i = 0; i < count; ++i) {
    Dl_info info{};
    dladdr(reinterpret_cast<void*>(frames[i] - (i == 0 ? 0 : 1)), &info);
    std::printf("  %2zu %#018lx %s\n", i, frames[i], info.dli_sname != nullptr ? info.dli_sname : "");
  }
}

[[noreturn]] void fail(const char* reason) {
  std::printf("%s after %d comparisons\n", reason, comparisons);
  print("walked", walked.data(), walkedCount);
  print("expected", expected.data(), expectedCount);
  std::fflush(stdout);
  _exit(1);
}

/// Compares the stacks of the interrupted context.
void compare(const ucontext_t& context) {
  const core::WalkContext walkContext{block};
  walkedCount = core::walk(core::registersOf(context.uc_mcontext), walked, walkContext);
  takeExpected();
  const std::span<const std::uint64_t> all(expected.data(), expectedCount);
  const auto start = std::find(all.begin(), all.end(), walked[0]);
  const std::span<const std::uint64_t> wanted(start, std::min(start + core::kMostFrames, all.end()));
  const std::span<const std::uint64_t> got(walked.data(), walkedCount);
  const std::size_t common = std::min(wanted.size(), got.size());
  if (common == 0 || !std::equal(wanted.begin(), wanted.begin() + static_cast<std::ptrdiff_t>(common), got.begin())) {
    fail("the stacks differ");
  }
  if (got.size() < wanted.size() && (!isStepping || ++cutShort > kMostCutShort)) {
    fail("the walk ends early");
  }
  // It may know more than the other only by what it makes of code without an entry.
  if (got.size() > wanted.size() && (!isStepping || got.back() != outermost)) {
    fail("the walk goes too far");
  }
  ++comparisons;
}

void compareAndEnd(int, siginfo_t*, void* context) {
  compare(*static_cast<ucontext_t*>(context));
  _exit(0);
}

void handle(int signal, void (*action)(int, siginfo_t*, void*), int flags = 0) {
  struct sigaction installed {};
  installed.sa_sigaction = action;
  installed.sa_flags = SA_SIGINFO | SA_NODEFER | flags;
  sigaction(signal, &installed, nullptr);
}

[[gnu::noinline]] void fault() {
  *nowhere = 1;
}

[[gnu::noinline]] int faultBelow(int depth) {
  if (depth == 0) {
    fault();
    return 0;
  }
  return depth + faultBelow(depth - 1);
}

int compareFaulting(const void* a, const void* b) {
  if (*static_cast<const int*>(a) == 3) {
    fault();
  }
  return *static_cast<const int*>(a) - *static_cast<const int*>(b);
}

void sortFaulting() {
  int numbers[] = {5, 2, 3, 1, 9};
  std::qsort(numbers, 5, sizeof numbers[0], compareFaulting);
}

/// Variables of a size known at run time only, and aligned beyond what the stack is.
[[gnu::noinline]] void faultAligned(std::size_t size) {
  alignas(64) char aligned[64];
  auto* room = static_cast<char*>(__builtin_alloca(size));
  asm volatile("" : : "r"(aligned), "r"(room) : "memory");
  sortFaulting();
  asm volatile("" : : "r"(aligned), "r"(room) : "memory");
}

struct FaultingDestructor {
  int value = 1;
  ~FaultingDestructor() { fault(); }
};

[[gnu::noinline]] void throwThrough() {
  const FaultingDestructor onTheWay;
  throw std::runtime_error(onTheWay.value != 0 ? "thrown" : "");
}

void onOwnSignal(int, siginfo_t*, void*) {
  sortFaulting();
}

/// Stops at its first instruction. The one before belongs to another function.
asm(R"(
  .pushsection .text
  .type walkVictimBefore, @function
walkVictimBefore:
  .cfi_startproc
  .cfi_def_cfa_offset 4096
  nop
  .cfi_endproc
  .size walkVictimBefore, .-walkVictimBefore
  .type walkVictimFirst, @function
walkVictimFirst:
  .cfi_startproc
  ud2
  .cfi_endproc
  .size walkVictimFirst, .-walkVictimFirst
  .popsection
)");
extern "C" void walkVictimFirst();

/// Runs the program's own handler, on a stack that lies above the interrupted one if on another.
[[gnu::noinline]] void raiseOwn(int flags) {
  std::array<char, 65536> stack;
  const stack_t alternate{stack.data(), 0, stack.size()};
  sigaltstack(&alternate, nullptr);
  handle(SIGILL, onOwnSignal, flags);
  walkVictimFirst();
}

void* threadBody(void*) {
  faultBelow(3);
  return nullptr;
}

void faultInThread() {
  pthread_t thread;
  pthread_create(&thread, nullptr, threadBody, nullptr);
  pthread_join(thread, nullptr);
}

void faultInFibre() {
  static ucontext_t fibre;
  static ucontext_t back;
  constexpr std::size_t kStack = 8192;
  getcontext(&fibre);
  // The handler needs more than the fibre has.
  static std::array<char, 65536> stack;
  const stack_t alternate{stack.data(), 0, stack.size()};
  sigaltstack(&alternate, nullptr);
  handle(SIGSEGV, compareAndEnd, SA_ONSTACK);
  fibre.uc_stack.ss_sp = mmap(nullptr, kStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  fibre.uc_stack.ss_size = kStack;
  fibre.uc_link = &back;
  makecontext(&fibre, reinterpret_cast<void (*)()>(reinterpret_cast<std::uintptr_t>(&sortFaulting)), 0);
  swapcontext(&back, &fibre);
}

// Rules that compilers seldom write: a CFA from an odd register, states kept twice, registers
// by expression and by other registers, an undefined one, a return address that was moved.
asm(R"(
  .pushsection .text
  .type walkVictimOdd, @function
walkVictimOdd:
  .cfi_startproc
  push %rbx
  .cfi_adjust_cfa_offset 8
  .cfi_rel_offset %rbx, 0
  mov %rsp, %rbx
  .cfi_def_cfa_register %rbx
  push %r12
  .cfi_rel_offset %r12, -8
  sub $24, %rsp
  nop
  .cfi_remember_state
  .cfi_escape 0x10, 0x0c, 0x02, 0x73, 0x78        # r12 at breg3 -8
  .cfi_undefined %rax
  .cfi_remember_state
  mov %r13, 8(%rsp)
  .cfi_escape 0x10, 0x0d, 0x03, 0x77, 0x08, 0x96  # r13 at breg7 8; nop
  xor %r13d, %r13d
  mov %rbp, %r14
  .cfi_register %rbp, %r14
  call *%rdi
  mov %r14, %rbp
  .cfi_restore_state
  mov 8(%rsp), %r13
  .cfi_restore_state
  add $24, %rsp
  pop %r12
  .cfi_restore %r12
  pop %rbx
  .cfi_restore %rbx
  .cfi_def_cfa %rsp, 8
  ret
  .cfi_endproc
  .size walkVictimOdd, .-walkVictimOdd

  .type walkVictimComputed, @function
walkVictimComputed:
  .cfi_startproc
  pushq %rbp
  .cfi_def_cfa_offset 16
  .cfi_offset %rbp, -16
  lea 16(%rsp), %rax
  sub $128, %rsp
  and $-64, %rsp
  mov %rax, 32(%rsp)
  .cfi_escape 0x0f, 0x03, 0x77, 0x20, 0x06        # CFA = deref(breg7 32)
  call *%rdi
  mov 32(%rsp), %rax
  lea -16(%rax), %rsp
  .cfi_def_cfa %rsp, 16
  popq %rbp
  .cfi_def_cfa_offset 8
  ret
  .cfi_endproc
  .size walkVictimComputed, .-walkVictimComputed
  .popsection
)");
extern "C" {
void walkVictimOdd(void (*call)());
void walkVictimComputed(void (*call)());
}

/// What is stepped through, instruction by instruction: stubs that bind lazily, hand-written
/// code of the C library, the kernel's clock, an exception on its way.
[[gnu::noinline]] void ordinaryWork() {
  char text[64];
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::snprintf(text, sizeof text, "%ld %s", now.tv_nsec, getenv("HOME"));
  int numbers[] = {5, 2, 4, 1};
  std::qsort(numbers, 4, sizeof numbers[0],
             [](const void* a, const void* b) { return *static_cast<const int*>(a) - *static_cast<const int*>(b); });
#ifndef KIV_STATIC  // there the unwinder that walks would wait for the one that is stepped through
  try {
    throw std::runtime_error(text);
  } catch (const std::exception& error) {
    std::snprintf(text, sizeof text, "%s", error.what());
  }
#endif
}

void onTrap(int, siginfo_t*, void* context) {
  compare(*static_cast<ucontext_t*>(context));
}

void step() {
  takeExpected();
  outermost = expected[expectedCount - 1];
  isStepping = true;
  handle(SIGTRAP, onTrap);
  asm volatile("sub $128, %%rsp; pushf; orl $0x100, (%%rsp); popf; add $128, %%rsp" : : : "memory", "cc");
  ordinaryWork();
  walkVictimOdd([] { walkVictimComputed([] {}); });
  asm volatile("sub $128, %%rsp; pushf; andl $~0x100, (%%rsp); popf; add $128, %%rsp" : : : "memory", "cc");
  if (comparisons < 1000) {
    fail("too few steps");
  }
  _exit(0);
}

struct Case {
  std::string_view name;
  void (*run)();
};
constexpr Case kCases[] = {
    {"leaf", [] { fault(); }},
    {"abort", [] { std::abort(); }},
    {"assert", [] { assert(nowhere != nullptr); }},
    {"callback", sortFaulting},
    {"recursion", [] { faultBelow(300); }},
    {"aligned", [] { faultAligned(100); }},
    {"destructor",
     [] {
       try {
         throwThrough();
       } catch (const std::exception&) {
       }
     }},
    {"handler", [] { raiseOwn(0); }},
    {"handler-on-stack", [] { raiseOwn(SA_ONSTACK); }},
    {"thread", faultInThread},
    {"fibre", faultInFibre},
    {"odd", [] { walkVictimOdd([] { walkVictimComputed(fault); }); }},
    {"step", step},
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view wanted = argc > 1 ? argv[1] : "";
  if (argc > 2) {  // by the images' own tables, as a crash walks that comes before any refresh
    core::CrashHeap::reserve();
    core::CrashOwner::claim();
  }
  core::CodeImages::refresh();
  takeExpected();  // loads what it needs
  handle(SIGSEGV, compareAndEnd);
  handle(SIGABRT, compareAndEnd);
  for (const Case& each : kCases) {
    if (wanted == "list") {
      std::printf("%s\n", each.name.data());
    } else if (wanted == each.name) {
      each.run();
      fail("nothing happened");
    }
  }
  return wanted == "list" ? 0 : 2;
}
