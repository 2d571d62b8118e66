#pragma once

#include <atomic>
#include <optional>

#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Kiv/common/model/KivLocalStrategy.h"
#include "Kiv/common/model/KivSummaryInfo.h"
#include "Platform/Foundation/HostFiles.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/RunLoop/DispatchQueue.h"

/// The switch-board of the crash side: turns capture on and off as the program and the server's
/// strategy want it, starts the store, knows where reports go, records changes of the user, and
/// infers from what earlier runs left in the user defaults that the last one was killed.
///
/// One a process, never destroyed. Driven by the facade; the reporters hand it new strategies and
/// ask it for addresses. Any thread; the addresses and the strategy also on the crash path.
class KivCrashModule {
 public:
  /// What the module works with. Tests put something else there, before anything else is called.
  struct Surroundings {
    platform::DispatchQueue* main = &platform::DispatchQueue::main();
    platform::DispatchQueue* global = &platform::DispatchQueue::global();
    platform::HostFiles files;
  };

  /// Kinds of requests that may go to addresses of their own.
  enum RequestKind : int { kGeneral = 0, kException = 1 };

  static KivCrashModule& sharedInstance() noexcept;

  void setSurroundings(const Surroundings& surroundings) noexcept { surroundings_ = surroundings; }

  /// Installs or removes the handlers; nothing when the module is in that state already. The first
  /// time, the store is loaded in the background and the last run's end looked at.
  void enableModule() noexcept;
  void disableModule() noexcept;
  /// Does what program and strategy want together. Whether that changed anything.
  bool checkAndEnable() noexcept { return checkAndEnable(true); }
  bool isEnabled() const noexcept { return enabled_; }

  // The strategy.
  /// Takes the stored one where none is in force; whether it did.
  bool fetchCrashStrategyFormDB() noexcept;
  /// Takes and stores what a response brought; false where that is no strategy.
  bool processStrategy(const KivLocalObjInitWithZemProtocol* received) noexcept;
  /// The one in force then is the one that the store still holds: it forgets in the background.
  void cleanLocalStrategy() noexcept;
  std::optional<KivLocalStrategy> localStrategy() const noexcept { return localStrategy_.get(); }
  bool hasLocalDB() const noexcept { return hasLocalDB_; }
  bool hasSyncServer() const noexcept { return hasSyncServer_; }
  void setHasSyncServer(bool has) noexcept { hasSyncServer_ = has; }

  // Where requests of a kind go.
  core::String localUrl() const noexcept;
  /// What the strategy says; "" where it says nothing usable.
  core::String strategyUrl(int kind) const noexcept;
  /// The former, or localUrl() where that is missing or of the other scheme.
  core::String targetUrl(int kind) const noexcept;

  // Summaries.
  /// Records that user or device changed, once the start-up work has reached the store.
  void insertUserChangeSm() noexcept;
  /// `time` in milliseconds since 1970. Nothing while a strategy has the module disabled.
  std::optional<KivSummaryInfo> creatSummaryInfo(std::int8_t startType, std::int64_t time) const noexcept;

  // How runs end.
  void didReceiveMemoryWarning(const platform::Notification& notification) noexcept;
  void leavingAppSafely() noexcept;
  /// Nothing where the kernel does not tell.
  std::optional<core::Date> systemBootTime() const noexcept;
  /// Whether this is the first question since the system was started.
  bool isCausedBySystemReboot() noexcept;
  void checkUnexpectedExit() noexcept;
  /// Reports, once a process and later, that the last run was killed.
  void reportUnexpectExit(bool lowMemory) noexcept;

  // The application's life.
  void didReceiveAppLifeCycleEvent(const platform::Notification& notification) noexcept;
  void appEnterForeground() noexcept;
  void appEnterBackground() noexcept;
  void appKivStarted() noexcept {}
  void appKivResumed() noexcept {}
  void appKivEnterBack() noexcept {}

  // What the program wants.
  bool userEnabled() const noexcept { return userEnabled_; }
  void setUserEnabled(bool enabled) noexcept { userEnabled_ = enabled; }
  bool atsEnabled() const noexcept { return atsEnabled_; }
  void setATSEnabled(bool enabled) noexcept { atsEnabled_ = enabled; }
  bool appUnexpectedTerminatingDetectionEnabled() const noexcept { return terminatingDetection_; }
  void setAppUnexpectedTerminatingDetectionEnabled(bool enabled) noexcept { terminatingDetection_ = enabled; }
  void setSigkillReportCallback(const char* (*callback)()) noexcept { sigkillReportCallback_ = callback; }

 private:
  KivCrashModule() noexcept;
  ~KivCrashModule() = delete;

  bool checkAndEnable(bool mayEnable) noexcept;
  bool turn(bool on) noexcept;
  void startCapture() noexcept;
  void stopCapture() noexcept;
  void startUp() noexcept;
  void reportKilled(const core::String& reason) const noexcept;

  Surroundings surroundings_;
  core::Mutex mutex_;
  std::atomic<bool> enabled_{false};
  std::atomic<bool> initialised_{false};  // the start-up work has begun
  std::atomic<bool> started_{false};      // it got past the strategy
  std::atomic<platform::NotificationCenter::Observer> observer_{0};

  core::Published<std::optional<KivLocalStrategy>> localStrategy_;
  std::atomic<bool> hasLocalDB_{false};
  std::atomic<bool> hasSyncServer_{false};

  std::atomic<bool> userEnabled_{true};
  std::atomic<bool> atsEnabled_{true};
  std::atomic<bool> terminatingDetection_{false};
  std::atomic<const char* (*)()> sigkillReportCallback_{nullptr};

  std::atomic<bool> didLogLowMemoryWarning_{false};
  std::atomic<bool> didCheckUnexpectedExit_{false};
  std::atomic<bool> didReportUnexpectedExit_{false};
  std::int64_t lastForeground_ = 0;  // milliseconds since 1970, under mutex_
};
