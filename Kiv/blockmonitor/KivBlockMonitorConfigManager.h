#pragma once

#include "Core/PropertyList/Value.h"

/// Time-outs and daily limits of the stall monitor. Keeps nothing yet.
class KivBlockMonitorConfigManager {
 public:
  static KivBlockMonitorConfigManager& sharedManager() noexcept;

  void setUserRunloopTimeout(double /*milliseconds*/) noexcept {}
  /// The switches and limits that came with a strategy.
  void updateStrategy(const core::ValueDictionary& /*values*/, bool /*effectiveImmediately*/) noexcept {}

 private:
  KivBlockMonitorConfigManager() noexcept = default;
  ~KivBlockMonitorConfigManager() = delete;
};
