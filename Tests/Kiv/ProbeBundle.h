#pragma once

#include <string>
#include <vector>

#include "Tests/Support/Subprocess.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace test {

/// A bundle made for one test: the probe program in a folder with an Info.plist of the test's,
/// and a home directory of its own.
class ProbeBundle {
 public:
  static constexpr const char* kIdentifier = "com.example.probe";

  /// `info` is what stands between <dict> and </dict>; the identifier is added.
  explicit ProbeBundle(const std::string& info = "");

  /// Runs operations of Probe.cpp.
  Outcome run(const std::vector<std::string>& operations, Environment environment = {}) const;

  std::string probePath() const { return directory_.file("bundle/probe"); }
  std::string dataPath(const std::string& name = "") const;
  void writeInfo(const std::string& text) const { writeFile(directory_.file("bundle/Info.plist"), text); }
  void writeData(const std::string& name, const std::string& content) const { writeFile(dataPath(name), content); }
  /// Names in the data directory that begin with `prefix`.
  std::vector<std::string> dataFiles(const std::string& prefix) const { return namesIn(dataPath(), prefix); }

  /// The texts of the log lines that `outcome` wrote, without time and process.
  static std::vector<std::string> logTexts(const Outcome& outcome);
  /// Those that the program's first thread wrote, in the order of its doings.
  static std::vector<std::string> logTextsOfMainThread(const Outcome& outcome);

 private:
  TemporaryDirectory directory_;
};

}  // namespace test
