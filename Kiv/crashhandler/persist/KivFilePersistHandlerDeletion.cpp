#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/persist/CrashRecordFile.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Kiv/crashhandler/persist/StoreLock.h"

bool KivFilePersistHandler::deleteCrash(const KivExpObj* record) noexcept {
  const core::Lock lock(mutex_);
  if (record == nullptr) {
    kiv_log_error("faield delete crash with nil exp");
    return false;
  }
  const auto entry = allCrashMetas_.find(record->hash().value_or(core::String()));
  if (!entry) {
    kiv_log_error("faield delete crash with hash %@", record->hash());
    return false;
  }
  return deleteCrashes({*record});
}

bool KivFilePersistHandler::deleteCrashes(const Records& records) noexcept {
  const core::Lock lock(mutex_);
  if (records.empty()) {
    kiv_log_error("faield delete crashes with nil exps");
    return false;
  }
  core::Array<core::String> hashes;
  core::Array<core::String> paths;
  for (const KivExpObj& record : records) {
    const core::String hash = record.hash().value_or(core::String());
    const auto entry = allCrashMetas_.find(hash);
    if (!entry || hashes.contains(hash)) {
      kiv_log_error("faield delete crash with hash %@", record.hash());
      continue;
    }
    hashes.append(hash);
    paths.append(pathOf(*entry));
  }
  allCrashMetas_.remove(hashes);
  finishDeletion(std::move(paths), "remove crash file failed");
  return true;
}

bool KivFilePersistHandler::deleteCrashMeta(const KivCrashMetaData& entry) noexcept {
  const core::Lock lock(mutex_);
  if (entry.md5 && crashMetas().lookUp(*entry.md5)) {
    allCrashMetas_.remove({*entry.md5});
  }
  const core::String path = pathOf(entry);
  finishDeletion(core::fileExists(path) ? core::Array<core::String>{path} : core::Array<core::String>(),
                 "remove crash file when delete meta failed");
  return entry.file.has_value();
}

/// The index first: a file without an entry is found and deleted later, an entry without a file is not.
void KivFilePersistHandler::finishDeletion(core::Array<core::String> paths, std::string_view failure) noexcept {
  if (StoreLock::isLeftToCrash()) {
    return;
  }
  queue_.async([this, paths = std::move(paths), failure] {
    persistAllCrashMetaDatas();
    for (const core::String& path : paths) {
      if (StoreLock::isLeftToCrash()) {
        return;
      }
      if (const int error = core::removeFile(path)) {
        kiv_log_error("%@ %@", failure, strerrordesc_np(error));
      }
    }
  });
}

void KivFilePersistHandler::dropOlderVersion() noexcept {
  kiv_log_info("clean old version userinfo and crashes");
  const core::String path = SummaryQueue::pathIn(folderPath());
  if (core::fileExists(path)) {
    queue_.async([path] {
      if (const int error = core::removeFile(path)) {
        kiv_log_error("clean old version userinfo file failed %@", strerrordesc_np(error));
      }
    });
  }
  allCrashMetas_.setFileObsolete();
  clean(Cleaning::kOlderVersion);
}

bool KivFilePersistHandler::deleteAllCrashes() noexcept {
  clean(Cleaning::kAll);
  return true;
}

bool KivFilePersistHandler::deleteAllInvalidCrashes() noexcept {
  clean(Cleaning::kInvalid);
  return true;
}

void KivFilePersistHandler::clean(Cleaning cleaning) noexcept {
  queue_.async([this, cleaning, folder = folderPath()] {
    // Found without holding others up, each is looked at again before it goes.
    const auto named = cleaning == Cleaning::kInvalid ? allCrashMetas_.allNames() : CrashIndex::Names();
    for (const core::String& name : CrashRecordFile::namesIn(folder)) {
      if (!named || named->contains(name)) {
        continue;
      }
      const StoreLock lock(folder);
      if (CrashHandling::current().isCrashAccidentHappen()) {
        return;
      }
      if (!isToGo(name, cleaning)) {
        continue;
      }
      kiv_log_info("delete %@crash file %@", cleaning == Cleaning::kInvalid ? "invalid " : "", name);
      if (const int error = core::removeFile(core::joinPath(folder, name))) {
        kiv_log_error("clean crash file %@ failed %@", name, strerrordesc_np(error));
      } else if (name == CrashIndexFile::kName) {
        allCrashMetas_.fileWasRemoved();
      }
    }
  });
}

/// This process may have saved a crash since it found that the version changed, and another process
/// may have since the files were listed.
bool KivFilePersistHandler::isToGo(std::string_view name, Cleaning cleaning) const noexcept {
  const bool isIndex = name == CrashIndexFile::kName;
  if (cleaning == Cleaning::kOlderVersion) {
    return isIndex ? allCrashMetas_.isFileObsolete() : !allCrashMetas_.names(name);
  }
  if (cleaning == Cleaning::kInvalid) {
    const auto named = isIndex ? std::nullopt : allCrashMetas_.allNames();
    return named && !named->contains(name);
  }
  return true;
}
