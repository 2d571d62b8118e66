#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "Platform/Foundation/NSException.h"

namespace {

using Function = void (*)();

bool passesThrough(const NSException& exception, Function function) {
  const auto& addresses = exception.callStackReturnAddresses();
  return std::any_of(addresses.begin(), addresses.end(), [&](std::uintptr_t address) {
    return _Unwind_FindEnclosingFunction(reinterpret_cast<void*>(address - 1)) == reinterpret_cast<void*>(function);
  });
}

[[gnu::noinline]] void throwNSException() {
  throw NSException("NSRangeException", "too far");
}
[[gnu::noinline]] void throwRuntimeError() {
  throw std::runtime_error("boom");
}

TEST(NSException, ItRemembersThePlaceWhereItWasMade) {
  try {
    throwNSException();
  } catch (const NSException& caught) {
    const NSException copy = caught;
    EXPECT_TRUE(passesThrough(copy, throwNSException));
    EXPECT_STREQ(copy.what(), "too far");
  }
}

TEST(NSException, ItsSymbolsAreALineAnAddress) {
  const auto inLibrary = reinterpret_cast<std::uintptr_t>(&::getppid) + 4;
  const std::vector<std::string> lines = NSException("name", "reason", {inLibrary, 16}).callStackSymbols();
  const char* form = "0  libc\\.so[.0-9]* {15,} 0x[0-9a-f]{16} [_a-z]*getppid \\+ 4";
  EXPECT_TRUE(testing::Matcher<std::string>(testing::MatchesRegex(form)).Matches(lines[0])) << lines[0];
  EXPECT_EQ(lines[1], "1  " + std::string(30, ' ') + " 0x0000000000000010");
}

void print(const std::string& text) {
  ::write(STDERR_FILENO, text.data(), text.size());
}
void printException(const NSException& exception) {
  print("caught " + exception.name() + "|" + exception.reason() + "|" +
        (passesThrough(exception, throwRuntimeError) ? "here; " : "; "));
}
void throwAgain(const NSException&) {
  print("throwing; ");
  throw std::runtime_error("again");
}

/// Runs `work` where nothing catches what it throws.
[[noreturn]] void runToTheEnd(NSUncaughtExceptionHandler handler, Function work) {
  NSSetUncaughtExceptionHandler(handler);
  std::thread(work).join();
  ::_exit(0);
}

TEST(UncaughtExceptionDeathTest, TheHandlerGetsNameAndReason) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::tuple<Function, NSUncaughtExceptionHandler, const char*> cases[] = {
      {throwRuntimeError, printException, "^caught std::runtime_error\\|boom\\|here; terminate called"},
      {throwNSException, printException, "^caught NSRangeException\\|too far\\|; terminate called"},
      {[] { throw 42; }, printException, "^caught int\\|\\|; terminate called"},
      {[]() noexcept { throwRuntimeError(); }, printException,
       "^caught std::runtime_error\\|boom\\|.*; terminate called"},
      {[] { std::terminate(); }, printException, "^terminate called without"},
      {throwRuntimeError, throwAgain, "^throwing; $"},
  };
  for (const auto& [work, handler, output] : cases) {
    EXPECT_EXIT(runToTheEnd(handler, work), testing::KilledBySignal(SIGABRT), output);
  }
}

std::terminate_handler wrapped = nullptr;
const std::terminate_handler callWrapped = [] {
  print("outer; ");
  wrapped();
};
const std::terminate_handler endWithStatus7 = [] { ::_exit(7); };

TEST(UncaughtExceptionDeathTest, TheHandlerStandsInFrontOfTheTerminateHandler) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((std::set_terminate(endWithStatus7), runToTheEnd(printException, throwNSException)),
              testing::ExitedWithCode(7), "^caught NSRange.*; $");
  // A foreign handler that calls this one, and then this one in front again: no circle.
  EXPECT_EXIT((NSSetUncaughtExceptionHandler(printException), wrapped = std::set_terminate(callWrapped),
               runToTheEnd(printException, throwNSException)),
              testing::KilledBySignal(SIGABRT), "^caught NSRange.*; outer; $");
}

TEST(UncaughtException, TakingTheHandlerAwayPutsTheTerminateHandlerBack) {
  const std::terminate_handler before = std::get_terminate();
  for (const bool replaced : {false, true}) {
    NSSetUncaughtExceptionHandler(printException);
    EXPECT_EQ(NSGetUncaughtExceptionHandler(), printException);
    if (replaced) {
      std::set_terminate(endWithStatus7);
      EXPECT_EQ(NSGetUncaughtExceptionHandler(), nullptr);
    }
    NSSetUncaughtExceptionHandler(nullptr);
    EXPECT_EQ(NSGetUncaughtExceptionHandler(), nullptr);
    EXPECT_EQ(std::set_terminate(before), replaced ? endWithStatus7 : before);
  }
}

}  // namespace
