#include "Kiv/common/KivModelBase.h"

#include "Core/Kernel/Process.h"
#include "Kiv/common/KivPersistedKeys.h"
#include "Kiv/common/utils/KivBundleUtil.h"
#include "Kiv/common/utils/KivDeviceUtil.h"
#include "Kiv/common/utils/KivLog.h"
#include "Platform/Foundation/HostInfo.h"
#include "Platform/Foundation/UserDefaults.h"

namespace {

using Text = KivModelBase::Text;

constexpr std::string_view kAppIdKey = "ana_appid_key";
constexpr std::string_view kStrategyStatusKey = "ana_strategy_status_key";
constexpr std::string_view kVorinKey = "ana_vorin";
constexpr std::string_view kVersionKey = "ana_ver_hash";

// The build system may replace the token; as long as it has not, the plain version holds.
constexpr std::string_view kVersionToken = "<SDK_VERSION>";
constexpr std::string_view kLibraryVersion = kVersionToken == "2.2.1.5" ? "2.4.1" : "2.2.1.5";

constexpr std::size_t kExtraKeyLimit = 128;
constexpr std::size_t kExtraValueLimit = 256;
constexpr std::size_t kExtraCountLimit = 20;

constexpr std::int64_t kSecondsFrom1970To2001 = 978307200;

core::String bundleVersionText() noexcept {
  Text text = KivBundleUtil::getBundleShortVer();
  if (text && text->empty()) {
    text.reset();
  }
  if (const Text build = KivBundleUtil::getBundleVersion(); build && !build->empty()) {
    text = text ? core::kiv_format("%@(%@)", *text, *build) : core::kiv_format("%@", *build);
  }
  return core::kiv_format("%@", text);
}

Text textOf(const std::optional<core::Value>& value) noexcept {
  const core::String* text = value ? value->string() : nullptr;
  return text != nullptr ? Text(*text) : std::nullopt;
}

/// The property's text, made by `make` at the first question.
template <class Make>
Text lazily(core::Published<Text>& property, Make&& make) noexcept {
  if (Text text = property.get()) {
    return text;
  }
  Text made = make();
  property.set(made);
  return made;
}

template <class Make>
std::int64_t lazily(std::atomic<std::int64_t>& property, std::int64_t unset, Make&& make) noexcept {
  if (const std::int64_t value = property.load(std::memory_order_relaxed); value != unset) {
    return value;
  }
  const std::int64_t made = make();
  property.store(made, std::memory_order_relaxed);
  return made;
}

}  // namespace

KivModelBase& KivModelBase::getDefualtAnaModel() noexcept {
  static auto& model = *new KivModelBase;
  return model;
}

KivModelBase::KivModelBase() noexcept {
  const std::int64_t now = core::wallClockNanoseconds();
  const std::int64_t seconds = now / 1'000'000'000;
  startTime_ = seconds * 1000;
  platformId_ = 4;
  sdkVersion_.set(kLibraryVersion);
  gatewayIP_.set("Unknown");
  userid_.set("Unknown");
  bundleId_.set(KivBundleUtil::getBundleId());
  appVersion_.set(bundleVersionText());
  sessionId_.set(core::kiv_format("%.0f", static_cast<double>(now) / 1e9 - double{kSecondsFrom1970To2001}));
  pIdentity_.set(KivBundleUtil::getOrvCIBuildUUID());
  hardwareModel_.set(KivDeviceUtil::model());
  osVerFloat_ = KivDeviceUtil::getOSVerFloat();
  osVer_.set(core::kiv_format("Mac OS X %@", KivDeviceUtil::getOSVersion()));
  setAppId(textOf(getKey(kAppIdKey)));
  setStrategyStatus(textOf(getKey(kStrategyStatusKey)));
  isReet_ = KivDeviceUtil::isReet();
}

void KivModelBase::persistKey(std::string_view key, std::optional<core::Value> value) noexcept {
  if (key.data() != nullptr && value) {
    KivPersistedKeys::shared().set(key, *std::move(value));
    KivPersistedKeys::shared().write();
  }
}

void KivModelBase::setKey(std::string_view key, std::optional<core::Value> value) noexcept {
  if (key.data() != nullptr && value) {
    KivPersistedKeys::shared().set(key, *std::move(value));
  }
}

void KivModelBase::unSetKey(std::string_view key) noexcept {
  KivPersistedKeys::shared().unset(key);
}

std::optional<core::Value> KivModelBase::getKey(std::string_view key) const noexcept {
  return KivPersistedKeys::shared().get(key);
}

void KivModelBase::persistAllKey() noexcept {
  KivPersistedKeys::shared().write();
}

void KivModelBase::initBundleFile() noexcept {
  KivPersistedKeys::shared().load();
}

bool KivModelBase::resetBundlePath(std::string_view directory) noexcept {
  return !directory.empty() && KivPersistedKeys::shared().resetDirectory(directory);
}

core::ValueDictionary KivModelBase::kivBundleData() const noexcept {
  return KivPersistedKeys::shared().all();
}

Text KivModelBase::getVersionHash() const noexcept {
  return textOf(getKey(kVersionKey));
}

void KivModelBase::saveVersionHash(const Text& version) noexcept {
  if (version) {
    persistKey(kVersionKey, core::Value(*version));
  }
}

void KivModelBase::checkVer() noexcept {
  const core::Lock lock(mutex_);
  if (!localVer_) {
    localVer_ = getVersionHash();
  }
  const core::String version = appVersion();
  if (localVer_ == version) {
    return;
  }
  verChanged_ = true;
  kiv_log_warn("local version %@ change to the new version %@", localVer_, version);
  setKey(kVersionKey, core::Value(version));
  if (!KivPersistedKeys::shared().writeNow()) {
    kiv_log_error("cannot write %@", KivPersistedKeys::shared().path());
  }
  localVer_ = getVersionHash();
}

void KivModelBase::addExtraValue(const Text& value, const Text& key) noexcept {
  if (!value || !key || key->characters() > kExtraKeyLimit || value->characters() > kExtraValueLimit) {
    return;
  }
  extras_.update([&](core::Dictionary<core::String>& extras) {
    if (extras.size() < kExtraCountLimit) {
      extras.set(core::kiv_format("%@SDK_%@", "C04_", *key), *value);
    }
  });
  changed_.call();
}

void KivModelBase::removeExtraValueForKey(std::string_view key) noexcept {
  extras_.update([&](core::Dictionary<core::String>& extras) { extras.remove(key); });
  changed_.call();
}

void KivModelBase::removeAllExtraValues() noexcept {
  change(extras_, {});
}

core::String KivModelBase::componentInfos() const noexcept {
  core::StringBuilder text;
  if (const auto components = platform::UserDefaults::standard().dictionary("ZephySDKInfos")) {
    for (const auto& [key, value] : *components) {
      core::kiv_append(text, "[%@,%@] ", key, value);
    }
  }
  return text.str();
}

void KivModelBase::setAppId(Text value) noexcept {
  const Text old = appId();
  if (old == value) {
    return;
  }
  if (old && !old->empty()) {
    verChanged_ = true;
  }
  if (value) {
    persistKey(kAppIdKey, core::Value(*value));
  }
  change(appId_, std::move(value));
}

void KivModelBase::setStrategyStatus(Text value) noexcept {
  if (strategyStatus() == value) {
    return;
  }
  change(strategyStatus_, value);
  if (value) {
    persistKey(kStrategyStatusKey, core::Value(*value));
  } else {
    unSetKey(kStrategyStatusKey);
  }
}

Text KivModelBase::vorin() const noexcept {
  return lazily(vorin_, [] { return KivBundleUtil::getVorin().value_or(core::String()); });
}

void KivModelBase::setVorin(Text value) noexcept {
  if (vorin_.get() == value) {
    return;
  }
  change(vorin_, value);
  if (value) {
    persistKey(kVorinKey, core::Value(*value));
    KivBundleUtil::saveVorin(value);
  }
}

Text KivModelBase::openudid() const noexcept {
  return lazily(openudid_, [] { return KivBundleUtil::getAnaOpenUdid().value_or(core::String()); });
}

Text KivModelBase::country() const noexcept {
  return lazily(country_, [] { return platform::localeCountry().value_or(core::String()); });
}

Text KivModelBase::language() const noexcept {
  return lazily(language_, [] { return platform::localeLanguage().value_or(core::String()); });
}

Text KivModelBase::cpuArch() const noexcept {
  return lazily(cpuArch_, KivDeviceUtil::getCPUArchName);
}

std::int64_t KivModelBase::diskSize() const noexcept {
  return lazily(diskSize_, 0, [] { return static_cast<std::int64_t>(KivDeviceUtil::getTotalSpace()); });
}

std::int64_t KivModelBase::memSize() const noexcept {
  return lazily(memSize_, 0, KivDeviceUtil::getTotalMemorySize);
}

std::int64_t KivModelBase::processId() const noexcept {
  return lazily(processId_, 0, KivDeviceUtil::getProcessId);
}

Text KivModelBase::processName() const noexcept {
  return lazily(processName_, KivDeviceUtil::getProcessName);
}

std::int64_t KivModelBase::parentProcId() const noexcept {
  return lazily(parentProcId_, -1, [] { return std::max<std::int64_t>(KivDeviceUtil::getParentProcessId(), 0); });
}

Text KivModelBase::parentProcName() const noexcept {
  return lazily(parentProcName_, KivDeviceUtil::getParentProcessName);
}

core::Dictionary<core::String> KivModelBase::executableInfo() const noexcept {
  if (const auto held = executableInfo_.get()) {
    return *held;
  }
  auto made = KivDeviceUtil::executableInfo().value_or(core::Dictionary<core::String>());
  executableInfo_.set(made);
  return made;
}

Text KivModelBase::executableUUID() const noexcept {
  return lazily(executableUUID_, [this] { return factOfExecutable("UUID"); });
}

Text KivModelBase::executableArch() const noexcept {
  return lazily(executableArch_, [this] { return factOfExecutable("Arch"); });
}

Text KivModelBase::executableBaseAddress() const noexcept {
  return lazily(executableBaseAddress_, [this] { return factOfExecutable("BaseAddress"); });
}

core::String KivModelBase::factOfExecutable(std::string_view key) const noexcept {
  const core::Dictionary<core::String> info = executableInfo();
  const core::String* fact = info.find(key);
  return fact != nullptr ? *fact : core::String();
}

void KivModelBase::resolveAll() const noexcept {
  vorin();
  openudid();
  country();
  language();
  cpuArch();
  diskSize();
  memSize();
  processId();
  processName();
  parentProcId();
  parentProcName();
  executableUUID();
  executableArch();
  executableBaseAddress();
  KivDeviceUtil::getFreeSpace();  // where that is measured must be known by the time of a crash
  changed_.call();
}
