#pragma once

#include "Kiv/common/model/KivLocalObject.h"
#include "Kiv/common/model/zem/SummaryInfo.h"

/// One start of the program, cold (1) or hot (2), queued until the summary reporter sends it. A
/// plain value; startTime is in milliseconds since 1970.
class KivSummaryInfo final : public KivArchivedObject<KivSummaryInfo> {
 public:
  using Text = std::optional<core::String>;
  static constexpr std::string_view kClassName = "KivSummaryInfo";

  std::int64_t startTime = 0;
  std::int8_t startType = 0;
  Text userid;
  Text proc;
  Text sessionId;
  core::Dictionary<core::String> valueMap;
  Text gatewayIp;
  std::int8_t coldStart = 1;

  void createZEMModel(kiv::SummaryInfo& record) const noexcept;
  core::String description() const noexcept;

  friend bool operator==(const KivSummaryInfo&, const KivSummaryInfo&) = default;

  static constexpr auto kProperties =
      core::archive::properties(core::archive::property("startTime", &KivSummaryInfo::startTime),
                                core::archive::property("startType", &KivSummaryInfo::startType),
                                core::archive::property("userid", &KivSummaryInfo::userid),
                                core::archive::property("proc", &KivSummaryInfo::proc),
                                core::archive::property("sessionId", &KivSummaryInfo::sessionId),
                                core::archive::property("valueMap", &KivSummaryInfo::valueMap),
                                core::archive::property("gatewayIp", &KivSummaryInfo::gatewayIp),
                                core::archive::property("coldStart", &KivSummaryInfo::coldStart));
};
