#include "Kiv/common/model/KivRequestPackage.h"

#include <atomic>

#include "Kiv/common/KivInfo.h"
#include "Kiv/common/model/ZemModels.h"

namespace {

std::atomic<std::int64_t (*)() noexcept> strategyTimeSource{nullptr};

}  // namespace

KivRequestPackage KivRequestPackage::initWithData(const KivModelBase& data, std::int32_t cmd,
                                                  UploadRecord sBuffer) noexcept {
  KivRequestPackage made;
  made.platformId = data.platformId();
  made.productId = data.appId();
  made.bundleId = data.bundleId();
  made.productVersion = data.appVersion();
  made.channel = data.channel();
  made.sdkVersion = data.sdkVersion();
  made.cmd = cmd;
  made.sBuffer = std::move(sBuffer);
  made.model = data.hardwareModel();
  made.hardwareOs = data.osVer();
  made.reserved = data.extras();
  made.sessionId = data.sessionId();
  if (const auto source = strategyTimeSource.load()) {
    made.strategylastUpdateTime = source();
  }
  made.deviceId = data.openudid();
  made.apn = KivInfo::sharedInfo().networkAPN();
  made.vorin = data.vorin();
  made.idfv = data.idfv();
  return made;
}

KivRequestPackage KivRequestPackage::createPackageForBlockData(UploadRecord sBuffer) noexcept {
  return initWithData(KivModelBase::getDefualtAnaModel(), kExceptionCommand, std::move(sBuffer));
}

void KivRequestPackage::createZEMModel(kiv::RequestPkg& record) const {
  record.platformId = platformId;
  record.productId = orEmpty(productId);
  record.bundleId = orEmpty(bundleId);
  record.productVersion = orEmpty(productVersion);
  record.channel = orEmpty(channel);
  record.sdkVersion = orEmpty(sdkVersion);
  record.cmd = cmd;
  if (sBuffer != nullptr) {
    analyticsyut::WexOutputStream out;
    sBuffer->setDataToBuffer(&out);
    record.sBuffer = out.data();
  }
  record.model = orEmpty(model);
  record.hardwareOs = orEmpty(hardwareOs);
  record.reserved = core::SortedMap<core::String>(reserved);
  record.sessionId = orEmpty(sessionId);
  record.strategylastUpdateTime = strategylastUpdateTime;
  record.sdkId = orEmpty(sdkId);
  record.deviceId = orEmpty(deviceId);
  record.apn = orEmpty(apn);
  record.vorin = orEmpty(vorin);
  record.networkType = orEmpty(networkType);
  record.idfv = orEmpty(idfv);
}

void KivRequestPackage::setStrategyTimeSource(std::int64_t (*source)() noexcept) noexcept {
  strategyTimeSource = source;
}
