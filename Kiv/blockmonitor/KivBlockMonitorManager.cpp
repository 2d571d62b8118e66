#include "Kiv/blockmonitor/KivBlockMonitorManager.h"

KivBlockMonitorManager& KivBlockMonitorManager::sharedManager() noexcept {
  static auto& manager = *new KivBlockMonitorManager;
  return manager;
}
