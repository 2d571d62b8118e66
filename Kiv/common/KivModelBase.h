#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "Core/Memory/ChangeHook.h"
#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Core/PropertyList/Value.h"

/// Who and what is reporting: application, device, process, the session's clock values, and
/// the keys that outlive the process. One a process, made on first use and never destroyed.
///
/// Every record takes its common fields from here. Any thread reads and writes; readers
/// include the crash path, so texts are published. Times are milliseconds since 1970.
class KivModelBase {
 public:
  using Text = std::optional<core::String>;

  static KivModelBase& getDefualtAnaModel() noexcept;

  KivModelBase(const KivModelBase&) = delete;
  KivModelBase& operator=(const KivModelBase&) = delete;

  // The persisted key/value file.
  void persistKey(std::string_view key, std::optional<core::Value> value) noexcept;
  void setKey(std::string_view key, std::optional<core::Value> value) noexcept;
  void unSetKey(std::string_view key) noexcept;
  std::optional<core::Value> getKey(std::string_view key) const noexcept;
  void persistAllKey() noexcept;
  void initBundleFile() noexcept;
  bool resetBundlePath(std::string_view directory) noexcept;
  core::ValueDictionary kivBundleData() const noexcept;

  // Version changes. checkVer() returns when a changed version is in the file: a crash right
  // after it must not look like another change at the next launch.
  Text getVersionHash() const noexcept;
  void saveVersionHash(const Text& version) noexcept;
  void checkVer() noexcept;
  bool isVersionChanged() const noexcept { return verChanged_.load(std::memory_order_relaxed); }

  // SDK information that travels with every report.
  void addExtraValue(const Text& value, const Text& key) noexcept;
  void removeExtraValueForKey(std::string_view key) noexcept;
  void removeAllExtraValues() noexcept;
  core::Dictionary<core::String> extras() const noexcept { return extras_.get(); }

  /// Called after whatever of the model's own values was set or made.
  void onChange(void (*changed)()) noexcept { changed_.set(changed); }

  /// Makes now what is otherwise made when it is first asked for: identifiers, facts of machine and
  /// process. For a background thread at installation, so that a crash finds all of it there.
  void resolveAll() const noexcept;
  /// The identifiers as far as they are made: whoever cannot wait for the keychain asks for these.
  Text knownVorin() const noexcept { return vorin_.get(); }
  Text knownOpenudid() const noexcept { return openudid_.get(); }

  /// "[key,value] " of each other reporting component of the process, "" for none.
  core::String componentInfos() const noexcept;

  // Application.
  Text appId() const noexcept { return appId_.get(); }
  void setAppId(Text value) noexcept;
  core::String appVersion() const noexcept { return appVersion_.get(); }
  void setAppVersion(core::String value) noexcept { change(appVersion_, std::move(value)); }
  Text bundleId() const noexcept { return bundleId_.get(); }
  void setBundleId(Text value) noexcept { change(bundleId_, std::move(value)); }
  Text pIdentity() const noexcept { return pIdentity_.get(); }
  void setPIdentity(Text value) noexcept { change(pIdentity_, std::move(value)); }
  Text channel() const noexcept { return channel_.get(); }
  void setChannel(Text value) noexcept { change(channel_, std::move(value)); }
  core::String sdkVersion() const noexcept { return sdkVersion_.get(); }
  void setSdkVersion(core::String value) noexcept { change(sdkVersion_, std::move(value)); }
  std::int32_t platformId() const noexcept { return platformId_; }
  void setPlatformId(std::int32_t value) noexcept { change(platformId_, value); }
  Text strategyStatus() const noexcept { return strategyStatus_.get(); }
  void setStrategyStatus(Text value) noexcept;
  bool isATSAllowsArbitraryLoads() const noexcept { return isATSAllowsArbitraryLoads_; }
  void setIsATSAllowsArbitraryLoads(bool value) noexcept { change(isATSAllowsArbitraryLoads_, value); }

  // User and device.
  Text userid() const noexcept { return userid_.get(); }
  void setUserid(Text value) noexcept { change(userid_, std::move(value)); }
  Text vorin() const noexcept;
  void setVorin(Text value) noexcept;
  Text gatewayIP() const noexcept { return gatewayIP_.get(); }
  void setGatewayIP(Text value) noexcept { change(gatewayIP_, std::move(value)); }
  Text openudid() const noexcept;
  void setOpenudid(Text value) noexcept { change(openudid_, std::move(value)); }
  Text idfv() const noexcept { return idfv_.get(); }
  void setIdfv(Text value) noexcept { change(idfv_, std::move(value)); }
  Text osVer() const noexcept { return osVer_.get(); }
  void setOsVer(Text value) noexcept { change(osVer_, std::move(value)); }
  float osVerFloat() const noexcept { return osVerFloat_; }
  void setOsVerFloat(float value) noexcept { change(osVerFloat_, value); }
  Text hardwareModel() const noexcept { return hardwareModel_.get(); }
  void setHardwareModel(Text value) noexcept { change(hardwareModel_, std::move(value)); }
  bool isReet() const noexcept { return isReet_; }
  void setIsReet(bool value) noexcept { change(isReet_, value); }
  Text country() const noexcept;
  void setCountry(Text value) noexcept { change(country_, std::move(value)); }
  Text language() const noexcept;
  void setLanguage(Text value) noexcept { change(language_, std::move(value)); }
  Text cpuArch() const noexcept;
  void setCpuArch(Text value) noexcept { change(cpuArch_, std::move(value)); }
  std::int64_t diskSize() const noexcept;
  void setDiskSize(std::int64_t value) noexcept { change(diskSize_, value); }
  std::int64_t memSize() const noexcept;
  void setMemSize(std::int64_t value) noexcept { change(memSize_, value); }

  // Process.
  std::int64_t processId() const noexcept;
  void setProcessId(std::int64_t value) noexcept { change(processId_, value); }
  Text processName() const noexcept;
  void setProcessName(Text value) noexcept { change(processName_, std::move(value)); }
  std::int64_t parentProcId() const noexcept;
  void setParentProcId(std::int64_t value) noexcept { change(parentProcId_, value); }
  Text parentProcName() const noexcept;
  void setParentProcName(Text value) noexcept { change(parentProcName_, std::move(value)); }
  core::Dictionary<core::String> executableInfo() const noexcept;
  void setExecutableInfo(core::Dictionary<core::String> value) noexcept {
    change(executableInfo_, std::optional(std::move(value)));
  }
  Text executableUUID() const noexcept;
  void setExecutableUUID(Text value) noexcept { change(executableUUID_, std::move(value)); }
  Text executableArch() const noexcept;
  void setExecutableArch(Text value) noexcept { change(executableArch_, std::move(value)); }
  Text executableBaseAddress() const noexcept;
  void setExecutableBaseAddress(Text value) noexcept { change(executableBaseAddress_, std::move(value)); }

  // Session.
  Text sessionId() const noexcept { return sessionId_.get(); }
  void setSessionId(Text value) noexcept { change(sessionId_, std::move(value)); }
  /// Server clock minus local clock.
  std::int64_t serverTimeDelta() const noexcept { return serverTimeDelta_; }
  void setServerTimeDelta(std::int64_t value) noexcept { change(serverTimeDelta_, value); }
  /// Whole seconds: the sub-second part is always 0.
  std::int64_t startTime() const noexcept { return startTime_; }
  void setStartTime(std::int64_t value) noexcept { change(startTime_, value); }
  std::int64_t lastRecordTime() const noexcept { return lastRecordTime_; }
  void setLastRecordTime(std::int64_t value) noexcept { change(lastRecordTime_, value); }
  std::int64_t backGroundTime() const noexcept { return backGroundTime_; }
  void setBackGroundTime(std::int64_t value) noexcept { change(backGroundTime_, value); }
  std::int64_t resumeTime() const noexcept { return resumeTime_; }
  void setResumeTime(std::int64_t value) noexcept { change(resumeTime_, value); }

 private:
  using TextProperty = core::Published<Text>;

  KivModelBase() noexcept;
  ~KivModelBase() = delete;
  core::String factOfExecutable(std::string_view key) const noexcept;

  template <class T>
  void change(core::Published<T>& property, T value) noexcept {
    property.set(std::move(value));
    changed_.call();
  }
  template <class T>
  void change(std::atomic<T>& property, T value) noexcept {
    property.store(value, std::memory_order_relaxed);
    changed_.call();
  }

  core::ChangeHook<> changed_;
  core::Mutex mutex_;
  Text localVer_;  // the version that the previous run left, under mutex_
  std::atomic<bool> verChanged_{false};

  TextProperty appId_, bundleId_, pIdentity_, channel_, strategyStatus_;
  TextProperty userid_, gatewayIP_, osVer_, hardwareModel_, sessionId_;
  TextProperty idfv_{core::String()};
  core::Published<core::String> appVersion_, sdkVersion_;
  core::Published<core::Dictionary<core::String>> extras_;

  // Made when first asked for, or set.
  mutable TextProperty vorin_, openudid_, country_, language_, cpuArch_, processName_, parentProcName_;
  mutable TextProperty executableUUID_, executableArch_, executableBaseAddress_;
  mutable core::Published<std::optional<core::Dictionary<core::String>>> executableInfo_;
  mutable std::atomic<std::int64_t> diskSize_{0}, memSize_{0}, processId_{0}, parentProcId_{-1};

  std::atomic<std::int32_t> platformId_;
  std::atomic<float> osVerFloat_;
  std::atomic<bool> isReet_{false};
  std::atomic<bool> isATSAllowsArbitraryLoads_{false};
  std::atomic<std::int64_t> serverTimeDelta_{0}, startTime_, lastRecordTime_{0}, backGroundTime_{0}, resumeTime_{0};
};
