#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>

#include "Tests/Harness/VictimRun.h"

// What the handlers owe to other components, and to themselves when the handling goes wrong. The victims
// do nothing but break one rule; names of functions are not switched on.

namespace {

constexpr const char* kNothing = "";
constexpr const char* kLastOfNull =
    "Last Exception :\nException Type: SIGSEGV\nException Codes: SEGV_MAPERR at 0x0000000000000000\n";
constexpr const char* kUsual = "\nException Type: SIGSEGV\nException Codes: SEGV_MAPERR at 0x0000000000000000\n";

struct Row {
  const char* name;
  int signal;
  std::size_t logs;
  const char* inLog;
  const char* notInLog;
  const char* inOutput;
  const char* inErrors;
};

const Row kRows[] = {
    {"previous-with-info", SIGSEGV, 1, kUsual, "Last Exception", "previous 11 [11 1 (nil)] in nullWrite: 1\n",
     "Crash handling complete. Uninstall the handlers and forward the signal."},
    {"previous-plain", SIGSEGV, 1, kUsual, "Last Exception", "previous 11\n",
     "<INFO> <KIV> Forward signal 11 to the handler 0x"},
    {"previous-ignore", SIGSEGV, 1, kUsual, "Last Exception", kNothing, kNothing},
    {"callback-same-fault", SIGSEGV, 0, nullptr, nullptr, kNothing,
     "<INFO> <KIV> signal 11 info(11, 0, 1) already handled,uninstall\n"},
    {"callback-same-signal", SIGSEGV, 1, kLastOfNull, "Maybe SDK Crash", kNothing,
     "<KIV> Trap a fatal signal 11 [11, 0, 1] again\n"},
    {"callback-other-signal", SIGFPE, 1, kLastOfNull, "Maybe SDK Crash", kNothing,
     "<KIV> Trap a fatal signal 8 [8, 0, 1] again\n"},
    {"callback-faults-twice", SIGFPE, 0, nullptr, nullptr, kNothing,
     "<KIV> Trap a fatal singal 8 once more, terminate the app now!!!\n"},
    {"callback-throws", SIGABRT, 1, "\nMaybe SDK Crash:\n0  ", "out of the handling", kNothing, "again\n"},
    {"disabled", SIGSEGV, 0, nullptr, nullptr, kNothing, "<WARN> <KIV> signal handler disable\n"},
    {"uninstalled", SIGSEGV, 0, nullptr, nullptr, kNothing, "<INFO> <KIV> Uninstall signal handler SUCCESS.\n"},
    {"called-after-uninstall", SIGSEGV, 0, nullptr, nullptr, kNothing,
     "<INFO> <KIV> Signal handler uninstalled, won't handle it\n"},
    {"replaced", SIGSEGV, 1, kUsual, "Last Exception", "previous 11 [11 1 (nil)] in nullWrite: 1\n",
     "<INFO> <KIV> Resume [ Signal Handler ]\n"},
    {"second-exception", SIGABRT, 1, "\nException Type: FirstError(SIGABRT)\nException Codes: first reason at ",
     "econd", "handler left: 0\n", "Catch uncaught exception:\n\nFirstError first reason"},
};

TEST(Rules, AreKept) {
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const auto [outcome, time, logs] = test::runVictim("rules_victim", {row.name});
    EXPECT_EQ(outcome.signal, row.signal) << outcome.errors;
    EXPECT_EQ(outcome.output, row.inOutput);
    EXPECT_NE(outcome.errors.find(row.inErrors), std::string::npos) << outcome.errors;
    ASSERT_EQ(logs.size(), row.logs) << outcome.errors;
    if (row.logs != 0) {
      EXPECT_NE(logs[0].find(row.inLog), std::string::npos) << logs[0];
      EXPECT_TRUE(row.notInLog == nullptr || logs[0].find(row.notInLog) == std::string::npos) << logs[0];
    }
  }
}

// The least alternate stack that a thread has is 64 KiB beside the kernel's own needs.
TEST(Rules, TheWholeHandlingNeedsLittleStack) {
  constexpr std::size_t kMostUse = std::size_t{48} << 10;
  for (const char* name : {"stack-use", "stack-use-again", "stack-use-in-thread"}) {
    const auto [outcome, time, logs] = test::runVictim("rules_victim", {name});
    std::size_t used = 0;
    std::size_t size = 0;
    ASSERT_EQ(std::sscanf(outcome.output.c_str(), "%zu of %zu", &used, &size), 2) << outcome.errors;
    EXPECT_GT(used, 0U) << name;
    EXPECT_LT(used, kMostUse) << name;
    EXPECT_EQ(logs.size(), 1U) << outcome.errors;
  }
}

}  // namespace
