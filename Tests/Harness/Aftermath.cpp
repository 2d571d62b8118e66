#include "Tests/Harness/Aftermath.h"

#include <algorithm>

namespace test {
namespace {

constexpr std::string_view kCrashedHead = "Handler: Signal Handler\n";
constexpr std::string_view kRecoveredHead = "Handler: Signal Handler (recovered)\n";

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

std::string faultOf(const std::string& log, const ExpectedLog& expected, int threads) {
  const bool isCrashed = log.starts_with(kCrashedHead);
  if (!isCrashed && !log.starts_with(kRecoveredHead)) {
    return "it begins like no log";
  }
  if (expected.writer != Writer::kEither && isCrashed != (expected.writer == Writer::kCrashed)) {
    return isCrashed ? "the process that crashed wrote it" : "the next start wrote it";
  }
  if (expected.type != nullptr && !contains(log, std::string("\nException Type: ") + expected.type + "\n")) {
    return std::string("its exception is not ") + expected.type;
  }
  if (!hasInOrder(crashedStackOf(log), expected.functions)) {
    return std::string("its crashed stack does not name ") + expected.functions;
  }
  const std::size_t frames = countOf(log, "blockDeep");
  const std::size_t wanted = static_cast<std::size_t>(threads) * kBlockedDepth;
  if (expected.isWhole && frames != wanted) {
    return "it has " + std::to_string(frames) + " of " + std::to_string(wanted) + " frames of the other threads";
  }
  if (!contains(log, expected.extra)) {
    return std::string("it lacks \"") + expected.extra + "\"";
  }
  return contains(log, "\nBinary Images:\n") ? "" : "it is cut";
}

std::string textOf(const std::vector<std::string>& logs) {
  std::string text = "\n";
  for (const std::string& log : logs) {
    text += "---- a log of " + std::to_string(log.size()) + " bytes\n" + log + "\n";
  }
  return text;
}

}  // namespace

std::string faultOfFiles(const VictimHome& home, const std::vector<ExpectedLog>& expected, int threads) {
  std::vector<std::string> logs = home.logs();
  if (logs.size() != expected.size()) {
    return std::to_string(expected.size()) + " logs expected, " + std::to_string(logs.size()) + " found" + textOf(logs);
  }
  for (const ExpectedLog& wanted : expected) {
    const auto found = std::find_if(logs.begin(), logs.end(),
                                    [&](const std::string& log) { return faultOf(log, wanted, threads).empty(); });
    if (found == logs.end()) {
      return faultOf(logs[0], wanted, threads) + textOf(logs);
    }
    logs.erase(found);  // each is to be another one
  }
  const std::size_t journals = home.files({".journal_"}).size();
  return journals <= 1 ? "" : std::to_string(journals) + " journals are left";
}

std::string faultAfterNextStart(const VictimHome& home, const std::string& program,
                                const std::vector<ExpectedLog>& expected, int threads) {
  const Outcome next = home.run(program, {"next", "0"});
  if (endOf(next) != 0) {
    return "the next start " + describe(next);
  }
  if (const std::string fault = faultOfFiles(home, expected, threads); !fault.empty()) {
    return fault + "\n---- the next start " + describe(next);
  }
  return next.output.empty() == expected.empty() ? "" : "the next start told of \"" + next.output + "\"";
}

std::string faultAfterThirdStart(const VictimHome& home, const std::string& program) {
  const std::vector<std::string> before = home.logs();
  const Outcome third = home.run(program, {"next", "0"});
  if (endOf(third) != 0 || !third.output.empty()) {
    return "the third start told of \"" + third.output + "\" and " + describe(third);
  }
  return home.logs() == before ? "" : "the third start changed the logs" + textOf(home.logs());
}

std::string describe(const Outcome& outcome) {
  return "ended with " + std::to_string(endOf(outcome)) + "; its errors:\n" + outcome.errors;
}

}  // namespace test
