#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "Tests/Kiv/ProbeBundle.h"

namespace {

using test::ProbeBundle;

constexpr const char* kRecordPrefix = ".crash_2";  // and the rest of the time

TEST(Crash, OfAStackUsedUpIsCaughtOnThreadsThatWereThereBefore) {
  const ProbeBundle bundle;
  const test::Outcome outcome = bundle.run({"overflow-thread", "appkey=A", "crash=by-another-thread"});
  EXPECT_EQ(outcome.signal, SIGSEGV) << outcome.errors;
  EXPECT_EQ(bundle.dataFiles(kRecordPrefix).size(), 1U) << outcome.errors;
}

TEST(Crash, WhoseHandlingHangsEndsByTheOriginalSignal) {
  const ProbeBundle bundle;
  const auto start = std::chrono::steady_clock::now();
  const test::Outcome outcome = bundle.run({"appkey=A", "crash=hang"});
  EXPECT_EQ(outcome.signal, SIGSEGV) << outcome.errors;
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST(Crash, IsToldOnceByTheNextRunAndKept) {
  const ProbeBundle bundle;
  EXPECT_EQ(bundle.run({"appkey=A", "last-crash"}).output, "YES\n(none)\n");
  EXPECT_EQ(bundle.run({"appkey=A", "crash=abort"}).signal, SIGABRT);
  EXPECT_EQ(bundle.run({"appkey=A", "last-crash"}).output, "YES\ncrash\n");
  EXPECT_EQ(bundle.run({"appkey=A", "last-crash"}).output, "YES\n(none)\n");
  EXPECT_EQ(bundle.dataFiles(kRecordPrefix).size(), 1U);
}

#ifdef KIV_PLAIN_BUILD
TEST(Crash, IsHandledWithoutTheHeap) {
  const ProbeBundle bundle;
  const test::Outcome linked = bundle.run({"appkey=A", "crash=heap-calls"});
  EXPECT_EQ(linked.signal, SIGSEGV);
  const std::size_t calls = linked.errors.find("heap call: malloc\nheap call: free\n");
  ASSERT_NE(calls, std::string::npos) << linked.errors;
  EXPECT_EQ(linked.errors.rfind("heap call"), linked.errors.find("heap call: free", calls)) << linked.errors;
  EXPECT_EQ(bundle.dataFiles(kRecordPrefix).size(), 1U);

  const test::TemporaryDirectory home;
  const std::filesystem::path tests = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const test::Outcome opened = test::Subprocess::run({tests / "kiv_plugin_host", tests / "libkiv_plugin.so"},
                                                     {{"HOME", home.path()}, {"XDG_DATA_HOME", {}}});
  EXPECT_EQ(opened.signal, SIGSEGV) << opened.errors;
  EXPECT_EQ(opened.errors.find("heap call"), std::string::npos) << opened.errors;
}
#endif

TEST(Crash, OnPurposeComesThroughTheFacade) {
  const ProbeBundle bundle;
  const test::Outcome signal = bundle.run({"appkey=A", "test-signal"});
  EXPECT_EQ(signal.signal, SIGSEGV);
  EXPECT_NE(signal.errors.find("[Test] sdk will throw a C++ error for test\n"), std::string::npos);
  const test::Outcome exception = bundle.run({"appkey=A", "test-exception"});
  EXPECT_EQ(exception.signal, SIGABRT);
  EXPECT_NE(exception.errors.find("<KIV> Catch uncaught exception:\n\nNSRangeException index 2 is beyond the bounds "
                                  "of an array of 1 entry \n "),
            std::string::npos)
      << exception.errors;
}

}  // namespace
