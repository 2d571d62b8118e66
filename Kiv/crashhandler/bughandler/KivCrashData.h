#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "Core/Memory/Array.h"
#include "Core/Memory/Published.h"
#include "Core/Memory/String.h"
#include "Kiv/crashhandler/bughandler/CrashBinInfo.h"
#include "Kiv/crashhandler/bughandler/CrashUserData.h"
#include "Kiv/crashhandler/bughandler/KivThreadInfo.h"

class NSException;

/// What a crash, or an error that the program reports, consists of: its description, the
/// data that the program gave ahead, and what the collectors found.
///
/// Any thread may read the description, which is published. What the collectors write is not locked:
/// it belongs to the thread that makes the report.
class KivCrashData : public CrashUserData {
 public:
  using Exception = std::shared_ptr<const NSException>;

  KivCrashData() noexcept = default;

  /// The process's own, made once and never destroyed.
  static KivCrashData& expData() noexcept;

  // The crash. Milliseconds since 1970.
  std::int64_t time() const noexcept { return time_; }
  void setTime(std::int64_t value) noexcept { time_ = value; }
  Text type() const noexcept { return type_.get(); }
  void setType(Text value) noexcept { type_.set(std::move(value)); }
  Text error() const noexcept { return error_.get(); }
  void setError(Text value) noexcept { error_.set(std::move(value)); }
  Text address() const noexcept { return address_.get(); }
  void setAddress(Text value) noexcept { address_.set(std::move(value)); }
  Text thread() const noexcept { return thread_.get(); }
  void setThread(Text value) noexcept { thread_.set(std::move(value)); }
  Text errorStack() const noexcept { return errorStack_.get(); }
  void setErrorStack(Text value) noexcept { errorStack_.set(std::move(value)); }
  /// What caught it.
  Text handler() const noexcept { return handler_.get(); }
  void setHandler(Text value) noexcept { handler_.set(std::move(value)); }
  Exception exp() const noexcept { return exp_.get(); }
  void setExp(Exception value) noexcept { exp_.set(std::move(value)); }
  /// The crashed thread's port.
  std::uint32_t crashThread() const noexcept { return crashThread_; }
  void setCrashThread(std::uint32_t port) noexcept { crashThread_ = port; }
  /// Whether the handling of the crash crashed.
  bool crashOnceMore() const noexcept { return crashOnceMore_.load(std::memory_order_relaxed); }
  void setCrashOnceMore(bool value) noexcept { crashOnceMore_.store(value, std::memory_order_relaxed); }
  core::String lastExceptionInfo() const noexcept { return lastExceptionInfo_.get(); }
  /// Adds a line, for the first crash only.
  void addLastExceptionInfo(const Text& text) noexcept;
  /// The stack of an exception that the library's own handling threw.
  Texts sdkCrashCallStack() const noexcept { return sdkCrashCallStack_.get(); }
  void setSdkCrashCallStack(Texts value) noexcept { sdkCrashCallStack_.set(std::move(value)); }

  // An error that the program reports.
  bool isCustomizedException() const noexcept { return customizedException_; }
  void setCustomizedException(bool value) noexcept { customizedException_ = value; }
  /// The one that is being reported, nullptr for none.
  std::shared_ptr<KivCrashData> currentCustomizedCrashData() const noexcept { return currentCustomized_.get(); }
  void setCurrentCustomizedCrashData(std::shared_ptr<KivCrashData> value) noexcept {
    currentCustomized_.set(std::move(value));
  }

  /// The report's finished text.
  Text crashlog() const noexcept { return crashlog_.get(); }
  void setCrashlog(Text value) noexcept { crashlog_.set(std::move(value)); }
  /// The stack that the report is about: the reported error's, else the exception's, else the
  /// crashed thread's.
  core::String crashStack() const noexcept;

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
  /// Nothing fills it on this platform.
  const Text& objcMsgData() const noexcept { return objcMsgData_; }
  void setObjcMsgData(Text value) noexcept { objcMsgData_ = std::move(value); }
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
  using PublishedText = core::Published<Text>;

  std::atomic<std::int64_t> time_{0};
  std::atomic<std::uint32_t> crashThread_{0};
  std::atomic<bool> crashOnceMore_{false};
  std::atomic<bool> customizedException_{false};
  PublishedText type_, error_, address_, thread_, errorStack_, handler_, crashlog_;
  core::Published<Exception> exp_;
  core::Published<core::String> lastExceptionInfo_;
  core::Published<Texts> sdkCrashCallStack_;
  core::Published<std::shared_ptr<KivCrashData>> currentCustomized_;

  core::Array<KivThreadInfo> allThreadInfos_;
  std::optional<KivThreadInfo> crashThreadInfo_, ocThreadInfo_;
  Texts allStackShortNames_, crashStackShortNames_;
  Text registerDatas_, objcMsgData_, processName_, processUUID_, processArch_, processAddr_;
  core::Array<CrashBinInfo> crashBinInfos_;
};

/// Whether a thread's first frame dispatches a message; false for no thread and for a
/// first frame that was met first elsewhere in a stack.
bool kiv_first_line_is_message(const std::optional<KivThreadInfo>& thread) noexcept;
