#include <gtest/gtest.h>
#include <signal.h>

#include "Tests/Harness/Aftermath.h"

// What the store holds after crashes that the program wants merged, or left out.

namespace {

constexpr const char* kVictim = "survival_victim";
constexpr int kSegv = 128 + SIGSEGV;

TEST(Stored, EqualCrashesAreCountedInOneRecord) {
  const test::VictimHome home;
  for (const char* way : {"merging", "merging", "merging-hangs"}) {
    EXPECT_EQ(test::endOf(home.run(kVictim, {way, "1"})), kSegv);
  }
  EXPECT_EQ(home.records().at(0).dcount, 2) << "the third is in its journal";
  EXPECT_EQ(test::endOf(home.run(kVictim, {"merging", "1"})), kSegv);
  EXPECT_EQ(test::endOf(home.run(kVictim, {"next", "0"})), 0);
  const auto records = home.records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].dcount, 4);
  EXPECT_EQ(*records[0].crashType, "200");
  EXPECT_EQ(test::countOf(test::attachmentOf(records[0], "crash_times.log"), ";"), 2U);
  EXPECT_NE(test::attachmentOf(records[0], "crash.log").find("nullWrite"), std::string::npos);
}

TEST(Stored, AFilteredCrashIsNot) {
  const test::VictimHome home;
  EXPECT_EQ(test::endOf(home.run(kVictim, {"excluded", "1"})), kSegv);
  EXPECT_EQ(test::endOf(home.run(kVictim, {"excluded", "1", "kill", "-1", "20"})), 128 + SIGKILL);
  EXPECT_EQ(test::endOf(home.run(kVictim, {"next", "0"})), 0);
  EXPECT_TRUE(home.records().empty());
  EXPECT_EQ(home.files({".journal_"}).size(), 1U) << "that of the last start alone";
}

}  // namespace
