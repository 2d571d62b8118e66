#pragma once

#include <string_view>

#include "Kiv/common/model/KivSummaryInfo.h"
#include "Kiv/common/model/KivUploadRecord.h"
#include "Kiv/common/model/zem/UserInfoPackage.h"

/// The session summaries of one upload, with facts of device and program. A plain value.
class KivUserInfoPackage : public KivUploadRecord {
 public:
  std::int8_t type = 0;  ///< 1 after a cold start, 2 otherwise
  std::optional<core::String> deviceId;
  std::optional<core::String> proceName;
  core::Array<KivSummaryInfo> summaryInfos;
  core::Dictionary<core::String> valueMap;

  void createZEMModel(kiv::UserInfoPackage& record) const noexcept;
  void setDataToBuffer(analyticsyut::WexOutputStream* jout) const override;
  core::String description() const noexcept;
};
