#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>

#include "Tests/Kiv/ProbeBundle.h"

namespace {

using test::ProbeBundle;

struct Death {
  const char* kind;
  int signal;
  const char* facts;  // what the note must contain
};

TEST(Crash, LeavesOneNoteAndEndsBySignalOfItsCause) {
  const Death deaths[] = {
      {"null-write", SIGSEGV, "Exception Type: SIGSEGV\nException Codes: SEGV_MAPERR at 0x0000000000000000\n"},
      {"call-null", SIGSEGV, "Crashed at: 0x0000000000000000 in no image\n"},
      {"non-canonical", SIGSEGV, "Exception Codes: 128 at 0x0000000000000000\n"},
      {"division", SIGFPE, "Exception Type: SIGFPE\nException Codes: FPE_INTDIV at 0x"},
      {"abort", SIGABRT, "Exception Type: SIGABRT\nException Codes: -6 at 0x0000000000000000\n"},
      {"stack-overflow", SIGSEGV, "Exception Codes: SEGV_MAPERR at 0x"},
      {"no-descriptors", SIGSEGV, "Exception Codes: SEGV_MAPERR at 0x0000000000000000\n"},
#ifdef KIV_PLAIN_BUILD  // sanitizers map memory of their own
      {"no-memory", SIGSEGV, "Exception Codes: SEGV_MAPERR at 0x0000000000000000\n"},
#endif
      {"ten-faults", SIGSEGV, "Exception Codes: SEGV_MAPERR at 0x0000000000000000\n"},
      {"two-aborts", SIGABRT, "Exception Type: SIGABRT\n"},
  };
  for (const Death& death : deaths) {
    const ProbeBundle bundle;
    const test::Outcome outcome = bundle.run({"appkey=A", std::string("crash=") + death.kind});
    EXPECT_EQ(outcome.signal, death.signal) << death.kind << outcome.errors;
    const auto notes = bundle.dataFiles("crash_");
    ASSERT_EQ(notes.size(), 1U) << death.kind << outcome.errors;
    const std::string note = test::contentOf(bundle.dataPath(notes[0]));
    EXPECT_NE(note.find(death.facts), std::string::npos) << death.kind << "\n" << note;
    EXPECT_NE(note.find("rflags: 0x"), std::string::npos) << note;
    EXPECT_TRUE(note.find("probe + ") != std::string::npos || note.find("libc.so.6 + ") != std::string::npos ||
                note.find("in no image") != std::string::npos)
        << note;
  }
}

TEST(Crash, OfAStackUsedUpIsCaughtOnThreadsThatWereThereBefore) {
  const ProbeBundle bundle;
  const test::Outcome outcome = bundle.run({"overflow-thread", "appkey=A", "crash=by-another-thread"});
  EXPECT_EQ(outcome.signal, SIGSEGV) << outcome.errors;
  EXPECT_EQ(bundle.dataFiles("crash_").size(), 1U) << outcome.errors;
}

TEST(Crash, OfHandlingItselfOrThatHangsEndsByTheOriginalSignal) {
  for (const char* kind : {"hang", "second-fault"}) {
    const ProbeBundle bundle;
    const auto start = std::chrono::steady_clock::now();
    const test::Outcome outcome = bundle.run({"appkey=A", std::string("crash=") + kind});
    EXPECT_EQ(outcome.signal, SIGSEGV) << kind;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4)) << kind;
  }
}

TEST(Crash, IsFoundOnceByTheNextRunAndKept) {
  const ProbeBundle bundle;
  EXPECT_EQ(bundle.run({"appkey=A", "last-crash"}).output, "YES\n(none)\n");
  EXPECT_EQ(bundle.run({"appkey=A", "crash=abort"}).signal, SIGABRT);
  const test::Outcome second = bundle.run({"appkey=A", "last-crash"});
  const auto seen = bundle.dataFiles("seen_crash_");
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(second.output, "YES\n" + bundle.dataPath(seen[0]) + "\n");
  EXPECT_EQ(bundle.run({"appkey=A", "last-crash"}).output, "YES\n(none)\n");
  for (int i = 0; i < 12; ++i) {
    bundle.writeData("crash_000000000" + std::to_string(i % 10) + "_" + std::to_string(i) + ".txt", "old");
  }
  bundle.run({"appkey=A", "last-crash"});
  EXPECT_EQ(bundle.dataFiles("seen_crash_").size(), 10U);
  EXPECT_FALSE(test::contentOf(bundle.dataPath(seen[0])).empty()) << "the newest one was removed";
}

#ifdef KIV_PLAIN_BUILD
TEST(Crash, IsHandledWithoutTheHeap) {
  const ProbeBundle bundle;
  const test::Outcome linked = bundle.run({"appkey=A", "crash=heap-calls"});
  EXPECT_EQ(linked.signal, SIGSEGV);
  EXPECT_TRUE(linked.errors.ends_with("\nheap call: malloc\nheap call: free\n")) << linked.errors;
  EXPECT_EQ(bundle.dataFiles("crash_").size(), 1U);

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
