#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "Core/Memory/Array.h"
#include "Core/Memory/Dictionary.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"
#include "Kiv/crashhandler/bughandler/CrashBinInfo.h"
#include "Kiv/crashhandler/bughandler/KivThreadInfo.h"

class NSException;

/// What a crash, or an error that the program reports, consists of: its description, the
/// data that the program gave ahead, and what the collectors found.
///
/// What the collectors write is not locked: it belongs to the thread that makes the report.
/// User data is taken but not kept yet.
class KivCrashData {
 public:
  using Text = std::optional<core::String>;
  using Texts = core::Array<core::String>;
  using Exception = std::shared_ptr<const NSException>;

  KivCrashData() noexcept = default;

  /// The process's own, made once and never destroyed.
  static KivCrashData& expData() noexcept;

  void appendSessionEvent(const Text&) noexcept {}
  void addUserMapData(const Text& /*key*/, const Text& /*value*/) noexcept {}
  void setScene(unsigned long) noexcept {}
  unsigned long currentScene() const noexcept { return 0; }
  void addSceneValue(const Text& /*value*/, const Text& /*key*/) noexcept {}
  void removeSceneValueForKey(const Text&) noexcept {}
  void removeAllSceneValues() noexcept {}
  Text sceneValueForKey(const Text&) const noexcept { return std::nullopt; }
  core::Dictionary<core::String> allSceneValues() const noexcept { return {}; }

  bool isCustomizedException() const noexcept { return false; }
  KivCrashData* currentCustomizedCrashData() const noexcept { return nullptr; }
  Text type() const noexcept { return std::nullopt; }
  Text crashlog() const noexcept { return std::nullopt; }
  Text crashStack() const noexcept { return std::nullopt; }

  // The crash.
  Exception exp() const noexcept { return exp_.get(); }
  void setExp(Exception value) noexcept { exp_.set(std::move(value)); }
  std::uint32_t crashThread() const noexcept { return crashThread_; }
  void setCrashThread(std::uint32_t port) noexcept { crashThread_ = port; }
  bool crashOnceMore() const noexcept { return crashOnceMore_.load(std::memory_order_relaxed); }
  void setCrashOnceMore(bool value) noexcept { crashOnceMore_.store(value, std::memory_order_relaxed); }
  core::String lastExceptionInfo() const noexcept { return lastExceptionInfo_.get(); }
  /// Adds a line, for the first crash only.
  void addLastExceptionInfo(const Text& text) noexcept;

  // What the collectors found.
  core::Array<KivThreadInfo>& allThreadInfos() noexcept { return allThreadInfos_; }
  const core::Array<KivThreadInfo>& allThreadInfos() const noexcept { return allThreadInfos_; }
  void setAllThreadInfos(core::Array<KivThreadInfo> value) noexcept { allThreadInfos_ = std::move(value); }
  const std::optional<KivThreadInfo>& crashThreadInfo() const noexcept { return crashThreadInfo_; }
  void setCrashThreadInfo(std::optional<KivThreadInfo> value) noexcept { crashThreadInfo_ = std::move(value); }
  /// The stack of the exception that caused the crash.
  const std::optional<KivThreadInfo>& ocThreadInfo() const noexcept { return ocThreadInfo_; }
  void setOcThreadInfo(std::optional<KivThreadInfo> value) noexcept { ocThreadInfo_ = std::move(value); }
  const Texts& allStackShortNames() const noexcept { return allStackShortNames_; }
  void setAllStackShortNames(Texts value) noexcept { allStackShortNames_ = std::move(value); }
  const Texts& crashStackShortNames() const noexcept { return crashStackShortNames_; }
  void setCrashStackShortNames(Texts value) noexcept { crashStackShortNames_ = std::move(value); }
  const Text& registerDatas() const noexcept { return registerDatas_; }
  void setRegisterDatas(Text value) noexcept { registerDatas_ = std::move(value); }
  const Text& processName() const noexcept { return processName_; }
  void setProcessName(Text value) noexcept { processName_ = std::move(value); }
  const Text& processUUID() const noexcept { return processUUID_; }
  void setProcessUUID(Text value) noexcept { processUUID_ = std::move(value); }
  const Text& processArch() const noexcept { return processArch_; }
  void setProcessArch(Text value) noexcept { processArch_ = std::move(value); }
  const Text& processAddr() const noexcept { return processAddr_; }
  void setProcessAddr(Text value) noexcept { processAddr_ = std::move(value); }
  const core::Array<CrashBinInfo>& crashBinInfos() const noexcept { return crashBinInfos_; }
  void setCrashBinInfos(core::Array<CrashBinInfo> value) noexcept { crashBinInfos_ = std::move(value); }

  /// Whether the crash came in the dispatch of a message, whose name is then worth a look.
  bool needCheckFirstLineOcMsg() const noexcept;

 private:
  core::Published<Exception> exp_;
  std::atomic<std::uint32_t> crashThread_{0};
  std::atomic<bool> crashOnceMore_{false};
  core::Published<core::String> lastExceptionInfo_;

  core::Array<KivThreadInfo> allThreadInfos_;
  std::optional<KivThreadInfo> crashThreadInfo_, ocThreadInfo_;
  Texts allStackShortNames_, crashStackShortNames_;
  Text registerDatas_, processName_, processUUID_, processArch_, processAddr_;
  core::Array<CrashBinInfo> crashBinInfos_;
};

/// Whether a thread's first frame dispatches a message; false for no thread and for a
/// first frame that was met first elsewhere in a stack.
bool kiv_first_line_is_message(const std::optional<KivThreadInfo>& thread) noexcept;
