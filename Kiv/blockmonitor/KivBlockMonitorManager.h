#pragma once

/// Watches the main run loop for stalls. Watches nothing yet.
class KivBlockMonitorManager {
 public:
  static KivBlockMonitorManager& sharedManager() noexcept;

  static void enableMonitor(bool /*enable*/, bool /*autoReporter*/, bool /*sameFrameFilter*/) noexcept {}
  static void checkLocalDataAndReport() noexcept {}
  void toggleBlockMonitor(bool) noexcept {}
  void setIgnoreRemoteStrategy(bool) noexcept {}
  void start() noexcept {}

 private:
  KivBlockMonitorManager() noexcept = default;
  ~KivBlockMonitorManager() = delete;
};
