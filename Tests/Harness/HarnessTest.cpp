#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <iostream>
#include <map>
#include <regex>

#include "Tests/Harness/VictimRun.h"

// Real crashes of a victim program, looked at from outside. One round, or as many as
// KIV_HARNESS_ROUNDS says (Tests/Harness/repeat.sh prints a table of them).

namespace {

constexpr const char* kAnyAddress = "0x[0-9a-f]{16}";
constexpr const char* kNoAddress = "0x0{16}";

struct Row {
  const char* name;
  int signal;
  const char* type;
  const char* code;
  const char* address;
  const char* function;  // of the crashed thread, or of the exception's stack where there is one
};

const Row kRows[] = {
    {"null-write", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", kNoAddress, "nullWrite"},
    {"call-null", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", kNoAddress, "callThroughNull"},
    {"wild-jump", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", "0x0000123456789000", "wildJump"},
    {"non-canonical", SIGSEGV, "SIGSEGV", "128", kNoAddress, "nonCanonicalPointer"},
    {"read-only", SIGSEGV, "SIGSEGV", "SEGV_ACCERR", kAnyAddress, "readOnlyWrite"},
    {"truncated-mapping", SIGBUS, "SIGBUS", "BUS_ADRERR", kAnyAddress, "truncatedMapping"},
    {"division", SIGFPE, "SIGFPE", "FPE_INTDIV", kAnyAddress, "integerDivision"},
    {"illegal", SIGILL, "SIGILL", "ILL_ILLOPN", kAnyAddress, "illegalInstruction"},
    {"breakpoint", SIGTRAP, "SIGTRAP", "128", kNoAddress, "breakpoint"},
    {"abort", SIGABRT, "SIGABRT", "-6", kNoAddress, "callAbort"},
    {"assert", SIGABRT, "SIGABRT", "-6", kNoAddress, "failedAssertion"},
    {"throw", SIGABRT, R"(std::runtime_error\(SIGABRT\))", "nobody catches this", kNoAddress, "throwStandard"},
    {"throw-own", SIGABRT, R"(\(anonymous namespace\)::OwnError\(SIGABRT\))", "", kNoAddress, "throwOwn"},
    {"throw-in-thread", SIGABRT, R"(std::runtime_error\(SIGABRT\))", "nobody catches this", kNoAddress,
     "throwStandard"},
    {"throw-noexcept", SIGABRT, R"(std::runtime_error\(SIGABRT\))", "nobody catches this", kNoAddress, "throwStandard"},
    {"throw-destructor", SIGABRT, R"(std::runtime_error\(SIGABRT\))", "nobody catches this", kNoAddress,
     "throwStandard"},
    {"pure-virtual", SIGABRT, "SIGABRT", "-6", kNoAddress, "pureVirtualCall"},
    {"overflow", SIGSEGV, "SIGSEGV", "SEGV_(MAPERR|ACCERR)", kAnyAddress, "recurse"},
    {"overflow-in-thread", SIGSEGV, "SIGSEGV", "SEGV_(MAPERR|ACCERR)", kAnyAddress, "recurse"},
    {"double-free", SIGABRT, "SIGABRT", "-6", kNoAddress, "doubleFree"},
    {"heap-overrun", SIGABRT, "SIGABRT", "-6", kNoAddress, "heapOverrun"},
    {"in-malloc", SIGSEGV, "SIGSEGV", "128", kNoAddress, "faultInMalloc"},
    {"loader-lock", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", kNoAddress, "faultUnderLoaderLock"},
    {"two-faults", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", kNoAddress, "nullWrite"},
    {"ten-faults", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", kNoAddress, "nullWrite"},
    {"two-aborts", SIGABRT, "SIGABRT", "-6", kNoAddress, "callAbort"},
    {"no-descriptors", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", kNoAddress, "useUpDescriptors"},
    {"no-memory", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", kNoAddress, "useUpAddressSpace"},
    {"frame-pointer", SIGSEGV, "SIGSEGV", "SEGV_MAPERR", "0x0000000000000041", "overwrittenFramePointer"},
};

constexpr std::chrono::seconds kMostTime{3};

/// What is wrong with the end of one victim, "" for nothing.
std::string faultOf(const Row& row, int threads) {
  const auto [outcome, time, logs] = test::runVictim("crash_victim", {row.name, std::to_string(threads)});
  if (time > kMostTime) {
    return "it took longer than 3 s";
  }
  if (outcome.signal != row.signal) {
    return "it ended by signal " + std::to_string(outcome.signal) + "\n" + outcome.errors;
  }
  if (logs.size() != 1) {
    return std::to_string(logs.size()) + " logs\n" + outcome.errors;
  }
  const std::string& log = logs[0];
  const std::regex exception(std::string("\nException Type: ") + row.type + "\nException Codes: (" + row.code +
                             ") at " + row.address + "\n");
  if (!std::regex_search(log, exception)) {
    return "another exception\n" + log;
  }
  if (test::crashedStackOf(log).find(row.function) == std::string::npos) {
    return "the function is not named\n" + log;
  }
  if (test::countOf(log, "blockDeep") != static_cast<std::size_t>(threads) * test::kBlockedDepth) {
    return "not all threads are there whole\n" + log;
  }
  return log.find("\nBinary Images:\n") != std::string::npos ? "" : "the log is cut\n" + log;
}

class Harness : public testing::TestWithParam<int> {};

TEST_P(Harness, EveryDeathLeavesItsLog) {
  std::map<std::string, int> passed;
  for (int round = 0; round < test::rounds(); ++round) {
    for (const Row& row : kRows) {
      const std::string fault = faultOf(row, GetParam());
      EXPECT_EQ(fault, "") << row.name << " beside " << GetParam() << " threads";
      passed[row.name] += fault.empty() ? 1 : 0;
    }
  }
  if (test::rounds() > 1) {
    for (const Row& row : kRows) {
      std::cout << "passed: " << row.name << " " << GetParam() << " " << passed[row.name] << std::endl;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Threads, Harness, testing::Values(1, 16, 256));

}  // namespace
