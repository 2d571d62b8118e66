#include "Kiv/common/model/KivUserInfoPackage.h"

#include "Core/Text/Format.h"
#include "Kiv/common/model/ZemModels.h"
#include "Kiv/common/utils/KivLog.h"

void KivUserInfoPackage::createZEMModel(kiv::UserInfoPackage& record) const noexcept {
  record.type = type;
  record.deviceId = orEmpty(deviceId);
  record.proceName = orEmpty(proceName);
  record.summaryInfos = zemModels<kiv::SummaryInfo>(summaryInfos);
  record.valueMap = core::SortedMap<core::String>(valueMap);
}

void KivUserInfoPackage::setDataToBuffer(analyticsyut::WexOutputStream* jout) const {
  if (jout == nullptr) {
    kiv_log_error("KivUserInfoPackage setDataToBuffer meet nil jout");
    return;
  }
  kiv::UserInfoPackage record;
  createZEMModel(record);
  jout->write(record, 0);
}

core::String KivUserInfoPackage::description() const noexcept {
  return core::kiv_format("UserInfo :\ndevice id : %@ \nprocess : %@ \nvalueMap : %@ \nsummary : %@", deviceId,
                          proceName, valueMap, summaryInfos);
}
