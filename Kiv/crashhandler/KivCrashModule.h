#pragma once

#include <atomic>

#include "Core/Memory/Mutex.h"
#include "Core/Memory/String.h"

/// The switch-board of the crash side: turns capture on and off and knows where reports go.
/// Driven by the facade.
class KivCrashModule {
 public:
  static KivCrashModule& sharedInstance() noexcept;

  /// Installs or removes the handlers; nothing when the module is in that state already.
  void enableModule() noexcept;
  void disableModule() noexcept;
  bool isEnabled() const noexcept { return enabled_; }

  bool atsEnabled() const noexcept { return atsEnabled_; }
  void setATSEnabled(bool enabled) noexcept { atsEnabled_ = enabled; }
  bool appUnexpectedTerminatingDetectionEnabled() const noexcept { return terminatingDetection_; }
  void setAppUnexpectedTerminatingDetectionEnabled(bool enabled) noexcept { terminatingDetection_ = enabled; }
  void setSigkillReportCallback(const char* (*callback)()) noexcept { sigkillReportCallback_ = callback; }

  /// Records that user or device changed. Nothing is recorded yet.
  void insertUserChangeSm() noexcept {}

  /// The endpoint when no strategy names another.
  core::String localUrl() const noexcept;

 private:
  KivCrashModule() noexcept = default;
  ~KivCrashModule() = delete;

  core::Mutex mutex_;
  std::atomic<bool> enabled_{false};
  std::atomic<bool> atsEnabled_{true};
  std::atomic<bool> terminatingDetection_{false};
  std::atomic<const char* (*)()> sigkillReportCallback_{nullptr};
};
