#pragma once

#include <atomic>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"
#include "Kiv/crashhandler/bughandler/CrashHandling.h"
#include "Kiv/crashhandler/persist/KivCrashListener.h"
#include "Platform/RunLoop/Timer.h"

/// Owns crash handling as a whole: installs and removes both catchers together, keeps them
/// installed against others for a while, keeps the settings that a capture obeys, and saves what was
/// captured: for now as a log file for the next run.
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

  /// Saves what processes have left that died before their crash was saved: in the background after the
  /// installation; before it returns for whoever cannot wait for that.
  void recoverCrashes() noexcept;

  /// What equal crashes have in common, in 32 hexadecimal digits: application, version, type and stack.
  static core::String hashOf(const KivCrashData& data) noexcept;

  /// As KivCustomizedException::backtrace.
  static core::Array<core::String> backtrace(int unused, unsigned skip) noexcept;

  void setUserCrashHandlerCallback(int (*callback)()) noexcept { userCrashHandlerCallback_ = callback; }
  void setUserMachHandler(bool use) noexcept { useMachHandler_ = use; }
  /// The program's choice, which outweighs the collector's.
  void setExpMergeUpload(bool merge) noexcept {
    mergeExp_ = merge;
    userSetMerge_ = true;
  }
  void setExpMergeStrategy(bool merge) noexcept { serverMerge_ = merge; }
  bool isExpMergeUpload() const noexcept { return userSetMerge_ ? mergeExp_ : serverMerge_; }
  /// Told of each crash from now on; nullptr is let pass.
  void registCrashListerner(KivCrashListener* listener) noexcept {
    if (listener != nullptr) {
      crashListeners_.update([listener](core::Array<KivCrashListener*>& listeners) { listeners.append(listener); });
    }
  }
  void setAttachLog(core::String log) noexcept { attachLog_.set(std::move(log)); }
  void setExcludeShortNames(Names names) noexcept { excludeShortNames_.set(std::move(names)); }
  void setIncludeShortNames(Names names) noexcept { includeShortNames_.set(std::move(names)); }
  void setEnableLastCloseRecord(bool enable) noexcept { enableLastCloseRecord_ = enable; }
  /// Whether the previous run ended with a crash: not recorded yet, so never.
  bool isLastCloseByCrash() noexcept { return false; }

 private:
  KivCrashHandler() noexcept = default;
  ~KivCrashHandler() = delete;
  void startGuard() noexcept;
  bool saveCrashData(KivCrashData& data) noexcept;
  bool isFilteredOut(const Names& stackNames) const noexcept;

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
  core::Published<core::Array<KivCrashListener*>> crashListeners_;
  core::Published<std::optional<core::String>> attachLog_;
  core::Published<Names> excludeShortNames_;
  core::Published<Names> includeShortNames_;
};
