#include "Kiv/crashhandler/persist/KivCrashHandler.h"

#include <nettle/md5.h>

#include <array>

#include "Core/Kernel/Process.h"
#include "Core/Text/Format.h"
#include "Core/Text/Uuid.h"
#include "Kiv/blockmonitor/KivBlockMonitorManager.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/compat/KivCustomizedException.h"
#include "Kiv/crashhandler/bughandler/CrashLogFile.h"
#include "Kiv/crashhandler/bughandler/CrashWatchdog.h"
#include "Kiv/crashhandler/bughandler/ImageWatch.h"
#include "Kiv/crashhandler/bughandler/JournalKeeper.h"
#include "Kiv/crashhandler/bughandler/KivCrashData.h"
#include "Kiv/crashhandler/bughandler/KivNSExpHandler.h"
#include "Kiv/crashhandler/bughandler/KivSigHandler.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Kiv/crashhandler/journal/CrashJournal.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Kiv/crashhandler/recovery/JournalRecovery.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/UserDefaults.h"
#include "Platform/RunLoop/DispatchQueue.h"
#include "Platform/RunLoop/RunLoop.h"
#include "Platform/Security/Keychain.h"

namespace {

constexpr std::string_view kLifecycleChanged = "KivApplicationLifecycleChangedNotification";
constexpr std::string_view kDidCrash = "com.velmora.kiv.appDidCrashedKey";
constexpr std::string_view kDidCrashLastSession = "KivDidCrashLastSession";

constexpr double kGuardInterval = 2.0;
constexpr unsigned kGuardTicks = 10;
constexpr std::int64_t kMillisecondsASecond = 1000;

/// Lifecycle events after which the handlers are looked at: resigned active, will become active.
bool isGuardedEvent(const core::Value& event) noexcept {
  const auto number = event.asInteger();
  return number == 1 || number == 2;
}

/// The stack of an exception tells more than that of the thread which ended on it.
core::String fingerprintOf(const KivCrashData& data) noexcept {
  if (data.ocThreadInfo()) {
    return data.ocThreadInfo()->getCurrThreadUUID();
  }
  return data.crashThreadInfo() ? data.crashThreadInfo()->getCurrThreadUUID() : core::String("err");
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
  CrashLogFile::prepare(KivFilePersistHandler::sharedInstance().folderPath());
  JournalKeeper::start(KivFilePersistHandler::sharedInstance().folderPath());
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
  platform::DispatchQueue::global().async([this] { recoverCrashes(); });
}

void KivCrashHandler::startGuard() noexcept {
  static const auto observer = platform::NotificationCenter::defaultCenter().addObserver(
      kLifecycleChanged, [this](const platform::Notification& notification) {
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
    platform::NotificationCenter::defaultCenter().post(kDidCrash);
    platform::UserDefaults& defaults = platform::UserDefaults::standard();
    defaults.setObject(kDidCrashLastSession, core::Value(true));
    defaults.synchronize();
  }
}

void KivCrashHandler::stopStallMonitor() noexcept {
  KivBlockMonitorManager::sharedManager().toggleBlockMonitor(false);
}

bool KivCrashHandler::crashHapped(KivCrashData* data) noexcept {
  return saveCrashData(data != nullptr ? *data : KivCrashData::expData());
}

namespace {

void callBack(int (*callback)()) noexcept {
  kiv_log_always("<KIV> Call user crash handler callback: %p", reinterpret_cast<const void*>(callback));
  if (callback != nullptr) {
    const CrashWatchdog::Limit limit(CrashWatchdog::kCallbackTime);
    callback();
  }
}

/// What is stored, or is not to be, needs no journal any more.
void settleJournal(const KivCrashData& data) noexcept {
  if (&data == &KivCrashData::expData()) {
    CrashJournal::settle(data.crashOnceMore() ? 2 : 1);
  }
}

}  // namespace

bool KivCrashHandler::saveCrashData(KivCrashData& data) noexcept {
  if (!data.type()) {
    return false;
  }
  kiv_log_info("Save crash data.");
  if (isFilteredOut(data.crashStackShortNames())) {
    settleJournal(data);
    return false;
  }
  if (!data.isCustomizedException()) {
    callBack(userCrashHandlerCallback_);
  }
  const auto log = data.crashlog();
  const bool saved = log && CrashLogFile::write(*log, data.time() / kMillisecondsASecond, core::processId());
  if (saved) {
    settleJournal(data);
  }
  kiv_log_info("Save crash data %@", saved ? "SUCCESS" : "FAIL");
  return saved;
}

// It is there already where a process, or a start that reported for it, died between saving and settling.
void KivCrashHandler::recoverCrashes() noexcept {
  JournalRecovery::run(KivFilePersistHandler::sharedInstance().folderPath(), [](const RecoveredCrash& crash) {
    const std::int64_t seconds = crash.data().time() / kMillisecondsASecond;
    const auto process = static_cast<int>(crash.identity().processId);
    return sharedInstance().isFilteredOut(crash.data().crashStackShortNames()) ||
           CrashLogFile::exists(seconds, process) ||
           CrashLogFile::write(crash.data().crashlog().value_or(core::String()), seconds, process);
  });
}

bool KivCrashHandler::isFilteredOut(const Names& stackNames) const noexcept {
  const Names included = includeShortNames_.get();
  const Names excluded = excludeShortNames_.get();
  const auto contains = [](const core::String& name, const core::String& part) {
    return name.view().find(part.view()) != std::string_view::npos;
  };
  if (!included.empty() && !stackNames.empty()) {
    bool isIncluded = false;
    for (const core::String& part : included) {
      for (const core::String& name : stackNames) {
        if (contains(name, part)) {
          kiv_log_info("crash stack contains include shortname %@, will log crash", name);
          isIncluded = true;
        }
      }
    }
    if (!isIncluded) {
      return true;
    }
  }
  for (const core::String& part : excluded) {
    for (const core::String& name : stackNames) {
      if (contains(name, part)) {
        kiv_log_warn("crash stack contains exclude shortname %@, will not log crash", name);
        return true;
      }
    }
  }
  return false;
}

core::String KivCrashHandler::hashOf(const KivCrashData& data) noexcept {
  const KivModelBase& model = KivModelBase::getDefualtAnaModel();
  const core::String identity =
      core::kiv_format("%@%@%@%@", model.appId(), model.appVersion(), data.type(), fingerprintOf(data));
  md5_ctx context;
  md5_init(&context);
  md5_update(&context, identity.size(), reinterpret_cast<const std::uint8_t*>(identity.data()));
  std::array<std::uint8_t, MD5_DIGEST_SIZE> digest;
  md5_digest(&context, digest.size(), digest.data());
  return core::lowerHex({digest.data(), digest.size()});
}

core::Array<core::String> KivCrashHandler::backtrace(int unused, unsigned skip) noexcept {
  return KivCustomizedException::backtrace(unused, skip);
}
