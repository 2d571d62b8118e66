#include "Kiv/crashhandler/bughandler/ReporterIdentity.h"

#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/utils/KivBundleUtil.h"
#include "Kiv/crashhandler/bughandler/KivStackCollector.h"
#include "Platform/Foundation/Bundle.h"

ReporterIdentity ReporterIdentity::current(bool whole) noexcept {
  const KivModelBase& model = KivModelBase::getDefualtAnaModel();
  ReporterIdentity identity;
  identity.appId = model.appId();
  identity.appVersion = model.appVersion();
  identity.bundleId = model.bundleId();
  identity.resourcePath = platform::Bundle::main().resourcePath();
  identity.pIdentity = model.pIdentity();
  identity.sdkVersion = model.sdkVersion();
  identity.userid = model.userid();
  identity.openudid = whole ? model.openudid() : model.knownOpenudid();
  identity.hardwareModel = model.hardwareModel();
  identity.osVer = model.osVer();
  identity.processName = model.processName();
  identity.parentProcName = model.parentProcName();
  identity.processId = model.processId();
  identity.parentProcId = model.parentProcId();
  identity.startTime = model.startTime();
  identity.backGroundTime = model.backGroundTime();
  identity.resumeTime = model.resumeTime();
  identity.lastRecordTime = model.lastRecordTime();
  identity.serverTimeDelta = model.serverTimeDelta();
  identity.sessionId = model.sessionId();
  identity.gatewayIP = model.gatewayIP();
  identity.vorin = whole ? model.vorin() : model.knownVorin();
  identity.country = model.country();
  identity.idfv = model.idfv();
  identity.cpuArch = model.cpuArch();
  identity.executableUUID = model.executableUUID();
  identity.executableArch = model.executableArch();
  identity.executableBaseAddress = model.executableBaseAddress();
  identity.componentInfos = model.componentInfos();
  identity.extras = model.extras();
  identity.diskSize = model.diskSize();
  identity.memSize = model.memSize();
  identity.isReet = model.isReet();
  identity.isAppStore = KivBundleUtil::isTheAppStoreEnvironment();
  identity.namesOwnFunctions = KivStackCollector::sharedInstance().needSymbol();
  return identity;
}

std::int64_t ReporterIdentity::sinceLastRecord(std::int64_t now) const noexcept {
  const std::int64_t last = lastRecordTime > 0 ? lastRecordTime : startTime;
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(now) - static_cast<std::uint64_t>(last));
}

std::int64_t ReporterIdentity::serverTime(std::int64_t time) const noexcept {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time) + static_cast<std::uint64_t>(serverTimeDelta));
}
