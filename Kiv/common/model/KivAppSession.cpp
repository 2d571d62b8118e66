#include "Kiv/common/model/KivAppSession.h"

#include "Kiv/common/model/ZemModels.h"

void KivAppSession::createZEMModel(kiv::AppSession& record) const noexcept {
  record.sessionId = orEmpty(sessionId);
  record.events = events;
}
