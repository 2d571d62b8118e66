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

std::vector<std::string> ProbeBundle::logTexts(const Outcome& outcome) {
  static const std::regex kStamp(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} probe\[\d+:\d+\] )");
  std::vector<std::string> texts;
  std::istringstream lines(outcome.errors);
  for (std::string line; std::getline(lines, line);) {
    std::smatch stamp;
    if (std::regex_search(line, stamp, kStamp)) {
      texts.push_back(stamp.suffix());
    } else if (!texts.empty()) {
      texts.back() += "\n" + line;
    }
  }
  return texts;
}

}  // namespace test
