#pragma once

/// Time-outs and daily limits of the stall monitor. Keeps nothing yet.
class KivBlockMonitorConfigManager {
 public:
  static KivBlockMonitorConfigManager& sharedManager() noexcept;

  void setUserRunloopTimeout(double /*milliseconds*/) noexcept {}

 private:
  KivBlockMonitorConfigManager() noexcept = default;
  ~KivBlockMonitorConfigManager() = delete;
};
