#include <gtest/gtest.h>
#include <signal.h>

#include <cstdint>
#include <filesystem>
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

struct Frame {
  std::uint64_t address;
  std::string function;
};

struct Stack {
  std::string thread;
  std::vector<std::uint64_t> addresses;
};

Stack parseVictim(const std::string& output) {
  Stack stack;
  std::istringstream lines(output);
  std::string word;
  lines >> word >> stack.thread;
  while (lines >> word && word != "ready") {
    stack.addresses.push_back(std::stoull(word, nullptr, 16));
  }
  return stack;
}

/// The stack of one thread, from the frame on that the victim's own handler interrupted.
std::vector<Frame> parseDebugger(const std::string& output, const std::string& thread, bool isFault) {
  static const std::regex kFrame("^#[0-9]+ +(?:(0x[0-9a-f]+) in )?(.*)$");
  std::vector<Frame> frames;
  std::istringstream lines(output);
  bool isWanted = false;
  bool hasBegun = !isFault;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("Thread ")) {
      isWanted = line.find("LWP " + thread + ")") != std::string::npos ||
                 line.find("process " + thread + ")") != std::string::npos;
    }
    std::smatch parts;
    if (!isWanted || !std::regex_match(line, parts, kFrame)) {
      continue;
    }
    const bool isSignal = parts[2].str().starts_with("<signal handler called>");
    if (hasBegun) {
      frames.push_back(
          {isSignal ? kSignalFrame : std::stoull(parts[1].matched ? parts[1].str() : "0", nullptr, 16), parts[2]});
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

/// Victims built with other flags, each in all its scenes: the library's stack against that of a
/// debugger which is attached where the victim stands.
class StackComparison : public testing::TestWithParam<const char*> {};

TEST_P(StackComparison, agreesWithDebugger) {
  const auto tests = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string victim = tests / (std::string("stack_victim_") + GetParam());
  std::istringstream scenes(test::Subprocess::run({victim, "list"}).output);
  int count = 0;
  for (std::string scene; scenes >> scene; ++count) {
    SCOPED_TRACE(scene);
    test::Subprocess running({victim, scene});
    ASSERT_TRUE(running.waitForOutput("ready\n"));
    const test::Outcome debugger = test::Subprocess::run(
        {"gdb", "-batch", "-nx", "-iex", "set debug-file-directory /nowhere", "-ex", "set backtrace past-main on",
         "-ex", "set backtrace past-entry on", "-p", std::to_string(running.processId()), "-ex", "thread apply all bt"},
        {.environment = {{"DEBUGINFOD_URLS", std::nullopt}}});
    running.kill(SIGKILL);
    const Stack stack = parseVictim(running.wait().output);
    const bool isFault = stack.thread == std::to_string(running.processId());
    std::vector<Frame> expected = parseDebugger(debugger.output, stack.thread, isFault);
    // Beyond the start of a stack made by hand a debugger shows what lies there, be it data.
    while (expected.size() > stack.addresses.size() && (expected.back().function == "?? ()" || scene == "fibre")) {
      expected.pop_back();
    }
    ASSERT_GE(expected.size(), 3U) << debugger.output << debugger.errors;
    EXPECT_EQ(stack.addresses.size(), std::min(expected.size(), kMostFrames)) << show(stack, expected);
    for (std::size_t i = 0; i < std::min(expected.size(), stack.addresses.size()); ++i) {
      if (expected[i].address != kSignalFrame) {
        // A thread that was stopped in a system call stands before the call's instruction, to make it again.
        const bool isRestart = i == 0 && !isFault && stack.addresses[0] + kSyscallSize == expected[0].address;
        ASSERT_TRUE(stack.addresses[i] == expected[i].address || isRestart) << i << "\n" << show(stack, expected);
      }
    }
  }
  EXPECT_EQ(count, 13);
}
INSTANTIATE_TEST_SUITE_P(Flags, StackComparison, testing::Values("O0", "O2", "static"),
                         [](const auto& flags) { return std::string(flags.param); });

}  // namespace
