// Crashes under one of the rules that the handlers keep, which its command line names:
// rules_victim <case>. RulesTest.cpp looks at what is left and at what it wrote.

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "Kiv/crashhandler/CrashReporter.h"
#include "Kiv/crashhandler/bughandler/KivNSExpHandler.h"
#include "Kiv/crashhandler/bughandler/SignalHandling.h"
#include "Platform/Foundation/NSException.h"
#include "Platform/RunLoop/RunLoop.h"
#include "Tests/Harness/VictimParts.h"

namespace {

using namespace victim;

[[gnu::format(printf, 1, 2)]] void say(const char* format, ...) {
  char line[128];
  va_list values;
  va_start(values, format);
  const int size = std::vsnprintf(line, sizeof line, format, values);
  va_end(values);
  if (write(STDOUT_FILENO, line, static_cast<std::size_t>(size)) < 0) {
    _exit(5);
  }
}

CrashReporter& reporter() {
  return CrashReporter::sharedInstance();
}

void install() {
  reporter().enableLog(true);
  if (!reporter().installWithAppkey("rules")) {
    _exit(3);
  }
}

void sayInfo(int signal, siginfo_t* info, void* context) {
  const auto* const fault = reinterpret_cast<char*>(static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP]);
  const auto* const start = reinterpret_cast<char*>(&nullWrite);
  say("previous %d [%d %d %p] in nullWrite: %d\n", signal, info->si_signo, info->si_code, info->si_addr,
      fault >= start && fault < start + 32);
}
void sayPlain(int signal) {
  say("previous %d\n", signal);
}
void callReporters(int signal, siginfo_t* info, void* context) {
  kiv_signal_handler(signal, info, context);
}

/// How many bytes of the stack that it runs on were ever touched, to a page.
void sayStackUse(int, siginfo_t*, void*) {
  stack_t stack{};
  sigaltstack(nullptr, &stack);
  unsigned char pages[128];
  const std::size_t count = std::min(stack.ss_size / 4096, sizeof pages);
  char* const top = static_cast<char*>(stack.ss_sp) + stack.ss_size;
  if ((stack.ss_flags & SS_ONSTACK) == 0 || mincore(top - count * 4096, count * 4096, pages) != 0) {
    _exit(6);
  }
  const auto* const first = std::find_if(pages, pages + count, [](unsigned char page) { return (page & 1) != 0; });
  say("%zu of %zu\n", static_cast<std::size_t>(pages + count - first) * 4096, stack.ss_size);
}

void installWithCallback(int (*callback)()) {
  reporter().setUserCrashHandlerCallback(callback);
  install();
}

[[gnu::noinline]] void throwHere() {
  throw std::logic_error("out of the handling");
}

void crashOnceOthersAreReplaced() {
  install();
  setHandler(SIGSEGV, sayInfo);
  // On the loop that the guard's timer is on.
  platform::RunLoop::main().addTimer(0.05, true, [](platform::Timer&) {
    if (reporter().checkSignalHandler()) {
      nullWrite();
    }
  });
  for (;;) {
    pause();
  }
}

void crashOfGoneHandlers() {
  install();
  setHandler(SIGSEGV, callReporters);
  struct sigaction kept {};
  sigaction(SIGSEGV, nullptr, &kept);
  reporter().uninstall();
  sigaction(SIGSEGV, &kept, nullptr);
  nullWrite();
}

void throwTwice() {
  install();
  kiv_objc_uncaught_handler(NSException("FirstError", "first reason"));
  kiv_objc_uncaught_handler(NSException("SecondError", "second reason"));
  say("handler left: %d\n", NSGetUncaughtExceptionHandler() != nullptr);
  std::abort();
}

const std::map<std::string, std::function<void()>> kCases = {
    {"previous-with-info",
     [] {
       setHandler(SIGSEGV, sayInfo);
       install();
       nullWrite();
     }},
    {"previous-plain",
     [] {
       signal(SIGSEGV, sayPlain);
       install();
       nullWrite();
     }},
    {"previous-ignore",
     [] {
       signal(SIGSEGV, SIG_IGN);
       install();
       nullWrite();
     }},
    {"callback-same-fault",
     [] {
       installWithCallback(faultingCallback<nullWrite>);
       nullWrite();
     }},
    {"callback-same-signal",
     [] {
       installWithCallback(faultingCallback<writeNearNull>);
       nullWrite();
     }},
    {"callback-other-signal",
     [] {
       installWithCallback(faultingCallback<integerDivision>);
       nullWrite();
     }},
    {"callback-faults-twice",
     [] {
       installWithCallback(faultingCallback<writeNearNull, integerDivision>);
       nullWrite();
     }},
    {"callback-throws",
     [] {
       installWithCallback(faultingCallback<throwHere>);
       nullWrite();
     }},
    {"disabled",
     [] {
       reporter().enableSignalErrorReporter(false);
       install();
       nullWrite();
     }},
    {"uninstalled",
     [] {
       install();
       reporter().uninstall();
       nullWrite();
     }},
    {"called-after-uninstall", crashOfGoneHandlers},
    {"replaced", crashOnceOthersAreReplaced},
    {"second-exception", throwTwice},
    {"stack-use",
     [] {
       setHandler(SIGSEGV, sayStackUse);
       reporter().setEnableSymbolicateInProcess(true);
       install();
       nullWrite();
     }},
    {"stack-use-again",
     [] {
       setHandler(SIGFPE, sayStackUse);
       reporter().setEnableSymbolicateInProcess(true);
       installWithCallback(faultingCallback<integerDivision>);
       nullWrite();
     }},
    {"stack-use-in-thread",
     [] {
       setHandler(SIGABRT, sayStackUse);
       install();
       std::thread([] { throw std::runtime_error("nobody catches this"); }).join();
     }},
};

}  // namespace

int main(int argc, char** argv) {
  const auto wanted = argc == 2 ? kCases.find(argv[1]) : kCases.end();
  if (wanted == kCases.end()) {
    std::cerr << "no such case\n";
    return 2;
  }
  prctl(PR_SET_DUMPABLE, 0);  // no core files from the crashes made here
  wanted->second();
  _exit(4);  // it did not die
}
