#include "Kiv/common/model/KivExpObj.h"

#include "Kiv/common/model/ZemModels.h"

void KivExpObj::createZEMModel(kiv::ExceptionUpload& record) const noexcept {
  using Map = core::SortedMap<core::String>;
  record.crashType = orEmpty(crashType);
  record.cashTime = cashTime;
  record.exceptionType = orEmpty(exceptionType);
  record.causedBy = orEmpty(causedBy);
  record.excepitonAddress = orEmpty(excepitonAddress);
  record.threadName = orEmpty(threadName);
  record.callStack = orEmpty(callStack);
  record.allStacks = Map(allStacks);
  record.expUid = orEmpty(expUid);
  if (sessionInfo) {
    sessionInfo->createZEMModel(record.sessionInfo);
  }
  record.dcount = dcount;
  record.userId = orEmpty(userId);
  record.deviceId = orEmpty(deviceId);
  if (appInfo) {
    appInfo->createZEMModel(record.appInfo);
  }
  record.appInfoList = zemModels<kiv::AppInfo>(appInfoList);
  record.attachmentList = zemModels<kiv::Attachment>(attachmentList);
  record.valueMap = Map(valueMap);
  record.userMap = Map(userMap);
  record.gatewayIp = orEmpty(gatewayIp);
}
