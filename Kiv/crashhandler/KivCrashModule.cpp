#include "Kiv/crashhandler/KivCrashModule.h"

#include <utility>

#include "Kiv/blockmonitor/KivBlockMonitorManager.h"
#include "Kiv/common/network/KivCollectEndpoint.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/persist/KivCrashHandler.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

constexpr double kStallMonitorDelay = 5.0;

}  // namespace

KivCrashModule& KivCrashModule::sharedInstance() noexcept {
  static auto& module = *new KivCrashModule;
  return module;
}

void KivCrashModule::enableModule() noexcept {
  {
    const core::Lock lock(mutex_);
    if (enabled_.exchange(true)) {
      return;
    }
  }
  KivCrashHandler::sharedInstance().installHandler();
  platform::DispatchQueue::main().asyncAfter(kStallMonitorDelay,
                                             [] { KivBlockMonitorManager::sharedManager().start(); });
}

void KivCrashModule::disableModule() noexcept {
  {
    const core::Lock lock(mutex_);
    if (!enabled_.exchange(false)) {
      kiv_log_info("crash module already uninstalled");
      return;
    }
  }
  KivCrashHandler::sharedInstance().uninstallHandler();
  kiv_log_info("crash module is disable");
}

core::String KivCrashModule::localUrl() const noexcept {
  return KivCollectEndpoint::url();
}
