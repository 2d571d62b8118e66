#pragma once

#include "Kiv/common/model/zem/SummaryInfo.h"
#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// The upload record of session summaries.
struct UserInfoPackage : analyticsyut::WexStructBase<UserInfoPackage> {
  static constexpr std::string_view kTypeName = "kiv.UserInfoPackage";

  std::int8_t type = 0;
  core::String deviceId;
  core::String proceName;
  core::Array<SummaryInfo> summaryInfos;
  core::SortedMap<core::String> valueMap;

  static constexpr std::tuple kFields{
      optional<0>("type", &UserInfoPackage::type),
      optional<1>("deviceId", &UserInfoPackage::deviceId),
      optional<2>("proceName", &UserInfoPackage::proceName),
      optional<3>("summaryInfos", &UserInfoPackage::summaryInfos),
      optional<4>("valueMap", &UserInfoPackage::valueMap),
  };
};

}  // namespace kiv
