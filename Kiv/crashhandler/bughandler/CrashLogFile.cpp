#include "Kiv/crashhandler/bughandler/CrashLogFile.h"

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Files/SpareDescriptor.h"
#include "Core/Memory/Immortal.h"
#include "Core/Memory/Published.h"
#include "Core/Text/Format.h"

namespace {

constexpr std::string_view kPrefix = "crash_";
constexpr std::string_view kSeenPrefix = "seen_crash_";
constexpr std::string_view kSuffix = ".txt";
constexpr std::size_t kSeenKept = 10;

core::Published<core::String>& directoryOfLogs() noexcept {
  static core::Immortal<core::Published<core::String>> directory;
  return *directory;
}

bool isLog(std::string_view name, std::string_view prefix) noexcept {
  return name.starts_with(prefix) && name.ends_with(kSuffix);
}

/// Seconds of ten digits, so that names sort by time.
core::String pathOf(std::string_view prefix, std::int64_t seconds, int process) noexcept {
  return core::joinPath(directoryOfLogs().get(), core::kiv_format("%@%010lld_%d%@", prefix, seconds, process, kSuffix));
}

void removeOldSeen(const core::String& directory) noexcept {
  const auto names = core::listDirectory(directory);
  core::Array<core::String> seen;
  for (std::size_t i = 0; names && i < names->size(); ++i) {
    if (isLog((*names)[i], kSeenPrefix)) {
      seen.append((*names)[i]);
    }
  }
  for (std::size_t i = 0; i + kSeenKept < seen.size(); ++i) {
    core::removeFile(core::joinPath(directory, seen[i]));
  }
}

}  // namespace

void CrashLogFile::prepare(const core::String& directory) noexcept {
  directoryOfLogs().set(directory);
  core::SpareDescriptor::prepare();
}

bool CrashLogFile::write(std::string_view log, std::int64_t seconds, int process) noexcept {
  return core::writeFileAtomically(pathOf(kPrefix, seconds, process),
                                   {reinterpret_cast<const std::uint8_t*>(log.data()), log.size()}, 0600,
                                   core::Durability::kSynced) == 0;
}

bool CrashLogFile::exists(std::int64_t seconds, int process) noexcept {
  return core::fileExists(pathOf(kPrefix, seconds, process)) || core::fileExists(pathOf(kSeenPrefix, seconds, process));
}

std::optional<core::String> CrashLogFile::takeNewest(const core::String& directory) noexcept {
  std::optional<core::String> newest;
  const auto names = core::listDirectory(directory);
  for (std::size_t i = 0; names && i < names->size(); ++i) {
    const core::String& name = (*names)[i];
    if (!isLog(name, kPrefix)) {
      continue;
    }
    const core::String from = core::joinPath(directory, name);
    const core::String to = core::joinPath(directory, core::kiv_format("seen_%@", name));
    newest = core::renameFile(from, to) == 0 ? to : from;
  }
  if (newest) {
    removeOldSeen(directory);
  }
  return newest;
}
