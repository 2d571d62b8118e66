#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "Kiv/common/model/KivExpObj.h"
#include "Tests/Harness/PathReport.h"
#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace test {

/// The end of a victim program and what its crash logs say.
struct VictimEnd {
  Outcome outcome;
  std::chrono::steady_clock::duration time;
  std::vector<std::string> logs;
};

/// A home directory, in which victims run one after the other and find what those before them left.
/// Victims live beside the test. One thread at a time.
class VictimHome {
 public:
  std::string path(std::string_view name) const { return directory_.file(name); }

  Environment environment() const;
  Outcome run(const std::string& program, const std::vector<std::string>& arguments, Environment more = {},
              std::chrono::seconds mostTime = std::chrono::minutes(1)) const;

  /// Files whose name begins with one of the prefixes and ends with the suffix, sorted by name.
  std::vector<std::string> files(const std::vector<std::string_view>& prefixes, std::string_view suffix = "") const;
  /// The stored crashes, as a start of the program would find them.
  std::vector<KivExpObj> records() const;
  /// What their logs say.
  std::vector<std::string> logs() const;

 private:
  TemporaryDirectory directory_;
};

std::string pathOfVictim(const std::string& program);

/// One run in a home directory of its own.
VictimEnd runVictim(const std::string& program, const std::vector<std::string>& arguments);

/// A PathReport that a victim can be told of.
class SharedPathReport {
 public:
  SharedPathReport();
  SharedPathReport(const SharedPathReport&) = delete;
  SharedPathReport& operator=(const SharedPathReport&) = delete;
  ~SharedPathReport();

  PathReport* operator->() const { return report_; }
  Environment environment() const { return {{PathReport::kVariable, std::to_string(descriptor_)}}; }

 private:
  int descriptor_;
  PathReport* report_;
};

// What logs tell -------------------------------------------------------------------------

std::string attachmentOf(const KivExpObj& record, std::string_view name);

constexpr std::size_t kBlockedDepth = 18;  // frames of blockDeep on each thread that stands by

std::size_t countOf(std::string_view text, std::string_view part);

/// Whether all of the words occur in the text, in their order.
bool hasInOrder(std::string_view text, std::string_view words);

/// The stack that a log is about, up to the blank line behind its frames.
std::string crashedStackOf(const std::string& log);

/// An end as a shell tells it: the exit status, or 128 + the signal.
int endOf(const Outcome& outcome);

/// How often the harness is gone through: once, or as KIV_HARNESS_ROUNDS says.
int rounds();

}  // namespace test
