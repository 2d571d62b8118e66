#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Kernel/ThreadList.h"
#include "Kiv/crashhandler/bughandler/CrashDescription.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Kiv/crashhandler/journal/JournalFile.h"
#include "Kiv/crashhandler/journal/JournalView.h"
#include "Kiv/crashhandler/recovery/JournalRecovery.h"
#include "Tests/Support/Child.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kPort = core::threadPort(100);

/// A process that fills its journal as a crash does, as far as `step` says, and is killed.
using Step = std::function<void()>;

void leaveJournal(const core::String& directory, const Step& step) {
  const int ended = test::runInChild([&] {
    if (!CrashJournal::prepare(directory)) {
      return 1;
    }
    step();
    return kill(getpid(), SIGKILL);
  });
  ASSERT_EQ(ended, 128 + SIGKILL);
}

CrashFacts factsOf(std::uint32_t count, int signal) {
  CrashFacts facts{};
  facts.time = 1'500'000'000'000 + count;
  facts.signal = signal;
  facts.code = 1;
  facts.count = count;
  facts.crashThread = kPort;
  facts.registers[REG_RIP] = 0x1234;
  return facts;
}

void keepIdentity(const char* userid, JournalPart part = JournalPart::kIdentity) {
  static const char* kept;
  kept = userid;
  CrashJournal::keep(part, [](JournalFieldWriter& writer) {
    ReporterIdentity identity;
    identity.userid = core::String(kept);
    writer.put(identity);
  });
}

void keepImages() {
  CrashJournal::keep(JournalPart::kImages, [](JournalFieldWriter& writer) {
    KivMachImageInfo image;
    image.name = "/nowhere/program";
    image.sname = "program";
    image.base = 0x1000;
    image.size = 0x1000;
    writer.put(KivBinaryImageCollector::Images{image});
  });
}

void addThread(std::uint32_t index, std::vector<std::uint64_t> stack, const char* name = "") {
  core::ThreadName threadName{};
  std::strncpy(threadName.bytes, name, sizeof threadName.bytes - 1);
  CrashJournal::current()->snapshot.appendThread(core::threadPort(static_cast<int>(100 + index)), index, threadName,
                                                 stack, index == 0);
}

void crashWhole() {
  keepIdentity("somebody");
  keepImages();
  CrashJournal::enter(factsOf(1, SIGSEGV));
  addThread(0, {0x1010, 0x1020});
  addThread(1, {0x1030}, "worker");
}

std::vector<std::string> reported;

bool takeReport(const RecoveredCrash& crash) {
  reported.push_back(crash.data().crashlog()->str());
  return true;
}

class Journal : public testing::Test {
 protected:
  void SetUp() override { reported.clear(); }

  core::String directory() const { return directory_.path(); }

  std::vector<fs::path> journals() const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(directory_.path())) {
      if (entry.path().filename().string().starts_with(JournalFile::kPrefix)) {
        found.push_back(entry.path());
      }
    }
    return found;
  }

  std::string recovered() {
    JournalRecovery::run(directory(), takeReport);
    return reported.size() == 1 ? reported[0] : std::to_string(reported.size()) + " reports";
  }

  /// The same after `damage` did something to the journal.
  std::string recoveredAfter(const std::function<void(JournalLayout&)>& damage) {
    leaveJournal(directory(), crashWhole);
    const fs::path path = journals().at(0);
    const auto bytes = core::readFile(core::String(path.string()));
    auto journal = std::make_unique<JournalLayout>();
    std::memcpy(static_cast<void*>(journal.get()), bytes->data(), sizeof *journal);
    damage(*journal);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(journal.get()), sizeof *journal);
    std::string log = recovered();
    reported.clear();
    return log;
  }

  const test::TemporaryDirectory directory_;
};

bool contains(const std::string& text, std::string_view part) {
  return text.find(part) != std::string::npos;
}

TEST_F(Journal, TellsACrashFromItsFirstStoreOn) {
  struct Row {
    Step step;
    std::vector<std::string> in;
  };
  const Row rows[] = {
      {[] { CrashJournal::enter(factsOf(1, SIGSEGV)); },
       {"Handler: Signal Handler (recovered)\n", "Exception Type: SIGSEGV\nException Codes: SEGV_MAPERR at ",
        "Crashed Thread: 0\n"}},
      {[] {
         keepImages();
         CrashJournal::enter(factsOf(1, SIGFPE));
       },
       {"Exception Type: SIGFPE\n",
        "Thread 0 Crashed: \n0  program                        0x0000000000001234 "
        "0x0000000000001000 + 560\n"}},
      {crashWhole,
       {"Orv Registed Uin : somebody\n", "Thread 0 Crashed: \n0  program                        0x0000000000001010 ",
        "Thread 1 Name: worker\nThread 1: \n0  program                        0x0000000000001030 ",
        "\nThread 0 crashed with X86_64 Thread State:\n", " program  <> /nowhere/program\n"}},
      {[] {
         crashWhole();
         CrashJournal::enter(factsOf(2, SIGFPE));
       },
       {"Last Exception :\nException Type: SIGSEGV\nException Codes: SEGV_MAPERR at 0x0000000000000000\n",
        "Exception Type: SIGSEGV(SIGFPE)\n", "0x0000000000001234 ", "Thread 1 Name: worker\n"}},
      {[] {
         crashWhole();
         CrashJournal::putLog("Handler: Signal Handler\n\nthe finished text\n", 1);
       },
       {"Handler: Signal Handler (recovered)\n\nthe finished text\n"}},
      {[] {
         keepIdentity("thrower");
         CrashJournal::keep(JournalPart::kException, [](JournalFieldWriter& writer) {
           writer.put(ThrownException{"Error", "a reason", {0x1010}, 1'500'000'000'000});
         });
       },
       {"Exception Type: Error\nException Codes: a reason at (null)\n", "thrower"}},
  };
  for (const Row& row : rows) {
    leaveJournal(directory(), row.step);
    const std::string log = recovered();
    for (const std::string& part : row.in) {
      EXPECT_TRUE(contains(log, part)) << part << "\nis not in\n" << log;
    }
    EXPECT_TRUE(journals().empty());
    reported.clear();
  }
}

TEST_F(Journal, ReportsNothingOfAProcessThatDidNotCrashOrThatSettledIt) {
  leaveJournal(directory(), [] { keepIdentity("quiet"); });
  leaveJournal(directory(), [] {
    crashWhole();
    CrashJournal::settle(1);
  });
  EXPECT_EQ(recovered(), "0 reports");
  EXPECT_TRUE(journals().empty());
}

TEST_F(Journal, IsKeptUntilItIsReported) {
  leaveJournal(directory(), crashWhole);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(journals().size(), 1U);
    JournalRecovery::run(directory(), [](const RecoveredCrash&) { return false; });
  }
  EXPECT_EQ(recovered(), "0 reports") << "it is set aside by now";
  ASSERT_EQ(journals().size(), 1U);
  EXPECT_TRUE(contains(journals()[0].string(), ".broken-"));
}

TEST_F(Journal, LosesWhatIsDamagedAndNothingElse) {
  const auto damagePart = [](JournalLayout& journal, JournalPart part) {
    for (std::size_t copy = 0; copy < 2; ++copy) {
      journal.parts[journalPartPlace(part, copy)] ^= 1;
    }
  };
  std::string log = recoveredAfter([&](JournalLayout& journal) { damagePart(journal, JournalPart::kIdentity); });
  EXPECT_FALSE(contains(log, "somebody"));
  EXPECT_TRUE(contains(log, "Process: (null) ["));
  EXPECT_TRUE(contains(log, "Thread 1 Name: worker\n")) << log;
  log = recoveredAfter([&](JournalLayout& journal) { damagePart(journal, JournalPart::kImages); });
  EXPECT_TRUE(contains(log, "somebody") && contains(log, "Thread 1 Name: worker\n")) << log;
  log = recoveredAfter([](JournalLayout& journal) { journal.snapshot.addresses[2] ^= 1; });
  EXPECT_FALSE(contains(log, "worker"));
  EXPECT_TRUE(contains(log, "0x0000000000001010")) << log;
  log = recoveredAfter([](JournalLayout& journal) { journal.snapshot.addresses[0] ^= 1; });
  EXPECT_TRUE(contains(log, "worker") && contains(log, "0x0000000000001234")) << "where it stood is left\n" << log;
}

// A part that is being written when the process dies stays as it was.
TEST_F(Journal, KeepsTheFormerCopyOfAPart) {
  std::string log = recoveredAfter([](JournalLayout& journal) { journal.copies[0][1].check ^= 1; });
  EXPECT_FALSE(contains(log, "somebody")) << "there was one copy only";
  leaveJournal(directory(), [] {
    keepIdentity("first");
    keepIdentity("second");
    CrashJournal::enter(factsOf(1, SIGSEGV));
    CrashJournal::keep(JournalPart::kIdentity, [](JournalFieldWriter& writer) {
      writer.put(std::string_view("half"));
      kill(getpid(), SIGKILL);
    });
  });
  EXPECT_TRUE(contains(recovered(), "second"));
}

TEST_F(Journal, OfALivingProcessIsLeftAlone) {
  int ready[2];
  int end[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(end), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(end[1]);
    CrashJournal::prepare(directory());
    crashWhole();
    char byte = 0;
    _exit(write(ready[1], &byte, 1) == 1 && read(end[0], &byte, 1) == 0 ? 0 : 1);
  }
  char byte;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(recovered(), "0 reports");
  EXPECT_EQ(journals().size(), 1U);
  close(end[1]);
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(contains(recovered(), "somebody"));
  for (const int descriptor : {ready[0], ready[1], end[0]}) {
    close(descriptor);
  }
}

TEST_F(Journal, ThatNobodyCanHaveWrittenIsNotTaken) {
  const std::string path = directory_.path() + "/.journal_1_1";
  const auto outcome = [&] {
    JournalRecovery::run(directory(), takeReport);
    const auto left = journals();
    return left.empty() ? "removed" : left[0] == path ? "left" : "aside";
  };
  const auto put = [&](std::string_view content) { std::ofstream(path, std::ios::binary) << content; };
  const std::string whole = [&] {
    leaveJournal(directory(), crashWhole);
    const fs::path made = journals().at(0);
    const auto bytes = core::readFile(core::String(made.string()));
    fs::remove(made);
    return std::string(reinterpret_cast<const char*>(bytes->data()), bytes->size());
  }();
  struct Row {
    const char* name;
    std::function<void()> make;
    const char* outcome;
  };
  const Row rows[] = {
      {"empty", [&] { put(""); }, "removed"},
      {"zeros", [&] { put(std::string(100, '\0')); }, "removed"},
      {"garbage", [&] { put("neither this nor that"); }, "aside"},
      {"too large", [&] { put(whole + "x"); }, "aside"},
      {"another version",
       [&] {
         std::string other = whole;
         ++other[8];
         put(other);
       },
       "aside"},
      {"directory", [&] { fs::create_directory(path); }, "left"},
      {"link", [&] { fs::create_symlink("/etc/hostname", path); }, "left"},
      {"pipe", [&] { mkfifo(path.c_str(), 0600); }, "left"},
      {"writable by others",
       [&] {
         put(whole);
         chmod(path.c_str(), 0622);
       },
       "left"},
  };
  for (const Row& row : rows) {
    row.make();
    if (fs::is_regular_file(path) && !fs::is_symlink(path) && std::string_view(row.name) != "writable by others") {
      chmod(path.c_str(), 0600);
    }
    EXPECT_STREQ(outcome(), row.outcome) << row.name;
    EXPECT_TRUE(reported.empty()) << row.name;
    for (const fs::path& left : journals()) {
      fs::remove_all(left);
    }
  }
  put(whole.substr(0, sizeof(JournalLayout::Head) + sizeof(JournalLayout::entries)));
  chmod(path.c_str(), 0600);
  EXPECT_TRUE(contains(recovered(), "Exception Type: SIGSEGV\n")) << "a cut one tells what it has";
}

TEST_F(Journal, OfAnotherUserIsNotTaken) {
  ASSERT_EQ(geteuid(), 0U) << "needs the right to give a file away";
  leaveJournal(directory(), crashWhole);
  const std::string path = journals().at(0).string();
  ASSERT_EQ(chown(path.c_str(), 1, 1), 0);
  EXPECT_EQ(recovered(), "0 reports");
  EXPECT_EQ(journals().size(), 1U);
}

TEST_F(Journal, IsNotTouchedByAForkedChild) {
  leaveJournal(directory(), [] {
    keepIdentity("parent");
    test::runInChild([] {
      keepIdentity("child");
      return 0;
    });
    CrashJournal::enter(factsOf(1, SIGSEGV));
  });
  EXPECT_TRUE(contains(recovered(), "parent"));
}

}  // namespace
