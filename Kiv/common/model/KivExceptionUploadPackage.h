#pragma once

#include "Kiv/common/model/KivExpObj.h"
#include "Kiv/common/model/KivUploadRecord.h"

/// The crashes or stalls of one upload: written as the bare list of their records.
class KivExceptionUploadPackage : public KivUploadRecord {
 public:
  core::Array<KivExpObj> list;

  void createZEMModel(core::Array<kiv::ExceptionUpload>& records) const noexcept;
  void setDataToBuffer(analyticsyut::WexOutputStream* jout) const override;
};
