// Dies in a way that hinders the recording of its death, or ends in order, as its command line says:
// survival_victim <case> <threads> [<act> <kind> <n>]. The act is done at the n-th counted system call of that
// kind, see PathProbe.h, from the crash on; in the case "next", the start after a death, from the installation
// on. SurvivalTest.cpp and SweepTest.cpp look at what is left.

#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <setjmp.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <string>

#include "Kiv/crashhandler/CrashReporter.h"
#include "Tests/Harness/PathProbe.h"
#include "Tests/Harness/VictimParts.h"

#define CASE extern "C" [[gnu::noinline]] void

namespace {

using namespace victim;
namespace fs = std::filesystem;

CrashReporter& reporter() {
  return CrashReporter::sharedInstance();
}

/// Ends a victim that cannot set its scene, with a line that says why.
void require(bool held, const char* what) {
  if (!held) {
    std::perror(what);
    _exit(5);
  }
}

/// A child's end, as a shell tells it.
int endOf(pid_t child) {
  int status = 0;
  require(waitpid(child, &status, 0) == child, "waitpid");
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void requireCrashOf(pid_t child) {
  const int end = endOf(child);
  if (end != 128 + SIGSEGV) {
    std::fprintf(stderr, "the child ended with %d\n", end);
    _exit(6);
  }
}

void useCallback(int (*callback)()) {
  reporter().setUserCrashHandlerCallback(callback);
}

int hangInCallback() {
  for (;;) {
    pause();
  }
}

fs::path inHome(const char* name) {
  return fs::path(std::getenv("HOME")) / name;
}

void cutJournal(std::uintmax_t divisor) {
  for (const auto& entry : fs::recursive_directory_iterator(inHome(""))) {
    if (entry.path().filename().string().starts_with(".journal_")) {
      fs::resize_file(entry.path(), divisor == 0 ? 0 : entry.file_size() / divisor);
      return;
    }
  }
  errno = ENOENT;
  require(false, "the journal");
}

void fillDisk() {
  static char block[std::size_t{1} << 20];
  const int ballast = open(inHome(".local/ballast").c_str(), O_WRONLY | O_CREAT, 0600);
  require(ballast >= 0, "ballast");
  for (std::size_t size = sizeof block; size != 0; size /= 2) {
    while (write(ballast, block, size) > 0) {
    }
  }
  require(errno == ENOSPC, "ballast");
}

void writeToFullPipe() {
  int ends[2];
  require(pipe2(ends, O_NONBLOCK) == 0, "pipe2");
  while (write(ends[1], &ends, 1) > 0) {
  }
  require(fcntl(ends[1], F_SETFL, 0) == 0 && dup2(ends[1], STDERR_FILENO) == STDERR_FILENO, "dup2");
}

/// Goes on as the first process of a namespace of its own, whose end this one passes on.
void becomeFirstProcess() {
  require(unshare(CLONE_NEWPID | CLONE_NEWNS) == 0, "a process-id namespace (takes CAP_SYS_ADMIN)");
  if (const pid_t child = fork()) {
    _exit(endOf(child));
  }
  require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  require(mount("proc", "/proc", "proc", 0, nullptr) == 0, "/proc");
}

void blockAllSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

sigjmp_buf wayOut;
void leave(int, siginfo_t*, void*) {
  siglongjmp(wayOut, 1);
}

}  // namespace

CASE crashInForkedChild() {
  const pid_t child = fork();
  if (child == 0) {
    nullWrite();
  }
  std::printf("process %d\n", child);
  std::fflush(stdout);
  requireCrashOf(child);
}
CASE crashInForkAndParent() {
  crashInForkedChild();
  waitForNextSecond();
  std::printf("process %d\n", getpid());
  std::fflush(stdout);
  nullWrite();
}
CASE crashInVforkedChild() {
  const pid_t child = vfork();
  if (child == 0) {
    nullWrite();
    _exit(0);
  }
  requireCrashOf(child);
}
CASE crashInVforkAndParent() {
  crashInVforkedChild();
  nullWrite();
}
CASE handleOwnSignal(int) {
  nullWrite();
}
CASE raiseOwnSignal() {
  signal(SIGUSR1, handleOwnSignal);
  raise(SIGUSR1);
}
CASE overflowFibre() {
  constexpr std::size_t kPage = 4096;
  constexpr std::size_t kSize = std::size_t{64} << 10;
  static ucontext_t fibre;
  static ucontext_t back;
  void* stack = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  require(stack != MAP_FAILED && mprotect(stack, kPage, PROT_NONE) == 0, "a fibre's stack");
  getcontext(&fibre);
  fibre.uc_stack.ss_sp = stack;
  fibre.uc_stack.ss_size = kSize;
  fibre.uc_link = &back;
  makecontext(&fibre, overflowStack, 0);
  swapcontext(&back, &fibre);
}
CASE overwriteStackPointer() {
  asm volatile("movq $0x41, %%rsp\n\tmovl $1, (%%rsp)" ::: "memory");
}
#ifndef KIV_STATIC
CASE openModule() {
  void* module = dlopen("$ORIGIN/survival_module.so", RTLD_NOW);
  const auto crash = module != nullptr ? reinterpret_cast<void (*)(int*)>(dlsym(module, "crashInModule")) : nullptr;
  require(crash != nullptr, "survival_module.so");
  crash(reinterpret_cast<int*>(opaqueNull));
}
#endif
CASE crashAndLive() {
  if (sigsetjmp(wayOut, 1) == 0) {
    nullWrite();
  }
}
CASE crashAndLiveOnce() {
  crashAndLive();
  waitForNextSecond();
  reporter().uninstall();
  require(reporter().installWithAppkey("victim"), "to install again");
  integerDivision();
}

namespace {

struct Case {
  void (*crash)();
  void (*prepare)() = nullptr;  // before the installation
};
const std::map<std::string, Case> kCases = {
    {"null-write", {nullWrite}},
    {"in-handler", {raiseOwnSignal}},
    {"fibre", {overflowFibre}},
    {"stack-pointer", {overwriteStackPointer}},
    {"fork", {crashInForkedChild}},
    {"fork-and-parent", {crashInForkAndParent}},
    {"vfork", {crashInVforkedChild}},
    {"vfork-and-parent", {crashInVforkAndParent}},
#ifndef KIV_STATIC
    {"module", {openModule}},
#endif
    {"static", {nullWrite}},
    {"signals-blocked",
     {[] {
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        nullWrite();
      },
      blockAllSignals}},
    {"path-faults", {[] {
       PathProbe::start("fault", SYS_process_vm_readv, 1);
       nullWrite();
     }}},
    {"path-faults-same", {[] {
       PathProbe::start("same-fault", SYS_process_vm_readv, 1);
       nullWrite();
     }}},
    {"journal-emptied", {[] {
       cutJournal(0);
       nullWrite();
     }}},
    {"journal-halved", {[] {
       cutJournal(2);
       nullWrite();
     }}},
    {"disk-full", {[] {
       fillDisk();
       nullWrite();
     }}},
    {"disk-read-only", {nullWrite}},
    {"directory-gone", {[] {
       fs::remove_all(inHome(".local/share/com.velmora.kiv"));
       nullWrite();
     }}},
    {"merging", {nullWrite, [] { reporter().setExpMergeUpload(true); }}},
    {"merging-hangs",
     {nullWrite,
      [] {
        reporter().setExpMergeUpload(true);
        useCallback(hangInCallback);
      }}},
    {"excluded", {nullWrite, [] { reporter().setExcludeShortName({"survival_"}); }}},
    {"file-size", {[] {
       setLimit(RLIMIT_FSIZE, 1000);
       nullWrite();
     }}},
    {"process-1", {nullWrite, becomeFirstProcess}},
    {"process-1-hangs",
     {nullWrite,
      [] {
        becomeFirstProcess();
        useCallback(hangInCallback);
      }}},
    {"errors-full",
     {nullWrite,
      [] {
        writeToFullPipe();
        reporter().enableLog(true);
      }}},
    {"errors-closed",
     {nullWrite,
      [] {
        close(STDERR_FILENO);
        reporter().enableLog(true);
      }}},
    {"callback-same-fault", {nullWrite, [] { useCallback(faultingCallback<nullWrite>); }}},
    {"callback-other-fault", {nullWrite, [] { useCallback(faultingCallback<integerDivision>); }}},
    {"callback-hangs", {nullWrite, [] { useCallback(hangInCallback); }}},
    {"previous-leaves", {crashAndLive, [] { setHandler(SIGSEGV, leave); }}},
    {"previous-leaves-once", {crashAndLiveOnce, [] { setHandler(SIGSEGV, leave); }}},
};

/// The start after a death: says where the log is, and ends in order.
int startAgain() {
  if (!reporter().installWithAppkey("victim")) {
    return 3;
  }
  std::cout << (reporter().isLastCloseByCrash() ? "the run before crashed" : "");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const bool isNext = argc >= 3 && argv[1] == std::string("next");
  const auto wanted = argc >= 3 ? kCases.find(argv[1]) : kCases.end();
  if ((!isNext && wanted == kCases.end()) || (argc != 3 && argc != 6)) {
    std::cerr << "usage: survival_victim <case> <further threads> [<act> <kind> <n>]; cases:\n  next\n";
    for (const auto& [name, way] : kCases) {
      std::cerr << "  " << name << "\n";
    }
    return 2;
  }
  const auto startProbe = [&] {
    require(argc == 3 || PathProbe::start(argv[3], std::atol(argv[4]), static_cast<std::uint32_t>(std::atol(argv[5]))),
            "no such act");
  };
  prctl(PR_SET_DUMPABLE, 0);  // no core files from the crashes made here
  reporter().setEnableSymbolicateInProcess(true);
  if (isNext) {
    startProbe();
    return startAgain();
  }
  if (wanted->second.prepare != nullptr) {
    wanted->second.prepare();
  }
  if (!reporter().installWithAppkey("victim")) {
    return 3;
  }
  startBlockedThreads(std::atoi(argv[2]));
  waitForNames();
  std::printf("ready\n");
  std::fflush(stdout);
  startProbe();
  wanted->second.crash();
}
