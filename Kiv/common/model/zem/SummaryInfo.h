#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// One start of the program, as session summaries report it. startTime is in milliseconds since 1970.
struct SummaryInfo : analyticsyut::WexStructBase<SummaryInfo> {
  static constexpr std::string_view kTypeName = "kiv.SummaryInfo";

  std::int64_t startTime = 0;
  std::int8_t startType = 0;
  core::String userid;
  core::String proc;
  core::String sessionId;
  core::SortedMap<core::String> valueMap;
  core::String gatewayIp;
  std::int8_t coldStart = 1;

  static constexpr std::tuple kFields{
      optional<0>("startTime", &SummaryInfo::startTime), optional<1>("startType", &SummaryInfo::startType),
      optional<2>("userid", &SummaryInfo::userid),       optional<3>("proc", &SummaryInfo::proc),
      optional<4>("sessionId", &SummaryInfo::sessionId), optional<5>("valueMap", &SummaryInfo::valueMap),
      optional<6>("gatewayIp", &SummaryInfo::gatewayIp), optional<7>("coldStart", &SummaryInfo::coldStart),
  };
};

}  // namespace kiv
