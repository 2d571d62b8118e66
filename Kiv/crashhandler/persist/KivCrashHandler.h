#pragma once

#include <atomic>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"
#include "Kiv/common/model/KivExpObj.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/persist/CrashSettings.h"
#include "Kiv/crashhandler/persist/KivCrashListener.h"
#include "Platform/RunLoop/Timer.h"

class RecoveredCrash;

/// Owns crash handling as a whole: installs and removes both catchers together, keeps them
/// installed against others for a while, keeps the settings that a capture obeys, and makes what was
/// captured a record in the store.
class KivCrashHandler final : public CrashHandling {
 public:
  using Names = core::Array<core::String>;

  static KivCrashHandler& sharedInstance() noexcept;

  void installHandler() noexcept;
  void uninstallHandler() noexcept override;
  bool enabled() const noexcept { return enabled_; }

  /// Takes the signals and exceptions back where another component replaced a handler. Every two
  /// seconds for the first ten times after the installation, and when the application leaves or enters.
  void protectHandler(const platform::Timer* timer) noexcept;
  unsigned checkerCount() const noexcept { return checkerCount_; }

  /// YES tells the rest of the process, once, and the next run.
  void setCrashAccidentHappen(bool happened) noexcept override;
  bool isCrashAccidentHappen() const noexcept override { return crashAccidentHappen_; }
  void stopStallMonitor() noexcept override;

  /// Saves the process's crash data, or the given ones. Whether a report was saved.
  bool crashHapped() noexcept { return crashHapped(nullptr); }
  bool crashHapped(KivCrashData* data) noexcept override;

  /// The record that was saved, nothing for what has no type or is filtered out. Listeners are told by
  /// crashHapped alone.
  std::optional<KivExpObj> saveCrashData(KivCrashData* data) noexcept;
  KivExpObj generateExpUploadObj(const KivCrashData& data) noexcept;
  /// As the store answers; the record becomes the merged one.
  bool persistCrashToFile(KivExpObj& record) noexcept { return persistCrashToFile(record, isExpMergeUpload()); }
  /// The record that was made last.
  std::optional<KivExpObj> getCurrExpObj() const noexcept { return currExpObj_.get(); }

  /// Saves what processes have left that died before their crash was saved. Normal running; the store
  /// asks for it when it loads.
  void recoverCrashes() noexcept;

  // What the last session left of its crash.
  /// Computed once a process, which then forgets it on disk.
  bool isLastCloseByCrash() noexcept;
  void persistLastCrashNeedReport(bool need) noexcept;
  bool hasLastCrashNeedReport() noexcept;
  void persistLastCrashTime(std::int64_t milliseconds) noexcept;
  std::int64_t getLastCrashTime() noexcept;

  /// Told in the order of registration, for good; once, however often it is registered.
  void registCrashListerner(KivCrashListener* listener) noexcept;

  /// As KivCustomizedException::backtrace.
  static core::Array<core::String> backtrace(int unused, unsigned skip) noexcept;

  void setUserCrashHandlerCallback(int (*callback)()) noexcept { userCrashHandlerCallback_ = callback; }
  void setUserMachHandler(bool use) noexcept { useMachHandler_ = use; }
  bool userMachHandler() const noexcept { return useMachHandler_; }
  /// The program's choice, which outweighs the server's.
  void setExpMergeUpload(bool merge) noexcept;
  void setExpMergeStrategy(bool merge) noexcept;
  bool isExpMergeUpload() const noexcept { return userSetMerge_ ? mergeExp_ : serverMerge_; }
  void setAttachLog(core::String log) noexcept;
  void setExcludeShortNames(Names names) noexcept;
  void setIncludeShortNames(Names names) noexcept;
  void setEnableLastCloseRecord(bool enable) noexcept { enableLastCloseRecord_ = enable; }

 private:
  KivCrashHandler() noexcept = default;
  ~KivCrashHandler() = delete;
  void startGuard() noexcept;
  template <class Change>
  void changeSettings(Change&& change) noexcept;
  bool persistCrashToFile(KivExpObj& record, bool merges) noexcept;
  bool save(KivExpObj& record, bool merges) noexcept;
  bool saveRecovered(const RecoveredCrash& crash) noexcept;
  void noteLastCrash(std::int64_t milliseconds) noexcept;
  static std::int64_t lastSessionNumber(std::string_view key) noexcept;

  core::Mutex mutex_;
  std::atomic<bool> enabled_{false};
  std::atomic<bool> crashAccidentHappen_{false};
  std::atomic<unsigned> checkerCount_{0};
  std::atomic<bool> enableLastCloseRecord_{true};
  std::atomic<bool> useMachHandler_{false};
  std::atomic<bool> mergeExp_{false};
  std::atomic<bool> userSetMerge_{false};
  std::atomic<bool> serverMerge_{false};
  std::atomic<int (*)()> userCrashHandlerCallback_{nullptr};
  core::Published<CrashSettings> settings_;
  core::Published<core::Array<KivCrashListener*>> crashListeners_;
  core::Published<std::optional<KivExpObj>> currExpObj_;
  bool lastCrashSynced_ = false;  // under mutex_
  bool lastCrashed_ = false;      // under mutex_
};
