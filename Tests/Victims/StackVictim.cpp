// Gets itself into the trouble that its argument names, writes what kiv_backtrace_fetch makes of
// the stack there ("thread <id>", one address a line, "ready") and waits for a debugger to look at
// the same stack. Built several times with other flags.

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string_view>

#include "Core/Kernel/Process.h"
#include "Core/Kernel/ThreadFiles.h"
#include "Kiv/crashhandler/bughandler/KivBacktrace.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"

// Visible from outside, or the compiler would know all overriders.
struct StackVictimBase {
  StackVictimBase() { callThrough(); }
  [[gnu::noinline]] void callThrough() {
    StackVictimBase* self = this;
    asm volatile("" : "+r"(self) : : "memory");
    self->work();
  }
  virtual void work() = 0;
};
struct StackVictimDerived : StackVictimBase {
  void work() override {}
};

namespace {

std::array<std::uint64_t, core::kMostFrames> frames;
int* volatile nowhere = nullptr;
void (*volatile nothing)() = nullptr;

[[noreturn]] void showAndWait(const mcontext_t* context, int thread) {
  kiv_backtrace_fetch(context, core::threadPort(thread), frames, true);
  std::printf("thread %d\n", thread);
  for (std::size_t i = 0; i < frames.size() && frames[i] != 0; ++i) {
    std::printf("%#lx\n", frames[i]);
  }
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) {
    pause();
  }
}

void onFault(int, siginfo_t*, void* context) {
  showAndWait(&static_cast<ucontext_t*>(context)->uc_mcontext, core::threadId());
}

void handle(int signal, void (*action)(int, siginfo_t*, void*), int flags) {
  struct sigaction installed {};
  installed.sa_sigaction = action;
  installed.sa_flags = SA_SIGINFO | flags;
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

void faultInOwnHandler() {
  handle(
      SIGUSR1, [](int, siginfo_t*, void*) { sortFaulting(); }, 0);
  raise(SIGUSR1);
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

/// Shows the stack of another thread, which waits in a system call.
template <class Body>
void showBlocked(Body body) {
  static std::atomic<int> id{0};
  static Body blocked = body;
  pthread_t thread;
  const auto run = [](void*) -> void* {
    id = core::threadId();
    blocked();
    return nullptr;
  };
  pthread_create(&thread, nullptr, run, nullptr);
  while (id == 0 || !core::readSleepingThread(id)) {
    sched_yield();
  }
  showAndWait(nullptr, id);
}

void waitOnCondition() {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  static pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_lock(&mutex);
  pthread_cond_wait(&condition, &mutex);
}

struct Scene {
  std::string_view name;
  void (*run)();
};
constexpr Scene kScenes[] = {
    {"leaf", [] { fault(); }},
    {"abort", [] { std::abort(); }},
    {"assert", [] { assert(nowhere != nullptr); }},
    {"pure-virtual", [] { StackVictimDerived(); }},
    {"null-call", [] { nothing(); }},
    {"callback", sortFaulting},
    {"handler", faultInOwnHandler},
    {"poll", [] { showBlocked([] { poll(nullptr, 0, -1); }); }},
    {"condition", [] { showBlocked(waitOnCondition); }},
    {"nanosleep",
     [] {
       showBlocked([] {
         const timespec day{86400, 0};
         nanosleep(&day, nullptr);
       });
     }},
    {"destructor", throwAndCatch},
    {"recursion", [] { faultBelow(300); }},
    {"fibre", faultInFibre},
};

}  // namespace

int main(int argc, char** argv) {
  const std::string_view wanted = argc > 1 ? argv[1] : "";
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  KivStackCollector::sharedInstance().prepare();
  static std::array<char, 65536> stack;
  const stack_t alternate{stack.data(), 0, stack.size()};
  sigaltstack(&alternate, nullptr);
  handle(SIGSEGV, onFault, SA_ONSTACK);
  handle(SIGABRT, onFault, SA_ONSTACK);
  for (const Scene& scene : kScenes) {
    if (wanted == "list") {
      std::printf("%s\n", scene.name.data());
    } else if (wanted == scene.name) {
      scene.run();
      return 1;
    }
  }
  return wanted == "list" ? 0 : 2;
}
