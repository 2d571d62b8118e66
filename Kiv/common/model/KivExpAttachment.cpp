#include "Kiv/common/model/KivExpAttachment.h"

#include "Kiv/common/model/ZemModels.h"

void KivExpAttachment::createZEMModel(kiv::Attachment& record) const noexcept {
  record.type = type;
  record.fileName = orEmpty(fileName);
  record.data = data ? *data : core::Data();
}
