#include "Kiv/common/model/KivResponsePackage.h"

#include "Kiv/common/KivProtocolDataRegister.h"
#include "Kiv/common/model/ZemModels.h"
#include "Kiv/common/utils/KivLog.h"

KivResponsePackage KivResponsePackage::responsePackageWithZEMModel(const kiv::ResponsePkg& record) {
  KivResponsePackage made;
  made.result = record.result;
  made.cmd = record.cmd;
  made.gateWayIp = orNil(record.gateWayIp);
  made.serverTime = record.serverTime;
  made.status = orNil(record.status);
  made.vorin = orNil(record.vorin);
  kiv_log_info("ResponsePackage: result=%d, cmd=%d, vorin=%s, status=%s", record.result, record.cmd, record.vorin,
               record.status);
  if (made.cmd != 0) {
    made.instantiateObject(record.sBuffer);
  }
  return made;
}

void KivResponsePackage::instantiateObject(const core::Data& payload) {
  const std::optional<KivModelClass> clazz = KivProtocolDataRegister::sharedInstance().getResponseObjectType(cmd);
  if (!clazz) {
    kiv_log_error("SDK internal err, not regist response analyze for type %i", cmd);
    return;
  }
  if (!clazz->conformsToZemProtocol()) {
    kiv_log_error("mix data element did not implement protocol KivLocalObjInitWithZemProtocol");
    return;
  }
  if (payload.empty()) {
    return;
  }
  sBuffer = clazz->make();
  analyticsyut::WexInputStream reader(payload.span());
  sBuffer->initLocalObjWithZemBuffer(reader);
}
