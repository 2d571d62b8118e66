#pragma once

#include "Kiv/common/KivInfo.h"

/// Measures launches and active periods. So far it only has the events of the application's life
/// told; it records nothing yet.
class KivAppLifecycleManager {
 public:
  static KivAppLifecycleManager& sharedManager() noexcept {
    static auto& manager = *new KivAppLifecycleManager;
    return manager;
  }

  void start() noexcept { KivInfo::sharedInfo().start(); }

 private:
  KivAppLifecycleManager() noexcept = default;
  ~KivAppLifecycleManager() = delete;
};
