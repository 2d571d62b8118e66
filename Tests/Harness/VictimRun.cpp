#include "Tests/Harness/VictimRun.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "Core/Files/Directory.h"
#include "Kiv/crashhandler/persist/CrashIndexFile.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"

namespace test {

namespace fs = std::filesystem;

namespace {

constexpr int kMostRecords = 1000;

}  // namespace

std::string pathOfVictim(const std::string& program) {
  return fs::read_symlink("/proc/self/exe").parent_path() / program;
}

Environment VictimHome::environment() const {
  return {{"HOME", directory_.path()}, {"XDG_DATA_HOME", std::nullopt}, {"XDG_CONFIG_HOME", std::nullopt}};
}

Outcome VictimHome::run(const std::string& program, const std::vector<std::string>& arguments, Environment more,
                        std::chrono::seconds mostTime) const {
  std::vector<std::string> command = {pathOfVictim(program)};
  command.insert(command.end(), arguments.begin(), arguments.end());
  more.merge(environment());
  return Subprocess(command, more, mostTime).wait();
}

std::vector<std::string> VictimHome::files(const std::vector<std::string_view>& prefixes,
                                           std::string_view suffix) const {
  std::vector<std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(directory_.path())) {
    const std::string name = entry.path().filename();
    const auto isBegin = [&](std::string_view prefix) { return name.starts_with(prefix); };
    if (name.ends_with(suffix) && std::any_of(prefixes.begin(), prefixes.end(), isBegin)) {
      found.push_back(entry.path());
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<KivExpObj> VictimHome::records() const {
  std::vector<KivExpObj> records;
  for (const std::string& index : files({CrashIndexFile::kName}, "")) {
    KivFilePersistHandler store(core::parentPath(index));
    store.loadAllDatas();
    for (const KivExpObj& record : store.getAllCrashed(kMostRecords)) {
      records.push_back(record);
    }
  }
  return records;
}

std::vector<std::string> VictimHome::logs() const {
  std::vector<std::string> logs;
  for (const KivExpObj& record : records()) {
    logs.push_back(attachmentOf(record, "crash.log"));
  }
  return logs;
}

VictimEnd runVictim(const std::string& program, const std::vector<std::string>& arguments) {
  const VictimHome home;
  const auto start = std::chrono::steady_clock::now();
  Outcome outcome = home.run(program, arguments);
  return {std::move(outcome), std::chrono::steady_clock::now() - start, home.logs()};
}

SharedPathReport::SharedPathReport() : descriptor_(::memfd_create("report", 0)) {  // inherited by victims
  void* mapped = ::ftruncate(descriptor_, sizeof(PathReport)) == 0
                     ? ::mmap(nullptr, sizeof(PathReport), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor_, 0)
                     : MAP_FAILED;
  if (mapped == MAP_FAILED) {
    throw std::system_error(errno, std::generic_category(), "a report to share");
  }
  report_ = static_cast<PathReport*>(mapped);
}

SharedPathReport::~SharedPathReport() {
  ::munmap(report_, sizeof(PathReport));
  ::close(descriptor_);
}

std::string attachmentOf(const KivExpObj& record, std::string_view name) {
  for (const KivExpAttachment& attachment : record.attachmentList) {
    if (attachment.fileName == name && attachment.data) {
      return {reinterpret_cast<const char*>(attachment.data->data()), attachment.data->size()};
    }
  }
  return "no attachment";
}

std::size_t countOf(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

bool hasInOrder(std::string_view text, std::string_view words) {
  std::istringstream all{std::string(words)};
  std::size_t at = 0;
  for (std::string word; all >> word; at += word.size()) {
    at = text.find(word, at);
    if (at == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

std::string crashedStackOf(const std::string& log) {
  const std::size_t thrown = log.find("Last Exception Backtrace :\n");
  const std::size_t start = thrown != std::string::npos ? thrown : log.find(" Crashed: \n");
  return start == std::string::npos ? "" : log.substr(start, log.find("\n\n", start) - start);
}

int endOf(const Outcome& outcome) {
  return outcome.signal != 0 ? 128 + outcome.signal : outcome.exitStatus;
}

int rounds() {
  const char* text = std::getenv("KIV_HARNESS_ROUNDS");
  return text != nullptr ? std::atoi(text) : 1;
}

}  // namespace test
