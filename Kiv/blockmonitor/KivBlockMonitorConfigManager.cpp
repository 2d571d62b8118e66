#include "Kiv/blockmonitor/KivBlockMonitorConfigManager.h"

KivBlockMonitorConfigManager& KivBlockMonitorConfigManager::sharedManager() noexcept {
  static auto& manager = *new KivBlockMonitorConfigManager;
  return manager;
}
