#include "Tests/Kiv/ProbeBundle.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace test {
namespace {

namespace fs = std::filesystem;

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace

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

Outcome ProbeBundle::run(const std::vector<std::string>& operations, SubprocessOptions options) const {
  std::vector<std::string> command = {probePath()};
  command.insert(command.end(), operations.begin(), operations.end());
  options.environment.emplace("HOME", directory_.file("home"));
  for (const char* variable : {"XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"}) {
    options.environment.emplace(variable, std::nullopt);
  }
  return Subprocess::run(command, std::move(options));
}

std::string ProbeBundle::dataPath(const std::string& name) const {
  return directory_.file("home/.local/share/com.velmora.kiv/" + std::string(kIdentifier) + "/" + name);
}

void ProbeBundle::writeInfo(const std::string& text) const {
  writeFile(directory_.file("bundle/Info.plist"), text);
}

void ProbeBundle::writeData(const std::string& name, const std::string& content) const {
  fs::create_directories(dataPath());
  writeFile(dataPath(name), content);
}

std::vector<std::string> ProbeBundle::dataFiles(const std::string& prefix) const {
  std::vector<std::string> names;
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(dataPath(), none)) {
    if (const std::string name = entry.path().filename(); name.starts_with(prefix)) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
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

std::string contentOf(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

}  // namespace test
