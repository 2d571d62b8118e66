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
  bool timedOut = false;
  std::string output;
  std::string errors;
};

struct SubprocessOptions {
  /// Variables over those of the test itself; one without a value is taken away.
  std::map<std::string, std::optional<std::string>> environment = {};
  std::string input = {};      ///< the whole standard input
  bool holdInput = false;      ///< instead: an input that stays open and empty until closeInput()
  std::string directory = {};  ///< to run in, the test's own when empty
  /// From the start on; then the program's process group is killed.
  std::chrono::milliseconds timeout = std::chrono::seconds(60);
};

/// A program that a test runs. It gets a process group of its own, default signal actions and
/// an empty signal mask; the destructor kills what still runs. One thread at a time.
///
///     const test::Outcome outcome = test::Subprocess::run({victim, "abort"});
///     EXPECT_EQ(outcome.signal, SIGABRT) << outcome.errors;
class Subprocess {
 public:
  /// `command[0]` is searched in PATH. Throws std::system_error when it cannot be started.
  explicit Subprocess(const std::vector<std::string>& command, SubprocessOptions options = {});
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;
  ~Subprocess();

  static Outcome run(const std::vector<std::string>& command, SubprocessOptions options = {});

  pid_t processId() const noexcept { return process_; }
  /// To its whole process group.
  void kill(int signal) const noexcept;
  void closeInput() noexcept;

  /// Waits until standard output contains `text`; false when the program ends or its time
  /// is up before.
  bool waitForOutput(std::string_view text);

  /// Waits for the end. What children of the program write later is not waited for.
  Outcome wait();

 private:
  enum class Step { kMore, kEnded };
  Step pump();
  void reap();

  std::chrono::steady_clock::time_point deadline_;
  pid_t process_ = -1;
  int processDescriptor_ = -1;
  int input_ = -1;
  int output_ = -1;
  int errors_ = -1;
  bool ended_ = false;
  Outcome outcome_;
};

}  // namespace test
