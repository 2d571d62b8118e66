// Gets itself into the trouble that its second argument names. The first one says who judges what
// the library makes of the stack there: "backtrace" and "crashed", the C library in the same
// process (status 0 where they agree, else 1 and both stacks on standard output), the second as
// the owner of a crash that comes before any refresh; "debugger", one that looks from outside
// once "ready" is printed below the stack. Built several times with other flags.

#include <execinfo.h>
#include <poll.h>
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <stdexcept>
#include <string_view>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/Symbols/SymbolTables.h"
#include "Core/Kernel/ThreadFiles.h"
#include "Core/Kernel/Unwind/CodeImages.h"
#include "Core/Memory/CrashHeap.h"
#include "Core/Memory/CrashOwner.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Tests/Victims/OddCode.h"

// Visible from outside, or the compiler would know all overriders.
struct VictimBase {
  VictimBase() { callThrough(); }
  [[gnu::noinline]] void callThrough() {
    VictimBase* self = this;
    asm volatile("" : "+r"(self) : : "memory");
    self->work();
  }
  virtual void work() = 0;
};
struct VictimDerived : VictimBase {
  void work() override {}
};

namespace {

std::array<std::uint8_t, 16384> block;
std::array<std::uint64_t, core::kMostFrames> walked;
std::size_t walkedCount = 0;
std::array<std::uint64_t, core::kMostFrames + 8> expected;
std::size_t expectedCount = 0;
int comparisons = 0;
bool isForDebugger = false;

/// Before an exception lands, the place that it will return to has been written while the stack
/// pointer still is where it was: for some instructions, both sides see what is left there, and
/// the C library may fault on it.
constexpr int kMostCutShort = 4;
constexpr int kMostFaults = 64;
int faults = 0;
int cutShort = 0;
bool isStepping = false;
sigjmp_buf afterFaultOfJudge;
std::uint64_t outermost = 0;  // where the program's first function was called

int* volatile nowhere = nullptr;
void (*volatile nothing)() = nullptr;

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

void print(const char* title, std::span<const std::uint64_t> frames) {
  std::printf("%s\n", title);
  for (const std::uint64_t frame : frames) {
    std::printf("%#lx\n", frame);
  }
}

[[noreturn]] void fail(const char* reason) {
  std::printf("%s after %d comparisons\n", reason, comparisons);
  print("walked", {walked.data(), walkedCount});
  print("expected", {expected.data(), expectedCount});
  std::fflush(stdout);
  _exit(1);
}

/// Compares the stacks of the interrupted context.
void compare(ucontext_t& context) {
  const core::WalkContext walkContext{block};
  walkedCount = core::walk(core::registersOf(context.uc_mcontext), walked, walkContext);
  greg_t* const registers = context.uc_mcontext.gregs;
  if (registers[REG_RIP] == 0) {  // as far as the C library is concerned, the call to nowhere has returned
    registers[REG_RIP] = *reinterpret_cast<greg_t*>(registers[REG_RSP]);
    registers[REG_RSP] += 8;
  }
  if (sigsetjmp(afterFaultOfJudge, 1) != 0) {
    return ++faults > kMostFaults ? fail("the judge faults") : void();
  }
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

[[noreturn]] void show(const char* why, const mcontext_t* context, int thread) {
  kiv_backtrace_fetch(context, core::threadPort(thread), walked, true);
  std::printf("%d ", thread);
  print(why, {walked.begin(), std::find(walked.begin(), walked.end(), 0)});
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) {
    pause();
  }
}

void onTrouble(int, siginfo_t*, void* context) {
  auto& interrupted = *static_cast<ucontext_t*>(context);
  if (isForDebugger) {
    show("interrupted", &interrupted.uc_mcontext, core::threadId());
  }
  if (isStepping) {
    siglongjmp(afterFaultOfJudge, 1);
  }
  compare(interrupted);
  _exit(0);
}

void handle(int signal, void (*action)(int, siginfo_t*, void*), int flags) {
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
  int below = faultBelow(depth - 1);
  asm volatile("" : "+r"(below));  // or it would become a loop
  return depth + below;
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

void throwAndCatch() {
  try {
    throwThrough();
  } catch (const std::exception&) {
    nowhere = nullptr;
  }
}

/// Runs the program's own handler, on a stack that lies above the interrupted one if on another.
[[gnu::noinline]] void raiseOwn(int flags) {
  std::array<char, 65536> stack;
  const stack_t alternate{stack.data(), 0, stack.size()};
  sigaltstack(&alternate, nullptr);
  handle(
      SIGILL, [](int, siginfo_t*, void*) { sortFaulting(); }, flags);
  victimFirst();
}

void faultInFibre() {
  static ucontext_t fibre;
  static ucontext_t back;
  constexpr std::size_t kStack = 8192;
  getcontext(&fibre);
  fibre.uc_stack.ss_sp = mmap(nullptr, kStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  fibre.uc_stack.ss_size = kStack;
  fibre.uc_link = &back;
  makecontext(&fibre, sortFaulting, 0);
  swapcontext(&back, &fibre);
}

pthread_t startThread(void (*body)()) {
  pthread_t thread;
  const auto run = [](void* work) -> void* { return reinterpret_cast<void (*)()>(work)(), nullptr; };
  pthread_create(&thread, nullptr, run, reinterpret_cast<void*>(body));
  return thread;
}

/// Has the stack looked at of another thread, which waits in a system call.
template <class Body>
void blockIn(Body) {
  static std::atomic<int> id{0};
  const pthread_t thread = startThread([] {
    id = core::threadId();
    Body()();
  });
  while (id == 0 || !core::readSleepingThread(id)) {
    sched_yield();
  }
  if (isForDebugger) {
    show("stopped", nullptr, id);
  }
  pthread_kill(thread, SIGUSR2);
  pthread_join(thread, nullptr);
}

void waitOnCondition() {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  static pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_lock(&mutex);
  pthread_cond_wait(&condition, &mutex);
}

void sleepForADay() {
  const timespec day{86400, 0};
  nanosleep(&day, nullptr);
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

void step() {
  takeExpected();
  outermost = expected[expectedCount - 1];
  isStepping = true;
  handle(
      SIGTRAP, [](int, siginfo_t*, void* context) { compare(*static_cast<ucontext_t*>(context)); }, 0);
  asm volatile("sub $128, %%rsp; pushf; orl $0x100, (%%rsp); popf; add $128, %%rsp" : : : "memory", "cc");
  ordinaryWork();
  victimOdd([] { victimComputed([] {}); });
  asm volatile("sub $128, %%rsp; pushf; andl $~0x100, (%%rsp); popf; add $128, %%rsp" : : : "memory", "cc");
  if (comparisons < 1000) {
    fail("too few steps");
  }
  _exit(0);
}

/// Names a function of its own, one of the C library and one that is none.
void nameFunctions() {
  core::SymbolTables::refresh();
  const core::SymbolTables::View view;
  for (const auto address : {reinterpret_cast<std::uint64_t>(&victimLocal) + 1, reinterpret_cast<std::uint64_t>(&qsort),
                             reinterpret_cast<std::uint64_t>(&stdout)}) {
    const auto symbol = view.lookup(address);
    std::printf("%s+%lu ", symbol ? symbol->name.data() : "", symbol ? symbol->distance : 0);
  }
  std::exit(0);
}

struct Scene {
  std::string_view name;
  void (*run)();
};
constexpr Scene kScenes[] = {
    {"leaf", fault},
    {"abort", std::abort},
    {"assert", [] { assert(nowhere != nullptr); }},
    {"pure-virtual", [] { VictimDerived(); }},
    {"null-call", [] { nothing(); }},
    {"callback", sortFaulting},
    {"handler", [] { raiseOwn(0); }},
    {"handler-on-stack", [] { raiseOwn(SA_ONSTACK); }},
    {"poll", [] { blockIn([] { poll(nullptr, 0, -1); }); }},
    {"condition", [] { blockIn([] { waitOnCondition(); }); }},
    {"nanosleep", [] { blockIn([] { sleepForADay(); }); }},
    {"destructor", throwAndCatch},
    {"no-frame-pointer", [] { victimFrameless(sortFaulting); }},
    {"recursion", [] { faultBelow(300); }},
    {"fibre", faultInFibre},
    {"aligned", [] { faultAligned(100); }},
    {"thread", [] { pthread_join(startThread(sortFaulting), nullptr); }},
    {"odd", [] { victimOdd([] { victimComputed(fault); }); }},
    {"step", step},  // to be judged by the C library
    {"names", nameFunctions},
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view judge = argc > 1 ? argv[1] : "";
  const std::string_view wanted = argc > 2 ? argv[2] : "";
  isForDebugger = judge == "debugger";
  if (judge == "crashed") {
    core::CrashHeap::reserve();
    core::CrashOwner::claim();
  }
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  KivStackCollector::sharedInstance().prepare();
  core::CodeImages::refresh();
  takeExpected();  // loads what it needs
  static std::array<char, 65536> stack;
  const stack_t alternate{stack.data(), 0, stack.size()};
  sigaltstack(&alternate, nullptr);
  for (const int signal : {SIGSEGV, SIGABRT, SIGUSR2}) {
    handle(signal, onTrouble, SA_ONSTACK);
  }
  for (const Scene& scene : kScenes) {
    if (judge == "list") {
      std::printf("%s ", scene.name.data());
    } else if (wanted == scene.name) {
      scene.run();
      fail("nothing happened");
    }
  }
  return judge == "list" ? 0 : 2;
}
