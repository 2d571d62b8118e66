// The crash handler's second half: from crash data to a stored record, of this process or of one
// that died, and what the next launch asks of the last one.

#include "Core/Kernel/Process.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/KivPersistedKeys.h"
#include "Kiv/common/KivSharedNames.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Kiv/crashhandler/persist/CrashRecord.h"
#include "Kiv/crashhandler/persist/KivCrashHandler.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Kiv/crashhandler/recovery/JournalRecovery.h"
#include "Platform/Foundation/UserDefaults.h"

namespace {

constexpr std::string_view kLastReported = "last_crash_reported";
constexpr std::string_view kLastTime = "last_crash_time";

KivFilePersistHandler& store() noexcept {
  return KivFilePersistHandler::sharedInstance();
}

void callBack(int (*callback)()) noexcept {
  kiv_log_always("<KIV> Call user crash handler callback: %p", reinterpret_cast<const void*>(callback));
  if (callback != nullptr) {
    const CrashWatchdog::Limit limit(CrashWatchdog::kCallbackTime);
    callback();
  }
}

/// Which entry into the handler the process's crash data are about, 0 for a report of the program's own.
std::uint32_t entryOf(const KivCrashData& data) noexcept {
  return &data != &KivCrashData::expData() ? 0 : data.crashOnceMore() ? 2 : 1;
}

}  // namespace

bool KivCrashHandler::crashHapped(KivCrashData* data) noexcept {
  const std::optional<KivExpObj> saved = saveCrashData(data);
  if (saved) {
    for (KivCrashListener* listener : crashListeners_.get()) {
      listener->onCrashHappened(*saved);
    }
  }
  store().persistAllUserInfoDatas();
  return saved.has_value();
}

std::optional<KivExpObj> KivCrashHandler::saveCrashData(KivCrashData* given) noexcept {
  KivCrashData& data = given != nullptr ? *given : KivCrashData::expData();
  if (!data.type()) {
    return std::nullopt;
  }
  kiv_log_info("Save crash data.");
  noteLastCrash(data.time());
  const CrashSettings settings = settings_.get();
  if (settings.reject(data.crashStackShortNames())) {
    CrashJournal::settle(entryOf(data));
    return std::nullopt;
  }
  if (!data.isCustomizedException()) {
    callBack(userCrashHandlerCallback_);
  }
  KivExpObj record = generateExpUploadObj(data);
  CrashRecord::addUserData(record, data, ReporterIdentity::current(), settings.attachLog);
  currExpObj_.set(record);
  if (save(record, isExpMergeUpload())) {
    CrashJournal::settle(entryOf(data));
  }
  return record;
}

KivExpObj KivCrashHandler::generateExpUploadObj(const KivCrashData& data) noexcept {
  kiv_log_info("Generate crash object to upload");
  return CrashRecord::of(data, ReporterIdentity::current(), DeviceState::now(), CrashJournal::uidOf(entryOf(data)));
}

/// True when the disk has it.
bool KivCrashHandler::save(KivExpObj& record, bool merges) noexcept {
  persistCrashToFile(record, merges);
  const bool isUpdated = store().updateOneCrash(&record);
  kiv_log_info("Save crash data %@", isUpdated ? "SUCCESS" : "FAIL");
  return store().synchronizeCrash(record) == 0;
}

bool KivCrashHandler::persistCrashToFile(KivExpObj& record, bool merges) noexcept {
  if (!merges) {
    return store().saveOneCrash(record);
  }
  std::optional<KivExpObj> stored = store().getCrashWithMd5(record.hash().value_or(core::String()));
  if (!stored) {
    return store().saveOneCrash(record);
  }
  const std::size_t attaches = CrashRecord::merge(*stored, record);
  record = *std::move(stored);
  kiv_log_info("merge save one crash with %d attaches ", attaches);
  return store().updateOneCrash(&record);
}

void KivCrashHandler::recoverCrashes() noexcept {
  const bool isOlderVersion = KivModelBase::getDefualtAnaModel().isVersionChanged();
  JournalRecovery::run(
      store().folderPath(), isOlderVersion
                                ? [](const RecoveredCrash&) { return true; }
                                : [](const RecoveredCrash& crash) { return sharedInstance().saveRecovered(crash); });
}

// The process itself, or a start that reported for it, may have died between saving and settling.
bool KivCrashHandler::saveRecovered(const RecoveredCrash& crash) noexcept {
  const KivCrashData& data = crash.data();
  noteLastCrash(data.time());
  platform::UserDefaults& defaults = platform::UserDefaults::standard();
  defaults.setObject(KivDidCrashLastSession, core::Value(true));
  defaults.synchronize();
  const auto settings = crash.read<CrashSettings>(JournalPart::kSettings);
  if (settings.reject(data.crashStackShortNames())) {
    return true;
  }
  KivExpObj record = CrashRecord::of(data, crash.identity(), std::nullopt, crash.uid());
  const auto stored = store().getCrashWithMd5(record.hash().value_or(core::String()));
  if (stored && stored->expUid == record.expUid) {
    return true;
  }
  CrashRecord::addUserData(record, data, crash.identity(), settings.attachLog);
  return save(record, settings.mergesEqual);
}

void KivCrashHandler::noteLastCrash(std::int64_t time) noexcept {
  persistLastCrashTime(time);
  if (enableLastCloseRecord_) {
    persistLastCrashNeedReport(true);
  }
}

void KivCrashHandler::persistLastCrashNeedReport(bool need) noexcept {
  KivModelBase::getDefualtAnaModel().persistKey(kLastReported, core::Value(need));
}

void KivCrashHandler::persistLastCrashTime(std::int64_t time) noexcept {
  if (time >= 1) {
    KivModelBase::getDefualtAnaModel().persistKey(kLastTime, core::Value(time));
  }
}

/// The number under a key that the last session may have left, 0 where it left none or was of another version.
std::int64_t KivCrashHandler::lastSessionNumber(std::string_view key) noexcept {
  KivModelBase& model = KivModelBase::getDefualtAnaModel();
  if (model.isVersionChanged()) {
    model.unSetKey(key);
    return 0;
  }
  const auto value = model.getKey(key);
  return value ? value->asInteger().value_or(0) : 0;
}

bool KivCrashHandler::hasLastCrashNeedReport() noexcept {
  return lastSessionNumber(kLastReported) != 0;
}

std::int64_t KivCrashHandler::getLastCrashTime() noexcept {
  return lastSessionNumber(kLastTime);
}

bool KivCrashHandler::isLastCloseByCrash() noexcept {
  recoverCrashes();  // what the last session could not tell of itself
  const core::Lock lock(mutex_);
  if (!lastCrashSynced_) {
    lastCrashSynced_ = true;
    lastCrashed_ = hasLastCrashNeedReport();
    if (lastCrashed_) {
      persistLastCrashNeedReport(false);
      KivPersistedKeys::shared().writeNow();  // the next start must not hear of it, even if this one ends here
    }
  }
  return lastCrashed_;
}
