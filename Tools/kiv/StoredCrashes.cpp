#include "Tools/kiv/StoredCrashes.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <tuple>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Platform/Foundation/UserDirectories.h"
#include "Tools/kiv/CrashIndex.h"
#include "Tools/kiv/StoredRecord.h"

namespace {

constexpr std::string_view kRoot = "com.velmora.kiv";
constexpr std::string_view kCrashPrefix = ".crash_";
constexpr std::string_view kDumpPrefix = "BlockDump_";
constexpr std::string_view kDumpFolder = "BlockDumpData";
constexpr std::int64_t kNanosecondsAMillisecond = 1'000'000;

using Names = core::Array<core::String>;

/// The crash files of a directory, each with the entries of the index that name it.
struct CrashFile {
  bool isListed = false;
  std::vector<IndexEntry> entries;
};
using CrashFiles = std::map<std::string, CrashFile>;

CrashFiles filesOf(const Names& names, const CrashIndex& index) {
  CrashFiles files;
  for (const core::String& name : names) {
    if (name.view().starts_with(kCrashPrefix) && name != kCrashIndexFile) {
      files[name.str()].isListed = true;
    }
  }
  for (const IndexEntry& entry : index.entries) {
    files[entry.file].entries.push_back(entry);
  }
  return files;
}

StoredCrash damagedFile(std::string file, std::string damage, std::int64_t time) {
  StoredCrash crash;
  crash.file = std::move(file);
  crash.damage = std::move(damage);
  crash.time = crash.lastTime = time;
  return crash;
}

StoredCrash damagedEntry(const std::string& hash, std::string damage, std::int64_t time) {
  StoredCrash crash = damagedFile(std::string(kCrashIndexFile), std::move(damage), time);
  crash.hash = hash;
  crash.isIndexed = true;
  return crash;
}

StoredCrash summaryOf(const KivExpObj& record) {
  const Occurrences seen = occurrencesOf(record);
  StoredCrash crash;
  crash.hash = textOf(record.hash());
  crash.uid = textOf(record.expUid);
  crash.time = record.time;
  crash.lastTime = seen.lastTime;
  crash.seen = seen.count;
  crash.crashType = textOf(record.crashType);
  crash.kind = kindOf(record);
  crash.type = textOf(record.exceptionType);
  crash.frame = firstOwnFrame(record);
  crash.user = textOf(record.userId);
  crash.ownModule = ownModuleOf(record);
  return crash;
}

/// Nothing for a file that is not there.
std::optional<StoredCrash> readFile(const std::string& directory, const std::string& file) {
  const core::String path = core::joinPath(directory, file);
  const auto record = readStoredRecord(path.str());
  if (record) {
    StoredCrash crash = summaryOf(record->content);
    crash.file = file;
    return crash;
  }
  if (record.error().isMissing) {
    return std::nullopt;
  }
  const auto facts = core::fileFacts(path);
  return damagedFile(file, record.error().text, facts ? facts->modified / kNanosecondsAMillisecond : 0);
}

void readCrash(std::vector<StoredCrash>& crashes, const std::string& directory, const std::string& name,
               const CrashFile& file) {
  std::optional<StoredCrash> crash = readFile(directory, name);
  for (const IndexEntry& entry : file.entries) {
    if (crash && crash->isDamaged() && !crash->isIndexed) {
      crash->hash = entry.hash;
      crash->time = crash->lastTime = entry.time;
    }
    if (crash && crash->hash == entry.hash) {
      crash->isIndexed = true;
      crash->isUploaded = entry.isUploaded;
    } else if (crash) {
      const char* const content = crash->isDamaged() ? ", which cannot be read" : ", which holds another crash";
      crashes.push_back(damagedEntry(entry.hash, "names " + name + content, entry.time));
    } else if (!file.isListed) {
      crashes.push_back(damagedEntry(entry.hash, "names " + name + ", which is missing", entry.time));
    }
  }
  if (crash) {
    crashes.push_back(std::move(*crash));
  }
}

void readDumps(std::vector<StoredCrash>& crashes, const std::string& directory, const std::string& folder,
               const Names& names) {
  for (const core::String& name : names) {
    if (!name.view().starts_with(kDumpPrefix)) {
      continue;
    }
    if (auto crash = readFile(directory, folder.empty() ? name.str() : core::joinPath(folder, name).str())) {
      crash->isStall = true;
      crashes.push_back(std::move(*crash));
    }
  }
}

}  // namespace

core::Result<std::vector<StoredCrash>, int> readStoredCrashes(const std::string& directory) {
  const auto names = core::listDirectory(directory);
  if (!names) {
    return names.error();
  }
  std::vector<StoredCrash> crashes;
  const CrashIndex index = CrashIndex::read(directory);
  for (const CrashIndex::Fault& fault : index.faults) {
    crashes.push_back(damagedEntry(fault.hash, fault.text, 0));
  }
  for (const auto& [name, file] : filesOf(*names, index)) {
    readCrash(crashes, directory, name, file);
  }
  readDumps(crashes, directory, "", *names);
  const auto dumps = core::listDirectory(core::joinPath(directory, kDumpFolder));
  if (dumps) {
    readDumps(crashes, directory, std::string(kDumpFolder), *dumps);
  } else if (dumps.error() != ENOENT) {
    crashes.push_back(damagedFile(std::string(kDumpFolder), cannotBeRead(dumps.error()), 0));
    crashes.back().isStall = true;
  }
  std::sort(crashes.begin(), crashes.end(), [](const StoredCrash& a, const StoredCrash& b) {
    return std::tie(a.lastTime, a.file) > std::tie(b.lastTime, b.file);
  });
  return crashes;
}

std::string dataRoot() {
  return core::joinPath(platform::applicationSupportDirectory(), kRoot).str();
}

core::Result<std::vector<std::string>, int> dataDirectories() {
  const std::string root = dataRoot();
  const auto names = core::listDirectory(root);
  if (!names) {
    return names.error();
  }
  std::vector<std::string> directories;
  for (const core::String& name : *names) {
    const core::String path = core::joinPath(root, name);
    if (const auto facts = core::fileFacts(path); facts && facts->isDirectory) {
      directories.push_back(path.str());
    }
  }
  return directories;
}
