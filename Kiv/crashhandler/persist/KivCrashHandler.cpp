#include "Kiv/crashhandler/persist/KivCrashHandler.h"

#include <utility>

#include "Core/Files/SpareDescriptor.h"
#include "Kiv/blockmonitor/KivBlockMonitorManager.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/KivSharedNames.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/compat/KivCustomizedException.h"
#include "Kiv/crashhandler/bughandler/ImageWatch.h"
#include "Kiv/crashhandler/bughandler/JournalKeeper.h"
#include "Kiv/crashhandler/bughandler/KivNSExpHandler.h"
#include "Kiv/crashhandler/bughandler/KivSigHandler.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/UserDefaults.h"
#include "Platform/RunLoop/DispatchQueue.h"
#include "Platform/RunLoop/RunLoop.h"
#include "Platform/Security/Keychain.h"

namespace {

constexpr double kGuardInterval = 2.0;
constexpr unsigned kGuardTicks = 10;

/// Lifecycle events after which the handlers are looked at: resigned active, will become active.
bool isGuardedEvent(const core::Value& event) noexcept {
  const auto number = event.asInteger();
  return number == 1 || number == 2;
}

/// What the crash path uses must be there: it may not make anything.
void touchSingletons() noexcept {
  platform::UserDefaults::standard();
  platform::NotificationCenter::defaultCenter();
  platform::Bundle::main();
  platform::Keychain::standard();
  KivBlockMonitorManager::sharedManager();
}

}  // namespace

KivCrashHandler& KivCrashHandler::sharedInstance() noexcept {
  static auto& handler = *new KivCrashHandler;
  return handler;
}

void KivCrashHandler::installHandler() noexcept {
  enabled_ = true;
  CrashHandling::setCurrent(*this);
  KivStackCollector::sharedInstance().prepare();
  core::SpareDescriptor::prepare();
  KivFilePersistHandler& store = KivFilePersistHandler::sharedInstance();
  JournalKeeper::start(store.folderPath());
  changeSettings([](CrashSettings&) {});
  store.onLoad([] { sharedInstance().recoverCrashes(); });
  touchSingletons();
  KivSigHandler::sharedInstance().install();
  KivNSExpHandler::sharedInstance().install();
  const auto result = [](bool installed) { return installed ? "SUCCESS" : "FAILED"; };
  kiv_log_always("<KIV> Install exception handler %@, signal handler %@",
                 result(KivNSExpHandler::sharedInstance().checkHandler()),
                 result(KivSigHandler::sharedInstance().checkHandler()));
  startGuard();
  platform::DispatchQueue::global().async([] { KivModelBase::getDefualtAnaModel().resolveAll(); });
  ImageWatch::start();
}

void KivCrashHandler::startGuard() noexcept {
  static const auto observer = platform::NotificationCenter::defaultCenter().addObserver(
      KivApplicationLifecycleChangedNotification, [this](const platform::Notification& notification) {
        if (isGuardedEvent(notification.object)) {
          protectHandler(nullptr);
        }
      });
  static_cast<void>(observer);
  checkerCount_ = 0;
  platform::RunLoop::current().addTimer(kGuardInterval, true,
                                        [this](platform::Timer& timer) { protectHandler(&timer); });
}

void KivCrashHandler::uninstallHandler() noexcept {
  enabled_ = false;
  ImageWatch::stop();
  kiv_log_info("Uninstall crash handler.");
  KivNSExpHandler::sharedInstance().uninstall();
  KivSigHandler::sharedInstance().uninstall();
}

void KivCrashHandler::protectHandler(const platform::Timer* timer) noexcept {
  if (!enabled_) {
    if (timer != nullptr) {
      timer->invalidate();
    }
    return;
  }
  if (timer != nullptr && ++checkerCount_ >= kGuardTicks) {
    timer->invalidate();
  }
  const core::Lock lock(mutex_);
  if (!KivSigHandler::sharedInstance().checkHandler()) {
    kiv_log_info("Resume [ Signal Handler ]");
    KivSigHandler::sharedInstance().reset();
  }
  if (!KivNSExpHandler::sharedInstance().checkHandler()) {
    kiv_log_info("Resume [ NSException Handler ]");
    KivNSExpHandler::sharedInstance().install();
  }
}

void KivCrashHandler::setCrashAccidentHappen(bool happened) noexcept {
  crashAccidentHappen_ = happened;
  if (happened) {
    platform::NotificationCenter::defaultCenter().post(KivAppDidCrashedNotification);
    platform::UserDefaults& defaults = platform::UserDefaults::standard();
    defaults.setObject(KivDidCrashLastSession, core::Value(true));
    defaults.synchronize();
  }
}

void KivCrashHandler::stopStallMonitor() noexcept {
  KivBlockMonitorManager::sharedManager().toggleBlockMonitor(false);
}

template <class Change>
void KivCrashHandler::changeSettings(Change&& change) noexcept {
  settings_.update(change);
  JournalKeeper::keepSettings([](JournalFieldWriter& writer) { writer.put(sharedInstance().settings_.get()); });
}

void KivCrashHandler::setExpMergeUpload(bool merge) noexcept {
  mergeExp_ = merge;
  userSetMerge_ = true;
  changeSettings([this](CrashSettings& settings) { settings.mergesEqual = isExpMergeUpload(); });
}

void KivCrashHandler::setExpMergeStrategy(bool merge) noexcept {
  serverMerge_ = merge;
  changeSettings([this](CrashSettings& settings) { settings.mergesEqual = isExpMergeUpload(); });
}

void KivCrashHandler::setAttachLog(core::String log) noexcept {
  changeSettings(
      [&](CrashSettings& settings) { settings.attachLog = core::firstCharacters(log, CrashSettings::kMostAttachLog); });
}

void KivCrashHandler::setExcludeShortNames(Names names) noexcept {
  changeSettings([&](CrashSettings& settings) { settings.excludeShortNames = std::move(names); });
}

void KivCrashHandler::setIncludeShortNames(Names names) noexcept {
  changeSettings([&](CrashSettings& settings) { settings.includeShortNames = std::move(names); });
}

void KivCrashHandler::registCrashListerner(KivCrashListener* listener) noexcept {
  crashListeners_.update([listener](core::Array<KivCrashListener*>& listeners) {
    if (listener != nullptr && !listeners.contains(listener)) {
      listeners.append(listener);
    }
  });
}

core::Array<core::String> KivCrashHandler::backtrace(int unused, unsigned skip) noexcept {
  return KivCustomizedException::backtrace(unused, skip);
}
