#pragma once

#include <atomic>
#include <string_view>

#include "Kiv/common/model/KivExpObj.h"
#include "Kiv/crashhandler/persist/CrashIndex.h"
#include "Kiv/crashhandler/persist/StoredStrategy.h"
#include "Kiv/crashhandler/persist/SummaryQueue.h"

/// The store of what must reach the next run: each crash as a file of its own, an index of them with
/// what was uploaded, the last strategy of the server, and, in memory only, the queued summaries.
///
/// Any thread. A crash calls saveOneCrash, updateOneCrash, getCrashWithMd5, getByMeta and the two
/// persist operations; there no lock is waited for, background work is done at once, and what was
/// never loaded is looked for on disk. Several processes may share the directory, see CrashIndex.
///
/// Answers of save and update tell that the record could be encoded, whatever came of the writing.
class KivFilePersistHandler {
 public:
  using Records = core::Array<KivExpObj>;
  using Summaries = core::Array<KivSummaryInfo>;

  /// That of the process, in the reporter's data directory. Never destroyed.
  static KivFilePersistHandler& sharedInstance() noexcept;

  /// One in a directory of its own, which is made; its background work runs on `queue` and must have
  /// ended before it is destroyed.
  explicit KivFilePersistHandler(const core::String& folder,
                                 platform::DispatchQueue& queue = platform::DispatchQueue::global()) noexcept;

  core::String folderPath() const noexcept { return folderPath_.get(); }
  /// Moves to another directory, making it. What was stored in the old one stays there, what was
  /// loaded stays loaded.
  bool changeDbPath(std::string_view path) noexcept;

  /// Reads index and summaries, once; after a change of the version drops them instead.
  void loadAllDatas() noexcept;

  // The strategy.
  void loadStrategys() noexcept { loadCommonStrategyFile(); }
  KivLocalStrategy loadCommonStrategyFile() noexcept;
  /// False whatever happens: the writing comes later.
  bool saveCommonStrategy(KivLocalStrategy strategy) noexcept;
  void deleteCommonStrategy() noexcept;

  // Saving crashes.
  bool saveOneCrash(KivExpObj& record) noexcept;
  bool updateOneCrash(KivExpObj* record) noexcept;
  bool updateOneCrash(KivExpObj* record, bool uplaoded) noexcept;
  /// Waits until the disk has the record's file, so that it outlives the machine too. 0 or errno.
  int synchronizeCrash(const KivExpObj& record) const noexcept;
  void persistAllCrashMetaDatas() noexcept;

  // Finding them. What exists and is no record is deleted on the way, except by getByMeta and the
  // two selections for the upload.
  bool hasCrash() const noexcept;
  std::optional<KivExpObj> getByMeta(const KivCrashMetaData& entry) const noexcept;
  std::optional<KivExpObj> getCrashWithMd5(std::string_view hash) noexcept;
  std::optional<KivExpObj> getLatestCrash() noexcept;
  Records getAllCrashed(int maximum) noexcept;
  /// All that wait for an upload, for any count of 1 or more.
  Records getCrashesNeedUpload(int count) const noexcept;
  /// Uploaded before today and not seen since.
  Records getCrashesNeedDel() const noexcept;

  // Deleting them: files in the background, which a crash puts an end to.
  bool deleteCrash(const KivExpObj* record) noexcept;
  bool deleteCrashes(const Records& records) noexcept;
  /// Whether the entry named a file.
  bool deleteCrashMeta(const KivCrashMetaData& entry) noexcept;
  /// Every file that begins with ".crash_", the index included; or those that no entry names.
  bool deleteAllCrashes() noexcept;
  bool deleteAllInvalidCrashes() noexcept;

  // Summaries.
  void saveOneData(const KivSummaryInfo& summary) noexcept;
  void deleteDatas(const Summaries& summaries) noexcept;
  void deleteAllUserDatas() noexcept;
  Summaries getAllDatas() const noexcept;
  std::int32_t getCurrSize() const noexcept;
  /// Leaves an empty list in their file.
  void persistAllUserInfoDatas() noexcept;

 private:
  struct Failures;  // what the log says
  enum class Cleaning { kAll, kOlderVersion, kInvalid };
  using Entry = std::optional<KivCrashMetaData>;

  CrashIndex& crashMetas() noexcept;
  core::String pathOf(const KivCrashMetaData& entry) const noexcept;
  Entry entryOf(const KivExpObj* record) noexcept;
  bool update(KivExpObj* record, Entry entry, bool uplaoded) noexcept;
  bool write(KivExpObj& record, const KivCrashMetaData& entry, const Failures& failures) noexcept;
  std::optional<KivExpObj> getOrDelete(const KivCrashMetaData& entry) noexcept;
  template <class Wanted>
  Records select(Wanted&& wanted) const noexcept;

  void dropOlderVersion() noexcept;
  void finishDeletion(core::Array<core::String> paths, std::string_view failure) noexcept;
  void clean(Cleaning cleaning) noexcept;
  bool isToGo(std::string_view name, Cleaning cleaning) const noexcept;

  mutable core::Mutex mutex_;
  platform::DispatchQueue& queue_;
  core::Published<core::String> folderPath_;
  CrashIndex allCrashMetas_;
  SummaryQueue allUserInfos_;  // under mutex_
  StoredStrategy commonStrategyData_;
  std::atomic<bool> dataLoaded_{false};
};
