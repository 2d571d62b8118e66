#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

/// How a program ended and what it wrote.
struct Outcome {
  int exitStatus = -1;  ///< -1 unless it ended by itself
  int signal = 0;       ///< 0 unless a signal ended it
  std::string output{};
  std::string errors{};
};

/// Variables over those of the test itself; one without a value is taken away.
using Environment = std::map<std::string, std::optional<std::string>>;

/// A program that a test runs, with nothing to read, a process group of its own, default signal
/// actions and an empty signal mask. Its group is killed after a minute, or as said; the
/// destructor kills what still runs. One thread at a time.
///
///     const test::Outcome outcome = test::Subprocess::run({victim, "abort"});
///     EXPECT_EQ(outcome.signal, SIGABRT) << outcome.errors;
class Subprocess {
 public:
  /// `command[0]` is searched in PATH. Throws std::system_error when it cannot be started.
  explicit Subprocess(const std::vector<std::string>& command, const Environment& environment = {},
                      std::chrono::seconds mostTime = std::chrono::minutes(1));
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;
  ~Subprocess();

  static Outcome run(const std::vector<std::string>& command, const Environment& environment = {});

  pid_t processId() const noexcept { return process_; }
  /// To its whole process group.
  void kill(int signal) const noexcept;

  /// Waits until standard output contains `text`; false when the program ends before.
  bool waitForOutput(std::string_view text);

  /// Waits for the end. What children of the program write later is not waited for.
  Outcome wait();

 private:
  void pump();

  std::chrono::steady_clock::time_point deadline_;
  pid_t process_ = -1;
  int processDescriptor_ = -1;
  int output_ = -1;
  int errors_ = -1;
  bool ended_ = false;
  Outcome outcome_;
};

}  // namespace test
