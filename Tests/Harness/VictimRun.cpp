#include "Tests/Harness/VictimRun.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "Tests/Support/TemporaryDirectory.h"

namespace test {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

std::vector<std::string> logsIn(const fs::path& home) {
  std::vector<std::string> logs;
  for (const auto& entry : fs::recursive_directory_iterator(home)) {
    if (entry.path().filename().string().starts_with("crash_") && entry.path().extension() == ".txt") {
      logs.push_back(contentOf(entry.path()));
    }
  }
  return logs;
}

}  // namespace

VictimEnd runVictim(const std::string& program, const std::vector<std::string>& arguments) {
  const TemporaryDirectory home;
  std::vector<std::string> command = {fs::read_symlink("/proc/self/exe").parent_path() / program};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const auto start = std::chrono::steady_clock::now();
  Outcome outcome = Subprocess::run(
      command, {{"HOME", home.path()}, {"XDG_DATA_HOME", std::nullopt}, {"XDG_CONFIG_HOME", std::nullopt}});
  return {std::move(outcome), std::chrono::steady_clock::now() - start, logsIn(home.path())};
}

std::size_t countOf(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

}  // namespace test
