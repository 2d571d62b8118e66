#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <unwind.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "Platform/Foundation/CallStack.h"
#include "Platform/Foundation/NSError.h"
#include "Platform/Foundation/NSException.h"

namespace {

using Function = void (*)();

bool isIn(Function function, std::uintptr_t address) {
  return _Unwind_FindEnclosingFunction(reinterpret_cast<void*>(address - 1)) == reinterpret_cast<void*>(function);
}

[[gnu::noinline]] void makeException(std::optional<NSException>& made) {
  made.emplace("NSRangeException", "index 2 beyond bounds");
}

TEST(NSException, ItRemembersThePlaceWhereItWasMade) {
  std::optional<NSException> made;
  makeException(made);
  ASSERT_FALSE(made->callStackReturnAddresses().empty());
  // std::optional may construct it in a function of its own.
  const auto& addresses = made->callStackReturnAddresses();
  const auto place = reinterpret_cast<Function>(&makeException);
  EXPECT_TRUE(std::any_of(addresses.begin(), addresses.begin() + 3, [&](auto each) { return isIn(place, each); }));
  const NSException copy = *made;
  EXPECT_EQ(copy.callStackReturnAddresses(), addresses);
  EXPECT_STREQ(copy.what(), "index 2 beyond bounds");
}

TEST(NSException, ItsSymbolsAreALineAnAddress) {
  const std::uintptr_t outside = 16;
  const auto library = reinterpret_cast<std::uintptr_t>(&::getppid);
  const NSException exception("name", "reason", {library + 4, outside});
  const std::vector<std::string> lines = exception.callStackSymbols();
  ASSERT_EQ(lines.size(), 2U);
  const testing::Matcher<std::string> form =
      testing::MatchesRegex("0  libc\\.so[.0-9]* {15,} 0x[0-9a-f]{16} [_a-z]*getppid \\+ 4");
  EXPECT_TRUE(form.Matches(lines[0])) << lines[0];
  EXPECT_EQ(lines[1], "1  " + std::string(30, ' ') + " 0x0000000000000010");

  const std::vector<std::string> own = platform::callStackSymbols();
  ASSERT_GE(own.size(), 4U);
  EXPECT_TRUE(own[0].starts_with("0  ")) << own[0];
  EXPECT_TRUE(
      std::any_of(own.begin(), own.end(), [](const auto& line) { return line.find("__libc_start") != line.npos; }));
}

TEST(NSError, ItsDescriptionNamesDomainAndCode) {
  EXPECT_EQ(NSError("KivErrorDomain", -7).description(), "Error Domain=KivErrorDomain Code=-7");
  EXPECT_EQ(NSError("KivErrorDomain", 7, "bad answer").description(),
            "Error Domain=KivErrorDomain Code=7 \"bad answer\"");
}

void print(const char* text) {
  ::write(STDERR_FILENO, text, std::char_traits<char>::length(text));
}

[[gnu::noinline]] void throwRuntimeError() {
  throw std::runtime_error("boom");
}
void throwNSException() {
  throw NSException("NSRangeException", "too far");
}
void throwNumber() {
  throw 42;
}
void throwOutOfNoexcept() {
  []() noexcept { throwRuntimeError(); }();
}
void terminateWithoutException() {
  std::terminate();
}

void printException(const NSException& exception) {
  const auto& addresses = exception.callStackReturnAddresses();
  const bool knowsPlace =
      std::any_of(addresses.begin(), addresses.end(), [](auto each) { return isIn(throwRuntimeError, each); });
  print(("caught " + exception.name() + "|" + exception.reason() + "|" + (knowsPlace ? "here" : "") + "; ").c_str());
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

class UncaughtException : public testing::Test {
 protected:
  UncaughtException() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
using UncaughtExceptionDeathTest = UncaughtException;

TEST_F(UncaughtExceptionDeathTest, TheHandlerGetsNameAndReason) {
  const struct {
    Function work;
    NSUncaughtExceptionHandler handler;
    const char* output;
  } cases[] = {
      {throwRuntimeError, printException, "^caught std::runtime_error\\|boom\\|here; terminate called"},
      {throwNSException, printException, "^caught NSRangeException\\|too far\\|; terminate called"},
      {throwNumber, printException, "^caught int\\|\\|; terminate called"},
      {throwOutOfNoexcept, printException, "^caught std::runtime_error\\|boom\\|.*; terminate called"},
      {terminateWithoutException, printException, "^terminate called without"},
      {throwRuntimeError, throwAgain, "^throwing; $"},
  };
  for (const auto& [work, handler, output] : cases) {
    EXPECT_EXIT(runToTheEnd(handler, work), testing::KilledBySignal(SIGABRT), output);
  }
}

std::terminate_handler wrapped = nullptr;

void endWithStatus7() {
  print("last; ");
  ::_exit(7);
}
void callWrapped() {
  print("outer; ");
  wrapped();
}

TEST_F(UncaughtExceptionDeathTest, TheHandlerStandsInFrontOfTheTerminateHandler) {
  EXPECT_EXIT((std::set_terminate(endWithStatus7), runToTheEnd(printException, throwNumber)),
              testing::ExitedWithCode(7), "^caught int\\|\\|; last; $");
  // A foreign handler that calls this one, and then this one in front again: no circle.
  EXPECT_EXIT((NSSetUncaughtExceptionHandler(printException), wrapped = std::set_terminate(callWrapped),
               runToTheEnd(printException, throwNumber)),
              testing::KilledBySignal(SIGABRT), "^caught int\\|\\|; outer; $");
}

TEST_F(UncaughtException, TakingTheHandlerAwayPutsTheTerminateHandlerBack) {
  const std::terminate_handler before = std::get_terminate();
  NSSetUncaughtExceptionHandler(printException);
  EXPECT_EQ(NSGetUncaughtExceptionHandler(), printException);
  NSSetUncaughtExceptionHandler(throwAgain);
  EXPECT_EQ(NSGetUncaughtExceptionHandler(), throwAgain);
  NSSetUncaughtExceptionHandler(nullptr);
  EXPECT_EQ(std::get_terminate(), before);
  EXPECT_EQ(NSGetUncaughtExceptionHandler(), nullptr);

  NSSetUncaughtExceptionHandler(printException);
  std::set_terminate(endWithStatus7);
  EXPECT_EQ(NSGetUncaughtExceptionHandler(), nullptr);
  NSSetUncaughtExceptionHandler(nullptr);
  EXPECT_EQ(std::get_terminate(), endWithStatus7);
  std::set_terminate(before);
}

}  // namespace
