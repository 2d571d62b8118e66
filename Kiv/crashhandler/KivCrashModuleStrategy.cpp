// The crash module's dealings with the server: the strategy, the addresses that it names, and the
// summaries that tell of a change of the user.

#include "Core/Kernel/Process.h"
#include "Kiv/blockmonitor/KivBlockMonitorConfigManager.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/network/KivCollectEndpoint.h"
#include "Kiv/common/utils/KivLog.h"
#include "Kiv/crashhandler/KivCrashModule.h"
#include "Kiv/crashhandler/KivSummaryInfoHandler.h"
#include "Kiv/crashhandler/persist/KivCrashHandler.h"
#include "Kiv/crashhandler/persist/KivFilePersistHandler.h"

namespace {

using Text = KivLocalStrategy::Text;

constexpr Text KivLocalStrategy::*kUrls[] = {&KivLocalStrategy::url, &KivLocalStrategy::expUrl,
                                             &KivLocalStrategy::httpsUrl, &KivLocalStrategy::httpsExpUrl};
constexpr std::string_view kMergeKey = "isMerge";
constexpr std::int8_t kUserChange = 4;

KivFilePersistHandler& store() noexcept {
  return KivFilePersistHandler::sharedInstance();
}

bool isWebAddress(const Text& url) noexcept {
  constexpr std::string_view kScheme = "HTTP";
  return url && core::uppercased(url->view().substr(0, kScheme.size())) == kScheme;
}

void configureStallMonitor(const KivLocalStrategy& strategy, bool effectiveImmediately) noexcept {
  KivBlockMonitorConfigManager::sharedManager().updateStrategy(strategy.valueMap, effectiveImmediately);
}

/// The address where it has the scheme, else "". The placeholder, which strategies stored by earlier
/// runs may name, means the endpoint of this run.
core::String addressOf(const Text& url, std::string_view scheme) noexcept {
  const core::String address =
      url == core::String(KivCollectEndpoint::kPlaceholder) ? KivCollectEndpoint::url() : url.value_or(core::String());
  return address.view().starts_with(scheme) ? address : core::String();
}

}  // namespace

bool KivCrashModule::fetchCrashStrategyFormDB() noexcept {
  if (localStrategy()) {
    return false;
  }
  const KivLocalStrategy stored = store().loadCommonStrategyFile();
  const bool taken = localStrategy_.update([&](std::optional<KivLocalStrategy>& inForce) {
    const bool isFree = !inForce;  // a response may have been faster
    if (isFree) {
      inForce = stored;
    }
    return isFree;
  });
  if (taken) {
    hasLocalDB_ = true;
    configureStallMonitor(stored, false);
  }
  return taken;
}

bool KivCrashModule::processStrategy(const KivLocalObjInitWithZemProtocol* received) noexcept {
  const auto* const sent = dynamic_cast<const KivLocalStrategy*>(received);
  if (sent == nullptr) {
    return false;
  }
  KivLocalStrategy strategy = *sent;
  const std::optional<KivLocalStrategy> inForce = localStrategy();
  for (const auto url : kUrls) {
    if (!isWebAddress(strategy.*url)) {
      strategy.*url = inForce ? (*inForce).*url : std::nullopt;
    }
  }
  if (inForce && strategy.isEqual(*inForce)) {
    configureStallMonitor(*inForce, true);
    return true;
  }
  localStrategy_.set(strategy);
  hasLocalDB_ = true;
  if (const core::Value* merge = strategy.valueMap.find(kMergeKey)) {
    KivCrashHandler::sharedInstance().setExpMergeStrategy(merge->string() != nullptr && *merge->string() == "true");
  }
  configureStallMonitor(strategy, true);
  kiv_log_info("sdk reloaded remote strategy, %@", strategy.description());
  store().saveCommonStrategy(std::move(strategy));
  checkAndEnable();
  return true;
}

void KivCrashModule::cleanLocalStrategy() noexcept {
  store().deleteCommonStrategy();
  localStrategy_.set(std::nullopt);
  fetchCrashStrategyFormDB();
}

core::String KivCrashModule::localUrl() const noexcept {
  return KivCollectEndpoint::url();
}

core::String KivCrashModule::strategyUrl(int kind) const noexcept {
  const std::optional<KivLocalStrategy> strategy = localStrategy();
  if (!strategy) {
    return {};
  }
  core::String url;
  if (kind == kException) {
    url = atsEnabled_ ? addressOf(strategy->httpsExpUrl, "https:") : addressOf(strategy->expUrl, "http:");
  }
  if (url.empty()) {
    url = atsEnabled_ ? addressOf(strategy->httpsUrl, "https:") : addressOf(strategy->url, "http:");
  }
  return url;
}

core::String KivCrashModule::targetUrl(int kind) const noexcept {
  core::String url = strategyUrl(kind);
  const core::String local = localUrl();
  const auto areOf = [&](std::string_view localScheme, std::string_view scheme) {
    return local.view().starts_with(localScheme) && url.view().starts_with(scheme);
  };
  return url.empty() || areOf("http:", "https:") || areOf("https:", "http:") ? local : url;
}

// The store and the reporter are called without the lock: they have locks of their own.
void KivCrashModule::insertUserChangeSm() noexcept {
  if (!enabled_ || !started_) {
    return;
  }
  std::optional<KivSummaryInfo> summary;
  {
    const core::Lock lock(mutex_);
    kiv_log_info("create one summary info for user change");
    const std::int64_t seconds = core::wallClockNanoseconds() / 1'000'000'000;
    summary = creatSummaryInfo(kUserChange, seconds * 1000);
  }
  if (summary) {
    store().saveOneData(*summary);
    KivSummaryInfoHandler::sharedHandler().startReport(true, nullptr);
  }
}

std::optional<KivSummaryInfo> KivCrashModule::creatSummaryInfo(std::int8_t startType,
                                                               std::int64_t time) const noexcept {
  if (!enabled_ && (hasLocalDB_ || hasSyncServer_)) {
    kiv_log_warn("server startegy closed Crash module, will not create");
    return std::nullopt;
  }
  const KivModelBase& model = KivModelBase::getDefualtAnaModel();
  KivSummaryInfo summary;
  summary.time = time + model.serverTimeDelta();
  summary.startTime = summary.time;
  summary.startType = startType;
  summary.userid = model.userid();
  summary.proc = model.processName();
  summary.sessionId = model.sessionId();
  return summary;
}
