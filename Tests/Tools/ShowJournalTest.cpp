#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

/// A process that notes a crash, with a thread of a name that a terminal would obey, and is killed.
std::string journalIn(const test::TemporaryDirectory& directory) {
  test::runInChild([&] {
    CrashJournal::prepare(core::String(directory.path()));
    CrashFacts facts{};
    facts.signal = SIGFPE;
    facts.code = FPE_INTDIV;
    facts.count = 1;
    facts.time = 1'520'258'589'000;
    facts.crashThread = 259;
    CrashJournal::enter(facts);
    const std::uint64_t stack[] = {0x1234};
    CrashJournal::current()->snapshot.appendThread(259, 0, {"\x1b[31m"}, stack, true);
    return kill(getpid(), SIGKILL);
  });
  return directory.file(test::namesIn(directory.path(), ".journal_").at(0));
}

test::Outcome show(const std::string& file, std::vector<std::string> more = {}) {
  more.insert(more.begin(), {KIV_TOOL, "show", "--journal", file});
  return test::Subprocess::run(more, {{"TZ", "UTC"}});
}

TEST(ShowJournal, ShowsStateFactsThreadsAndTheLogToBe) {
  const test::TemporaryDirectory directory;
  const std::string file = journalIn(directory);
  const std::string before = test::contentOf(file);
  const test::Outcome shown = show(file);
  EXPECT_EQ(shown.exitStatus, 0) << shown.errors;
  for (const char* part : {"state: a crash that nobody has reported\n", "signal: SIGFPE\n", "code: FPE_INTDIV\n",
                           "0x0000000000001234\n", "name: \\x1b[31m\n", "identity: nothing\n",
                           "Handler: Signal Handler (recovered)\n", "Exception Type: SIGFPE\n"}) {
    EXPECT_NE(shown.output.find(part), std::string::npos) << part << "is not in\n" << shown.output;
  }
  const auto json = nlohmann::json::parse(show(file, {"--json"}).output);
  EXPECT_EQ(json["entries"][0]["signal"], "SIGFPE");
  EXPECT_NE(json["log"].get<std::string>().find("Crashed Thread: 0"), std::string::npos);
  EXPECT_EQ(test::contentOf(file), before) << "it is only looked at";
}

TEST(ShowJournal, SaysWhatIsWrongWithOthers) {
  const test::TemporaryDirectory directory;
  std::string other = test::contentOf(journalIn(directory));
  ++other[8];
  test::writeFile(directory.file("other"), other);
  test::writeFile(directory.file("garbage"), "garbage");
  const std::pair<std::string, std::string> rows[] = {
      {directory.file("other"), " is a journal of version 2, not 1\n"},
      {directory.file("garbage"), " is no journal\n"},
      {directory.file("missing"), " cannot be read: No such file or directory\n"},
      {directory.path(), " cannot be read: Is a directory\n"},
  };
  for (const auto& [file, text] : rows) {
    const test::Outcome outcome = show(file);
    EXPECT_EQ(outcome.exitStatus, 1) << file;
    EXPECT_EQ(outcome.errors, "kiv: " + file + text);
  }
  EXPECT_EQ(show(rows[0].first, {"3f2a91c0"}).exitStatus, 2) << "an ID beside a journal";
}

}  // namespace
