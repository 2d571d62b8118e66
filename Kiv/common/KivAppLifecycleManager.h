#pragma once

/// Measures launches and active periods. Records nothing yet.
class KivAppLifecycleManager {
 public:
  static KivAppLifecycleManager& sharedManager() noexcept {
    static auto& manager = *new KivAppLifecycleManager;
    return manager;
  }

  void start() noexcept {}

 private:
  KivAppLifecycleManager() noexcept = default;
  ~KivAppLifecycleManager() = delete;
};
