#pragma once

#include "Kiv/common/model/zem/AppInfo.h"
#include "Kiv/common/model/zem/AppSession.h"
#include "Kiv/common/model/zem/Attachment.h"
#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// One crash or stall. `cashTime` is its time in milliseconds since 1970; `allStacks` has the text
/// of each thread under its index and name. Upload packages hold a list of these.
struct ExceptionUpload : analyticsyut::WexStructBase<ExceptionUpload> {
  static constexpr std::string_view kTypeName = "kiv.ExceptionUpload";

  core::String crashType;
  std::int64_t cashTime = 0;
  core::String exceptionType;
  core::String causedBy;
  core::String excepitonAddress;
  core::String threadName;
  core::String callStack;
  core::SortedMap<core::String> allStacks;
  core::String expUid;
  AppSession sessionInfo;
  std::int32_t dcount = 0;
  core::String userId;
  core::String deviceId;
  AppInfo appInfo;
  core::Array<AppInfo> appInfoList;
  core::Array<AppInfo> reserved15;
  core::Array<Attachment> attachmentList;
  core::SortedMap<core::String> valueMap;
  core::SortedMap<core::String> userMap;
  core::String gatewayIp;
  std::int8_t reserved20 = 0;

  static constexpr std::tuple kFields{
      optional<0>("crashType", &ExceptionUpload::crashType),
      optional<1>("cashTime", &ExceptionUpload::cashTime),
      optional<2>("exceptionType", &ExceptionUpload::exceptionType),
      optional<3>("causedBy", &ExceptionUpload::causedBy),
      optional<4>("excepitonAddress", &ExceptionUpload::excepitonAddress),
      optional<5>("threadName", &ExceptionUpload::threadName),
      optional<6>("callStack", &ExceptionUpload::callStack),
      optional<7>("allStacks", &ExceptionUpload::allStacks),
      optional<8>("expUid", &ExceptionUpload::expUid),
      optional<9>("sessionInfo", &ExceptionUpload::sessionInfo),
      optional<10>("dcount", &ExceptionUpload::dcount),
      optional<11>("userId", &ExceptionUpload::userId),
      optional<12>("deviceId", &ExceptionUpload::deviceId),
      optional<13>("appInfo", &ExceptionUpload::appInfo),
      optional<14>("appInfoList", &ExceptionUpload::appInfoList),
      optional<15>("reserved15", &ExceptionUpload::reserved15),
      optional<16>("attachmentList", &ExceptionUpload::attachmentList),
      optional<17>("valueMap", &ExceptionUpload::valueMap),
      optional<18>("userMap", &ExceptionUpload::userMap),
      optional<19>("gatewayIp", &ExceptionUpload::gatewayIp),
      optional<20>("reserved20", &ExceptionUpload::reserved20),
  };
};

}  // namespace kiv
