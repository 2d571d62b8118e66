#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "Tests/Support/Subprocess.h"

namespace {

/// Programs built with other flags compare their stacks with glibc's.
class WalkVictim : public testing::TestWithParam<const char*> {};

TEST_P(WalkVictim, agreesWithBacktrace) {
  const auto tests = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string victim = tests / (std::string("walk_victim_") + GetParam());
  const test::Outcome list = test::Subprocess::run({victim, "list"});
  ASSERT_EQ(list.exitStatus, 0);
  std::istringstream names(list.output);
  int count = 0;
  for (std::string name; names >> name; ++count) {
    for (const auto& command : {std::vector{victim, name}, std::vector{victim, name, std::string("crashed")}}) {
      if (command.size() == 2 || GetParam() == std::string("O2")) {
        const test::Outcome outcome = test::Subprocess::run(command);
        EXPECT_EQ(outcome.exitStatus, 0) << name << ": signal " << outcome.signal << "\n" << outcome.output;
      }
    }
  }
  EXPECT_EQ(count, 13);
}
INSTANTIATE_TEST_SUITE_P(Flags, WalkVictim, testing::Values("O0", "O1", "O2", "O3", "lazy", "static"),
                         [](const auto& flags) { return std::string(flags.param); });

}  // namespace
