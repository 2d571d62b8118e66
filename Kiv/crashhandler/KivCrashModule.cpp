#include "Kiv/crashhandler/KivCrashModule.h"

#include <utility>

#include "Core/Kernel/Process.h"
#include "Kiv/blockmonitor/KivBlockMonitorManager.h"
#include "Kiv/common/KivInfo.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/KivProtocolDataRegister.h"
#include "Kiv/common/KivSharedNames.h"
#include "Kiv/common/model/KivRequestPackage.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/network/KivCrashUploadHandler.h"
#include "Kiv/crashhandler/persist/KivCrashHandler.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"

namespace {

constexpr std::int32_t kStrategyResponse = 510;
constexpr double kStallMonitorDelay = 5.0;
constexpr double kExitCheckDelay = 2.0;
constexpr std::int64_t kNewForegroundAfter = 1000;

KivFilePersistHandler& store() noexcept {
  return KivFilePersistHandler::sharedInstance();
}

std::int64_t currentMilliseconds() noexcept {
  return core::wallClockNanoseconds() / 1'000'000;
}

}  // namespace

KivCrashModule& KivCrashModule::sharedInstance() noexcept {
  static auto& module = *new KivCrashModule;
  return module;
}

KivCrashModule::KivCrashModule() noexcept {
  KivProtocolDataRegister::sharedInstance().registResponseObjectType(KivModelClass::of<KivLocalStrategy>(),
                                                                     kStrategyResponse);
  KivRequestPackage::setStrategyTimeSource([]() noexcept -> std::int64_t {
    const auto strategy = sharedInstance().localStrategy();
    return strategy ? strategy->strategylastUpdateTime : 0;
  });
}

bool KivCrashModule::turn(bool on) noexcept {
  const core::Lock lock(mutex_);
  return enabled_.exchange(on) != on;
}

void KivCrashModule::enableModule() noexcept {
  if (turn(true)) {
    startCapture();
  }
}

void KivCrashModule::disableModule() noexcept {
  if (turn(false)) {
    stopCapture();
  } else {
    kiv_log_info("crash module already uninstalled");
  }
}

bool KivCrashModule::checkAndEnable(bool mayEnable) noexcept {
  bool wanted = false;
  {
    const core::Lock lock(mutex_);
    const auto strategy = localStrategy();
    wanted = userEnabled_ && strategy && strategy->enable;
    if (wanted == enabled_ || (wanted && !mayEnable)) {
      return false;
    }
    enabled_ = wanted;
  }
  if (wanted) {
    startCapture();
  } else {
    stopCapture();
  }
  return true;
}

void KivCrashModule::startCapture() noexcept {
  KivCrashHandler& handler = KivCrashHandler::sharedInstance();
  handler.installHandler();
  auto& center = platform::NotificationCenter::defaultCenter();
  center.removeObserver(observer_.exchange(center.addObserver(
      KivApplicationLifecycleChangedNotification,
      [this](const platform::Notification& notification) { didReceiveAppLifeCycleEvent(notification); })));
  handler.registCrashListerner(&KivCrashUploadHandler::sharedInstance());
  surroundings_.global->async([this] { startUp(); });
  surroundings_.main->asyncAfter(kStallMonitorDelay, [] { KivBlockMonitorManager::sharedManager().start(); });
}

void KivCrashModule::stopCapture() noexcept {
  KivCrashHandler::sharedInstance().uninstallHandler();
  platform::NotificationCenter::defaultCenter().removeObserver(observer_.exchange(0));
  kiv_log_info("crash module is disable");
}

void KivCrashModule::startUp() noexcept {
  if (initialised_.exchange(true)) {
    kiv_log_warn("Sdk crash module has been initialized");
    return;
  }
  fetchCrashStrategyFormDB();
  if (hasLocalDB_) {
    // A program that has uninstalled the reporter by now is not to find it installed again.
    checkAndEnable(false);
    if (!enabled_) {
      kiv_log_warn("Sdk crash module is DISABLE");
      return;
    }
    kiv_log_info("Sdk crash module is ENABLE");
  }
  started_ = true;
  store().loadAllDatas();
  store().deleteAllInvalidCrashes();
  checkUnexpectedExit();
}

void KivCrashModule::didReceiveAppLifeCycleEvent(const platform::Notification&) noexcept {
  switch (KivInfo::sharedInfo().lastEvent()) {
    case KivInfo::kDidEnterBackground:
    case KivInfo::kWillTerminate:
      KivModelBase::getDefualtAnaModel().persistAllKey();
      store().persistAllUserInfoDatas();
      leavingAppSafely();
      break;
    case KivInfo::kWillEnterForeground:
      surroundings_.main->asyncAfter(kExitCheckDelay, [this] { checkUnexpectedExit(); });
      break;
    default:
      break;
  }
}

void KivCrashModule::appEnterForeground() noexcept {
  const core::Lock lock(mutex_);
  kiv_log_info(" %s", "appEnterForeground");
  const std::int64_t now = currentMilliseconds();
  KivModelBase& model = KivModelBase::getDefualtAnaModel();
  model.setResumeTime(now);
  model.setLastRecordTime(now);
  if (now - std::exchange(lastForeground_, now) >= kNewForegroundAfter) {
    appKivResumed();
  }
}

void KivCrashModule::appEnterBackground() noexcept {
  const core::Lock lock(mutex_);
  kiv_log_info(" %s", "appEnterBackground");
  const std::int64_t now = currentMilliseconds();
  KivModelBase& model = KivModelBase::getDefualtAnaModel();
  model.setBackGroundTime(now);
  model.setLastRecordTime(now);
  if (model.resumeTime() == 0) {
    model.setResumeTime(model.startTime());
  }
  appKivEnterBack();
}
