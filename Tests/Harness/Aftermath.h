#pragma once

#include <string>
#include <vector>

#include "Tests/Harness/VictimRun.h"

namespace test {

/// Who wrote a log: the process that crashed, or the next start of the program.
enum class Writer { kCrashed, kNextStart, kEither };

/// What one log must tell.
struct ExpectedLog {
  const char* functions;  ///< of the crashed stack, in order, between blanks
  Writer writer = Writer::kCrashed;
  const char* type = "SIGSEGV";  ///< nullptr: any
  bool isWhole = true;           ///< with all stacks of the threads that stand by
  const char* extra = "";
};

/// "" when exactly the expected logs are there, and no journal but that of the last start; else what is
/// wrong, with the logs.
std::string faultOfFiles(const VictimHome& home, const std::vector<ExpectedLog>& expected, int threads);

/// Has the program started after a death. "" when it finds the expected logs and tells of them.
std::string faultAfterNextStart(const VictimHome& home, const std::string& program,
                                const std::vector<ExpectedLog>& expected, int threads);

/// And a start after that: nothing is told or written twice.
std::string faultAfterThirdStart(const VictimHome& home, const std::string& program);

/// For messages: how a program ended, and its errors.
std::string describe(const Outcome& outcome);

}  // namespace test
