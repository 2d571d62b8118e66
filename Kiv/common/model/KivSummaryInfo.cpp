#include "Kiv/common/model/KivSummaryInfo.h"

#include "Core/Text/Format.h"
#include "Kiv/common/model/ZemModels.h"

void KivSummaryInfo::createZEMModel(kiv::SummaryInfo& record) const noexcept {
  record.startTime = startTime;
  record.startType = startType;
  record.userid = orEmpty(userid);
  record.proc = orEmpty(proc);
  record.sessionId = orEmpty(sessionId);
  record.valueMap = core::SortedMap<core::String>(valueMap);
  record.gatewayIp = orEmpty(gatewayIp);
  record.coldStart = coldStart;
}

core::String KivSummaryInfo::description() const noexcept {
  return core::kiv_format(
      "Summary :\nuser id : %@ \nprocess : %@ \nstarttype : %@ \nstarttime : %@ \ncolodstart: %@\nValueMap:%@\n",
      userid, proc, startType, startTime, coldStart, valueMap);
}
