#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"

#include <fcntl.h>

#include "Core/Files/Directory.h"
#include "Core/Files/File.h"
#include "Core/Memory/Immortal.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/KivPersistedKeys.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/persist/CrashRecordFile.h"
#include "Kiv/crashhandler/persist/StoreLock.h"

struct KivFilePersistHandler::Failures {
  std::string_view ofEncoding;
  std::string_view ofWriting;
};

namespace {

core::String keyOf(const KivExpObj& record) noexcept {
  return record.hash().value_or(core::String());
}

}  // namespace

KivFilePersistHandler& KivFilePersistHandler::sharedInstance() noexcept {
  static core::Immortal<KivFilePersistHandler> handler(KivPersistedKeys::defaultDirectory());
  return *handler;
}

KivFilePersistHandler::KivFilePersistHandler(const core::String& folder, platform::DispatchQueue& queue) noexcept
    : queue_(queue), folderPath_(folder), allCrashMetas_(folder), commonStrategyData_(queue) {
  core::createDirectories(folder);
}

bool KivFilePersistHandler::changeDbPath(std::string_view path) noexcept {
  const core::Lock lock(mutex_);
  const core::String directory = path;
  if (!core::fileExists(directory)) {
    kiv_log_info("create dir %@", directory);
  }
  if (directory.empty() || core::createDirectories(directory) != 0) {
    kiv_log_error("error reset db path");
    return false;
  }
  folderPath_.set(directory);
  allCrashMetas_.setFolder(directory);
  kiv_log_info("**reset default crash data path %@ ", directory);
  return true;
}

void KivFilePersistHandler::loadAllDatas() noexcept {
  if (dataLoaded_) {
    return;
  }
  const core::Lock lock(mutex_);
  if (dataLoaded_) {
    return;
  }
  if (KivModelBase::getDefualtAnaModel().isVersionChanged()) {
    dropOlderVersion();
  } else {
    allUserInfos_.load(SummaryQueue::pathIn(folderPath()));
    allCrashMetas_.load();
  }
  dataLoaded_ = true;
}

KivLocalStrategy KivFilePersistHandler::loadCommonStrategyFile() noexcept {
  return commonStrategyData_.load(folderPath());
}

bool KivFilePersistHandler::saveCommonStrategy(KivLocalStrategy strategy) noexcept {
  commonStrategyData_.save(folderPath(), std::move(strategy));
  return false;
}

void KivFilePersistHandler::deleteCommonStrategy() noexcept {
  commonStrategyData_.remove(folderPath());
}

bool KivFilePersistHandler::saveOneCrash(KivExpObj& record) noexcept {
  static constexpr Failures kFailures{"Fail to save crash in encoding", "Fail to save crash to path"};
  KivCrashMetaData entry;
  entry.md5 = record.hash();
  entry.time = record.time;
  entry.hasNew = true;
  entry.file = CrashRecordFile::nameOf(record);
  return write(record, entry, kFailures);
}

bool KivFilePersistHandler::updateOneCrash(KivExpObj* record) noexcept {
  const core::Lock lock(mutex_);
  const Entry entry = entryOf(record);
  return update(record, entry, entry && entry->uplaoded);
}

bool KivFilePersistHandler::updateOneCrash(KivExpObj* record, bool uplaoded) noexcept {
  return update(record, entryOf(record), uplaoded);
}

bool KivFilePersistHandler::update(KivExpObj* record, Entry entry, bool uplaoded) noexcept {
  static constexpr Failures kFailures{"Failed to update crash in encoding", "Failed update crash to path"};
  if (record == nullptr || !entry) {
    kiv_log_error("error update crash for %@ is nil", record == nullptr ? "exp" : "meta");
    return false;
  }
  entry->hasNew = record->dcount != 0;
  entry->uplaoded = uplaoded;
  entry->time = record->time;
  entry->md5 = record->hash();
  if (!entry->file || !CrashRecordFile::isName(*entry->file)) {
    entry->file = CrashRecordFile::nameOf(*record);
  }
  return write(*record, *entry, kFailures);
}

KivFilePersistHandler::Entry KivFilePersistHandler::entryOf(const KivExpObj* record) noexcept {
  return record != nullptr ? crashMetas().lookUp(keyOf(*record)) : std::nullopt;
}

/// The record and its entry under one lock, so that no process that cleans up sees one without the other.
bool KivFilePersistHandler::write(KivExpObj& record, const KivCrashMetaData& entry, const Failures& failures) noexcept {
  const core::Data data = record.encodeData();
  if (data.empty()) {
    kiv_log_error("%@", failures.ofEncoding);
    return false;
  }
  const StoreLock lock(folderPath());
  const core::String path = pathOf(entry);
  if (StoreLock::isLeftToCrash() && core::fileExists(path)) {
    return true;
  }
  if (CrashRecordFile::write(path, data) != 0) {
    kiv_log_error("%@ %@", failures.ofWriting, path);
    return true;
  }
  crashMetas().put(keyOf(record), entry);
  persistAllCrashMetaDatas();
  return true;
}

int KivFilePersistHandler::synchronizeCrash(const KivExpObj& record) const noexcept {
  const auto entry = allCrashMetas_.find(keyOf(record));
  const auto file = core::File::open(entry ? pathOf(*entry) : core::String(), O_RDONLY);
  return file ? file->sync() : file.error();
}

void KivFilePersistHandler::persistAllCrashMetaDatas() noexcept {
  crashMetas().write();
}

/// The index, of which nothing may have been read yet: then the file counts, unless it is of an
/// older version, as loadAllDatas would find.
CrashIndex& KivFilePersistHandler::crashMetas() noexcept {
  if (!dataLoaded_ && KivModelBase::getDefualtAnaModel().isVersionChanged()) {
    allCrashMetas_.setFileObsolete();
  }
  return allCrashMetas_;
}

core::String KivFilePersistHandler::pathOf(const KivCrashMetaData& entry) const noexcept {
  const bool isNamed = entry.file && CrashRecordFile::isName(*entry.file);
  return isNamed ? core::joinPath(folderPath(), *entry.file) : core::String();
}

bool KivFilePersistHandler::hasCrash() const noexcept {
  return !allCrashMetas_.empty();
}

std::optional<KivExpObj> KivFilePersistHandler::getByMeta(const KivCrashMetaData& entry) const noexcept {
  return CrashRecordFile::read(pathOf(entry)).record;
}

std::optional<KivExpObj> KivFilePersistHandler::getOrDelete(const KivCrashMetaData& entry) noexcept {
  CrashRecordFile::Content content = CrashRecordFile::read(pathOf(entry));
  if (content.isBroken) {
    deleteCrashMeta(entry);
  }
  return std::move(content.record);
}

std::optional<KivExpObj> KivFilePersistHandler::getCrashWithMd5(std::string_view hash) noexcept {
  const core::Lock lock(mutex_);
  const auto entry = crashMetas().lookUp(hash);
  return entry ? getOrDelete(*entry) : std::nullopt;
}

std::optional<KivExpObj> KivFilePersistHandler::getLatestCrash() noexcept {
  const core::Lock lock(mutex_);
  const CrashIndex::Entries entries = allCrashMetas_.all();
  const KivCrashMetaData* latest = nullptr;
  for (const auto& [hash, entry] : entries) {
    if (latest == nullptr || entry.time > latest->time) {
      latest = &entry;
    }
  }
  return latest != nullptr ? getOrDelete(*latest) : std::nullopt;
}

KivFilePersistHandler::Records KivFilePersistHandler::getAllCrashed(int maximum) noexcept {
  const core::Lock lock(mutex_);
  Records records;
  const auto wanted = static_cast<std::size_t>(maximum > 0 ? maximum : 0);
  for (const auto& [hash, entry] : allCrashMetas_.all()) {
    if (records.size() == wanted) {
      break;
    }
    if (auto record = getOrDelete(entry)) {
      records.append(std::move(*record));
    }
  }
  return records;
}

template <class Wanted>
KivFilePersistHandler::Records KivFilePersistHandler::select(Wanted&& wanted) const noexcept {
  const core::Lock lock(mutex_);
  Records records;
  for (const auto& [hash, entry] : allCrashMetas_.all()) {
    if (!wanted(entry)) {
      continue;
    }
    if (auto record = getByMeta(entry)) {
      records.append(std::move(*record));
    }
  }
  return records;
}

KivFilePersistHandler::Records KivFilePersistHandler::getCrashesNeedUpload(int count) const noexcept {
  const std::int64_t today = KivDeviceUtil::getTimeOfTodayStart();
  return select([&](const KivCrashMetaData& entry) {
    return count >= 1 && (!entry.uplaoded || (entry.time < today && entry.hasNew));
  });
}

KivFilePersistHandler::Records KivFilePersistHandler::getCrashesNeedDel() const noexcept {
  const std::int64_t today = KivDeviceUtil::getTimeOfTodayStart();
  return select([&](const KivCrashMetaData& entry) { return !entry.hasNew && entry.time < today; });
}

void KivFilePersistHandler::saveOneData(const KivSummaryInfo& summary) noexcept {
  const core::Lock lock(mutex_);
  allUserInfos_.append(summary);
}

void KivFilePersistHandler::deleteDatas(const Summaries& summaries) noexcept {
  const core::Lock lock(mutex_);
  allUserInfos_.remove(summaries);
  persistAllUserInfoDatas();
}

void KivFilePersistHandler::deleteAllUserDatas() noexcept {
  const core::Lock lock(mutex_);
  allUserInfos_.clear();
  persistAllUserInfoDatas();
}

KivFilePersistHandler::Summaries KivFilePersistHandler::getAllDatas() const noexcept {
  const core::Lock lock(mutex_);
  return allUserInfos_.all();
}

std::int32_t KivFilePersistHandler::getCurrSize() const noexcept {
  const core::Lock lock(mutex_);
  return static_cast<std::int32_t>(allUserInfos_.all().size());
}

void KivFilePersistHandler::persistAllUserInfoDatas() noexcept {
  queue_.async([path = SummaryQueue::pathIn(folderPath())] { SummaryQueue::write(path); });
}
