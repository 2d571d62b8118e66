#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <filesystem>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "Tests/Support/Subprocess.h"

namespace {

constexpr std::size_t kMostFrames = 256;
/// How a debugger writes the frame that a signal handler returns to, which has no address there.
constexpr std::uint64_t kSignalFrame = 1;
constexpr std::uint64_t kSyscallSize = 2;

struct Stack {
  bool isInterrupted = false;
  std::string thread{};
  std::vector<std::uint64_t> addresses{};
};

Stack parseVictim(const std::string& output) {
  Stack stack;
  std::istringstream lines(output);
  std::string word;
  lines >> stack.thread >> word;
  stack.isInterrupted = word == "interrupted";
  while (lines >> word && word != "ready") {
    stack.addresses.push_back(std::stoull(word, nullptr, 16));
  }
  return stack;
}

struct Frame {
  std::uint64_t address;
  std::string function;
};

/// The stack of one thread, from the frame on that the victim's own handler interrupted.
std::vector<Frame> parseDebugger(const std::string& output, const Stack& stack) {
  static const std::regex kFrame("^#[0-9]+ +(?:(0x[0-9a-f]+) in )?(.*)$");
  std::vector<Frame> frames;
  std::istringstream lines(output);
  bool isWanted = false;
  bool hasBegun = !stack.isInterrupted;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Thread ")) {
      isWanted = std::regex_search(line, std::regex("(LWP|process) " + stack.thread + "\\)"));
    }
    std::smatch parts;
    if (!isWanted || !std::regex_match(line, parts, kFrame)) {
      continue;
    }
    const bool isSignal = parts[2].str().starts_with("<signal handler called>");
    if (hasBegun) {
      const std::string address = parts[1].matched ? parts[1].str() : "0";
      frames.push_back({isSignal ? kSignalFrame : std::stoull(address, nullptr, 16), parts[2]});
    }
    hasBegun = hasBegun || isSignal;
  }
  if (!frames.empty() && frames[0].address == 0) {
    frames.erase(frames.begin());
  }
  return frames;
}

std::string show(const Stack& stack, const std::vector<Frame>& expected) {
  std::ostringstream text;
  for (std::size_t i = 0; i < std::max(stack.addresses.size(), expected.size()); ++i) {
    text << i << std::hex << " " << (i < stack.addresses.size() ? stack.addresses[i] : 0) << " "
         << (i < expected.size() ? expected[i].address : 0) << std::dec << " "
         << (i < expected.size() ? expected[i].function : "") << "\n";
  }
  return text.str();
}

/// Victims built with other flags, each in all its scenes.
struct Victim : testing::TestWithParam<const char*> {
  /// The scenes, of which the last two are no trouble.
  std::vector<std::string> scenes() const {
    const test::Outcome list = test::Subprocess::run({victim, "list"});
    EXPECT_EQ(list.output,
              "leaf abort assert pure-virtual null-call callback handler handler-on-stack poll condition nanosleep "
              "destructor no-frame-pointer recursion fibre aligned thread odd step names ");
    std::istringstream names(list.output);
    return {std::istream_iterator<std::string>(names), {}};
  }

  const std::string victim =
      std::filesystem::read_symlink("/proc/self/exe").parent_path() / (std::string("victim_") + GetParam());
};
const auto nameOfParam = [](const auto& flags) { return std::string(flags.param); };

TEST_P(Victim, agreesWithBacktrace) {
  std::vector<std::string> scenes = this->scenes();
  scenes.pop_back();
  for (const std::string& scene : scenes) {
    for (const std::string judge : {"backtrace", "crashed"}) {
      if (judge == "crashed" && GetParam() == std::string("static")) {
        continue;  // has no tables of its own that a crash could go by
      }
      const test::Outcome outcome = test::Subprocess::run({victim, judge, scene});
      EXPECT_EQ(outcome.exitStatus, 0) << judge << " " << scene << ": " << outcome.signal << "\n" << outcome.output;
    }
  }
  EXPECT_EQ(test::Subprocess::run({victim, "backtrace", "names"}).output, "victimLocal+1 qsort+0 +0 ");
}
INSTANTIATE_TEST_SUITE_P(Flags, Victim, testing::Values("O0", "O1", "O2", "O3", "lazy", "static"), nameOfParam);

struct DebuggedVictim : Victim {};

TEST_P(DebuggedVictim, agreesWithDebugger) {
  std::vector<std::string> scenes = this->scenes();
  scenes.resize(scenes.size() - 2);
  for (const std::string& scene : scenes) {
    SCOPED_TRACE(scene);
    test::Subprocess running({victim, "debugger", scene});
    ASSERT_TRUE(running.waitForOutput("ready\n"));
    const test::Outcome debugger = test::Subprocess::run(
        {"gdb", "-batch", "-nx", "-iex", "set debug-file-directory /nowhere", "-ex", "set backtrace past-main on",
         "-ex", "set backtrace past-entry on", "-p", std::to_string(running.processId()), "-ex", "thread apply all bt"},
        {{"DEBUGINFOD_URLS", std::nullopt}});
    running.kill(SIGKILL);
    const Stack stack = parseVictim(running.wait().output);
    std::vector<Frame> expected = parseDebugger(debugger.output, stack);
    // Beyond the start of a stack made by hand a debugger shows what lies there, be it data.
    while (expected.size() > stack.addresses.size() && (expected.back().function == "?? ()" || scene == "fibre")) {
      expected.pop_back();
    }
    ASSERT_GE(expected.size(), 3U) << debugger.output << debugger.errors;
    EXPECT_EQ(stack.addresses.size(), std::min(expected.size(), kMostFrames)) << show(stack, expected);
    for (std::size_t i = 0; i < std::min(expected.size(), stack.addresses.size()); ++i) {
      if (expected[i].address != kSignalFrame) {
        // A thread that was stopped in a system call stands before the call's instruction, to make it again.
        const bool isRestart =
            i == 0 && !stack.isInterrupted && stack.addresses[0] + kSyscallSize == expected[0].address;
        ASSERT_TRUE(stack.addresses[i] == expected[i].address || isRestart) << i << "\n" << show(stack, expected);
      }
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Flags, DebuggedVictim, testing::Values("O0", "O2", "static"), nameOfParam);

}  // namespace
