#include "Tests/Kiv/ProbeBundle.h"

#include <filesystem>
#include <regex>
#include <sstream>

namespace test {

namespace fs = std::filesystem;

ProbeBundle::ProbeBundle(const std::string& info) {
  fs::create_directories(directory_.file("bundle"));
  fs::create_directories(directory_.file("home"));
  const fs::path probe = fs::read_symlink("/proc/self/exe").parent_path() / "kiv_probe";
  std::error_code cannotLink;
  fs::create_hard_link(probe, probePath(), cannotLink);
  if (cannotLink) {
    fs::copy_file(probe, probePath());
  }
  writeInfo("<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" + std::string(kIdentifier) +
            "</string>" + info + "</dict></plist>");
}

Outcome ProbeBundle::run(const std::vector<std::string>& operations, Environment environment) const {
  std::vector<std::string> command = {probePath()};
  command.insert(command.end(), operations.begin(), operations.end());
  environment.emplace("HOME", directory_.file("home"));
  for (const char* variable : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"}) {
    environment.emplace(variable, std::nullopt);
  }
  return Subprocess::run(command, environment);
}

std::string ProbeBundle::dataPath(const std::string& name) const {
  return directory_.file("home/.local/share/com.velmora.kiv/" + std::string(kIdentifier) + "/" + name);
}

namespace {

/// The texts of the lines that `wanted(process, thread)` wants.
template <class Wanted>
std::vector<std::string> textsOf(const Outcome& outcome, Wanted&& wanted) {
  static const std::regex kStamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} probe\[(\d+):(\d+)\] )");
  std::vector<std::string> texts;
  bool taking = false;
  std::istringstream lines(outcome.errors);
  for (std::string line; std::getline(lines, line);) {
    std::smatch stamp;
    if (std::regex_search(line, stamp, kStamp)) {
      taking = wanted(stamp.str(1), stamp.str(2));
      if (taking) {
        texts.push_back(stamp.suffix());
      }
    } else if (taking) {
      texts.back() += "\n" + line;
    }
  }
  return texts;
}

}  // namespace

std::vector<std::string> ProbeBundle::logTexts(const Outcome& outcome) {
  return textsOf(outcome, [](const auto&, const auto&) { return true; });
}

std::vector<std::string> ProbeBundle::logTextsOfMainThread(const Outcome& outcome) {
  return textsOf(outcome, [](const auto& process, const auto& thread) { return process == thread; });
}

}  // namespace test
