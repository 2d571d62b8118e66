#pragma once

#include <atomic>
#include <optional>

#include "Core/Memory/Array.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"

/// Owns crash handling as a whole: installs and removes both catchers together and keeps the
/// settings that a capture obeys.
class KivCrashHandler {
 public:
  using Names = core::Array<core::String>;

  static KivCrashHandler& sharedInstance() noexcept;

  void installHandler() noexcept;
  void uninstallHandler() noexcept;
  bool enabled() const noexcept { return enabled_; }

  void setUserCrashHandlerCallback(int (*callback)()) noexcept { userCrashHandlerCallback_ = callback; }
  void setUserMachHandler(bool use) noexcept { useMachHandler_ = use; }
  /// The program's choice, which outweighs the collector's.
  void setExpMergeUpload(bool merge) noexcept {
    mergeExp_ = merge;
    userSetMerge_ = true;
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

  std::atomic<bool> enabled_{false};
  std::atomic<bool> enableLastCloseRecord_{true};
  std::atomic<bool> useMachHandler_{false};
  std::atomic<bool> mergeExp_{false};
  std::atomic<bool> userSetMerge_{false};
  std::atomic<int (*)()> userCrashHandlerCallback_{nullptr};
  core::Published<std::optional<core::String>> attachLog_;
  core::Published<Names> excludeShortNames_;
  core::Published<Names> includeShortNames_;
};
