#include "Kiv/common/model/KivAppInfo.h"

#include "Core/Text/Format.h"
#include "Kiv/common/model/ZemModels.h"

void KivAppInfo::createZEMModel(kiv::AppInfo& record) const noexcept {
  record.processName = orEmpty(processName);
  record.cpuArchVersion = orEmpty(cpuArchVersion);
  record.processUUID = orEmpty(processUUID);
  record.processBaseAddr = orEmpty(processBaseAddr);
  record.version = orEmpty(version);
  if (endAddress) {
    record.valueMap["A39"] = *endAddress;
  }
  if (path) {
    record.valueMap["A40"] = *path;
  }
}

core::String KivAppInfo::description() const noexcept {
  return core::kiv_format("%@ %@ %@ <%@> %@", processBaseAddr, processName, cpuArchVersion, processUUID, path);
}
