#include "Kiv/crashhandler/CrashReporter.h"

#include <signal.h>

#include "Kiv/blockmonitor/KivBlockMonitorConfigManager.h"
#include "Kiv/blockmonitor/KivBlockMonitorManager.h"
#include "Kiv/common/KivAppLifecycleManager.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/network/KivCollectEndpoint.h"
#include "Kiv/common/utils/KivDebugger.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/CrashReporterState.h"
#include "Kiv/crashhandler/KivCrashModule.h"
#include "Kiv/crashhandler/bughandler/JournalKeeper.h"
#include "Kiv/crashhandler/bughandler/KivNSExpHandler.h"
#include "Kiv/crashhandler/bughandler/KivSigHandler.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Kiv/crashhandler/network/KivCrashUploadHandler.h"
#include "Kiv/crashhandler/persist/KivCrashHandler.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/NSException.h"
#include "Platform/RunLoop/DispatchQueue.h"

namespace {

constexpr std::int32_t kLogOn = 5;
constexpr std::int32_t kLogOff = 0;
constexpr double kStallCheckDelay = 5.0;
constexpr int kCleanedSignals[] = {SIGABRT, SIGILL, SIGSEGV, SIGFPE, SIGBUS, SIGTRAP};

KivModelBase& model() noexcept {
  return KivModelBase::getDefualtAnaModel();
}

KivCrashModule& module() noexcept {
  return KivCrashModule::sharedInstance();
}

KivCrashHandler& crashHandler() noexcept {
  return KivCrashHandler::sharedInstance();
}

/// The text of an Info.plist key when it is a text that is not blank.
std::optional<core::String> validInfo(std::string_view key) noexcept {
  std::optional<core::String> text = platform::Bundle::main().infoString(key);
  return text && CrashReporter::isValidNSString(*text) ? text : std::nullopt;
}

/// Says once what is wrong with the main bundle's Info.plist.
void warnOfUnusableBundle() noexcept {
  static const bool warned = [] {
    const auto& problem = platform::Bundle::main().infoProblem();
    if (problem) {
      kiv_log_always("<Warning> Zephy: %@", *problem);
    }
    return problem.has_value();
  }();
  static_cast<void>(warned);
}

}  // namespace

CrashReporter& CrashReporter::sharedInstance() {
  static auto& reporter = *new CrashReporter;
  return reporter;
}

CrashReporter::CrashReporter() : state_(new State) {}

bool CrashReporter::install() {
  warnOfUnusableBundle();
  const platform::Bundle& bundle = platform::Bundle::main();
  if (bundle.infoBoolean("ZephyDebugEnable")) {
    enableLog(true);
    kiv_log_info("enable Debug Log");
  }
  if (const auto channel = validInfo("ZephyAppChannelString")) {
    setChannel(*channel);
    kiv_log_info("set Channel to %@ from Info.plist", *channel);
  }
  if (const auto version = validInfo("ZephyAppVersionString")) {
    setBundleVer(*version);
    kiv_log_info("set Version to %@ from Info.plist", *version);
  }
  if (const auto appId = validInfo("ZephyAppIDString")) {
    return installWithAppId(*appId);
  }
  if (bundle.info("ZephyAppIDString") == nullptr) {
    kiv_log_always("<Warning> Zephy: Not found ZephyAppIDString field in the .plist of your project.");
  } else {
    kiv_log_always("<Warning> Zephy: ZephyAppIDString is NOT an NSString");
  }
  return false;
}

bool CrashReporter::installWithAppId(std::string_view appId) {
  return installWithAppkey(appId);
}

bool CrashReporter::installWithAppId(std::string_view appId, std::string_view applicationGroupIdentifier) {
  return installWithAppkey(appId, applicationGroupIdentifier);
}

bool CrashReporter::installWithAppkey(std::string_view appkey, std::string_view applicationGroupIdentifier) {
  setApplicationGroupIdentifier(applicationGroupIdentifier);
  return installWithAppkey(appkey);
}

bool CrashReporter::installWithAppkey(std::string_view appkey) {
  if (State::installed) {
    kiv_log_warn("sdk has been initialized");
    return false;
  }
  if (!isValidNSString(appkey)) {
    kiv_log_always("<Warning> Zephy: Invalid app id [%@]", core::optionalString(appkey));
    return false;
  }
  if (kiv_debugger_attached()) {
    kiv_log_always(
        "\n<INFO> KIV: Crash reporting service is DISABLED due to the Xcode Debugger attached."
        "\n<提醒> KIV: 检测到Xcode调试器正在工作，崩溃捕获功能将不会启动。\n");
    return false;
  }
  warnOfUnusableBundle();
  if (State::installed.exchange(true)) {
    kiv_log_warn("sdk has been initialized");
    return false;
  }
  model().setAppId(core::String(core::trimmed(appkey)));
  kiv_log_always("<KIV> Init sdk[%@] with appid:[%@], bundle:[%@, %@], device:[%@, %@]", model().sdkVersion(),
                 model().appId(), model().bundleId(), model().appVersion(), model().hardwareModel(), model().osVer());
  kiv_log_info("orv ci uuid: %@", model().pIdentity());
  model().checkVer();
  {
    const core::Lock lock(state_->installing);
    module().enableModule();
    KivCrashUploadHandler::sharedInstance().uploadCrashes();
    KivAppLifecycleManager::sharedManager().start();
    platform::DispatchQueue::global().asyncAfter(kStallCheckDelay,
                                                 [] { KivBlockMonitorManager::checkLocalDataAndReport(); });
  }
  platform::DispatchQueue::global().async([this] { checkExtensionExceptions(); });
  return true;
}

void CrashReporter::uninstall() {
  const core::Lock lock(state_->installing);
  if (!State::installed) {
    kiv_log_warn("crash reporter already uninstalled.");
    return;
  }
  kiv_log_info("crash reporter uninstalling...");
  module().disableModule();
  State::installed = false;
}

std::optional<std::string> CrashReporter::applicationGroupIdentifier() const {
  return toStandard(state_->applicationGroupIdentifier.get());
}

void CrashReporter::setApplicationGroupIdentifier(std::string_view identifier) {
  state_->applicationGroupIdentifier.set(core::optionalString(identifier));
}

void CrashReporter::enableLog(bool enable) {
  kiv_log_level.store(enable ? kLogOn : kLogOff, std::memory_order_relaxed);
}

bool CrashReporter::isValidNSString(std::string_view text) {
  return text.find_first_not_of(' ') != std::string_view::npos;
}

void CrashReporter::cleanUncaughtExceptionAndSignalHandler() {
  cleanUncaughtExceptionHandler(true, true);
}

void CrashReporter::cleanUncaughtExceptionHandler(bool exceptionHandler, bool signalHandler) {
  if (State::installed) {
    kiv_log_always("Note: You should clean the handler before initilize the sdk.");
    return;
  }
  if (exceptionHandler) {
    kiv_log_always("Note: NSSetUncaughtExceptionHandler set to NULL");
    NSSetUncaughtExceptionHandler(nullptr);
  }
  if (signalHandler) {
    kiv_log_always("Note: signal set to SIG_DFL");
    for (const int number : kCleanedSignals) {
      ::signal(number, SIG_DFL);
    }
  }
}

bool CrashReporter::setCollectUrl(std::string_view url) {
  return KivCollectEndpoint::setUrl(url);
}

void CrashReporter::enableAppTransportSecurity(bool enable) {
  module().setATSEnabled(enable);
  if (!enable) {
    kiv_log_always("<KIV> App Transport Security: %@", "DISABLE");
  }
}

void CrashReporter::enableUnexpectedTerminatingDetection(bool enable) {
  module().setAppUnexpectedTerminatingDetectionEnabled(enable);
}

void CrashReporter::setSigkillReportCallback(const char* (*callback)()) {
  module().setSigkillReportCallback(callback);
}

void CrashReporter::setBundleId(std::string_view bundleId) {
  if (!bundleId.empty()) {
    model().setBundleId(core::String(bundleId));
  }
}

void CrashReporter::setBundleVer(std::string_view version) {
  if (!version.empty()) {
    model().setAppVersion(version);
    model().checkVer();
  }
}

void CrashReporter::setChannel(std::string_view channel) {
  if (!channel.empty()) {
    model().setChannel(core::String(channel));
  }
}

void CrashReporter::setUserId(std::string_view userId) {
  if (!userId.empty() && model().userid() != core::String(userId)) {
    model().setUserid(core::String(userId));
    module().insertUserChangeSm();
  }
}

void CrashReporter::setDeviceId(std::string_view deviceId) {
  if (!deviceId.empty() && model().openudid() != core::String(deviceId)) {
    model().setOpenudid(core::String(deviceId));
    module().insertUserChangeSm();
  }
}

std::string CrashReporter::deviceIdentifier() const {
  return toStandard(model().openudid()).value_or("");
}

std::string CrashReporter::sdkVersion() const {
  return model().sdkVersion().str();
}

bool CrashReporter::resetDBPath(std::string_view path) {
  model().resetBundlePath(path);
  return KivFilePersistHandler::sharedInstance().changeDbPath(path);
}

void CrashReporter::setUserCrashHandlerCallback(int (*callback)()) {
  crashHandler().setUserCrashHandlerCallback(callback);
}

void CrashReporter::setUserMachHandler(bool use) {
  crashHandler().setUserMachHandler(use);
}

void CrashReporter::setExpMergeUpload(bool merge) {
  crashHandler().setExpMergeUpload(merge);
}

void CrashReporter::setAttachLog(std::string_view log) {
  if (log.data() != nullptr) {
    crashHandler().setAttachLog(log);
  }
}

bool CrashReporter::setExcludeShortName(const std::vector<std::string>& names) {
  crashHandler().setExcludeShortNames(toTexts(names));
  return true;
}

bool CrashReporter::setIncludeShortName(const std::vector<std::string>& names) {
  crashHandler().setIncludeShortNames(toTexts(names));
  return true;
}

bool CrashReporter::setLastCloseByIncludExclued(bool enable) {
  crashHandler().setEnableLastCloseRecord(enable);
  return true;
}

bool CrashReporter::isLastCloseByCrash() {
  return crashHandler().isLastCloseByCrash();
}

void CrashReporter::setEnableSymbolicateInProcess(bool enable) {
  KivStackCollector::sharedInstance().setNeedSymbol(enable);
  JournalKeeper::keepIdentity();
}

void CrashReporter::enableNSExceptionReporter(bool enable) {
  KivNSExpHandler::sharedInstance().enableHandler(enable);
}

void CrashReporter::enableSignalErrorReporter(bool enable) {
  KivSigHandler::sharedInstance().enableHandler(enable);
}

bool CrashReporter::checkNSExceptionHandler() {
  return KivNSExpHandler::sharedInstance().checkHandler();
}

bool CrashReporter::checkSignalHandler() {
  return KivSigHandler::sharedInstance().checkHandler();
}

bool CrashReporter::enableSignalHandlerCheckable(bool enable) {
  return KivNSExpHandler::sharedInstance().enableSignalHandlerCheck(enable);
}

bool CrashReporter::checkAndUpload() {
  return KivCrashUploadHandler::sharedInstance().uploadCrashes();
}

void CrashReporter::enableBlockMonitor(bool enable) {
  KivBlockMonitorManager::enableMonitor(enable, enable, true);
}

void CrashReporter::enableBlockMonitor(bool enable, bool autoReport) {
  KivBlockMonitorManager::enableMonitor(enable, autoReport, true);
}

void CrashReporter::setBlockMonitorJudgementLoopTimeout(double milliseconds) {
  KivBlockMonitorConfigManager::sharedManager().setUserRunloopTimeout(milliseconds);
}

void CrashReporter::setBlockMonitorRemoteStrategyIgnored(bool ignored) {
  KivBlockMonitorManager::sharedManager().setIgnoreRemoteStrategy(ignored);
}

void CrashReporter::checkBlockDataExistAndReport() {
  KivBlockMonitorManager::checkLocalDataAndReport();
}

void CrashReporter::startBlockMonitor() {
  KivBlockMonitorManager::sharedManager().toggleBlockMonitor(true);
}

void CrashReporter::stopBlockMonitor() {
  KivBlockMonitorManager::sharedManager().toggleBlockMonitor(false);
}
