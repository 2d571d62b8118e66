#include "Kiv/common/model/KivExceptionUploadPackage.h"

#include "Kiv/common/model/ZemModels.h"
#include "Kiv/common/utils/KivLog.h"

void KivExceptionUploadPackage::createZEMModel(core::Array<kiv::ExceptionUpload>& records) const noexcept {
  records = zemModels<kiv::ExceptionUpload>(list);
}

void KivExceptionUploadPackage::setDataToBuffer(analyticsyut::WexOutputStream* jout) const {
  if (jout == nullptr) {
    kiv_log_error("KivExceptionUploadPackage setDataToBuffer meet nil jout");
    return;
  }
  core::Array<kiv::ExceptionUpload> records;
  createZEMModel(records);
  jout->write(records, 0);
}
