#pragma once

#include "Kiv/common/model/KivAppInfo.h"
#include "Kiv/common/model/KivAppSession.h"
#include "Kiv/common/model/KivExpAttachment.h"
#include "Kiv/common/model/KivLocalObject.h"
#include "Kiv/common/model/zem/ExceptionUpload.h"

/// One crash or stall: what is stored, merged with equal ones, and uploaded. A plain value;
/// times are milliseconds since 1970.
class KivExpObj final : public KivArchivedObject<KivExpObj> {
 public:
  using Text = std::optional<core::String>;
  using Texts = core::Dictionary<core::String>;
  static constexpr std::string_view kClassName = "KivExpObj";

  /// One that happened once.
  KivExpObj() noexcept { dcount = 1; }

  Text crashType;             ///< "100" a crash, "103" a stall, "200" merged crashes ...
  std::int64_t cashTime = 0;  ///< by the server's clock, where `time` is by ours
  Text exceptionType;
  Text causedBy;
  Text excepitonAddress;
  Text threadName;
  Text callStack;
  Texts allStacks;  ///< text of each thread under "index|name"
  Text expUid;
  std::optional<KivAppSession> sessionInfo;
  Text userId;
  Text deviceId;
  std::optional<KivAppInfo> appInfo;
  core::Array<KivAppInfo> appInfoList;
  core::Array<KivExpAttachment> attachmentList;
  Texts valueMap;
  Texts userMap;
  Text gatewayIp;

  /// The identity by which equal crashes are merged and the store keeps them: `md5`.
  const Text& hash() const noexcept { return md5; }
  void setHash(Text hash) noexcept { md5 = std::move(hash); }

  void createZEMModel(kiv::ExceptionUpload& record) const noexcept;

  friend bool operator==(const KivExpObj&, const KivExpObj&) = default;

  static constexpr auto kProperties = core::archive::properties(
      core::archive::property("crashType", &KivExpObj::crashType),
      core::archive::property("cashTime", &KivExpObj::cashTime),
      core::archive::property("exceptionType", &KivExpObj::exceptionType),
      core::archive::property("causedBy", &KivExpObj::causedBy),
      core::archive::property("excepitonAddress", &KivExpObj::excepitonAddress),
      core::archive::property("threadName", &KivExpObj::threadName),
      core::archive::property("callStack", &KivExpObj::callStack),
      core::archive::property("allStacks", &KivExpObj::allStacks),
      core::archive::property("expUid", &KivExpObj::expUid),
      core::archive::property("sessionInfo", &KivExpObj::sessionInfo),
      core::archive::property("userId", &KivExpObj::userId), core::archive::property("deviceId", &KivExpObj::deviceId),
      core::archive::property("appInfo", &KivExpObj::appInfo),
      core::archive::property("appInfoList", &KivExpObj::appInfoList),
      core::archive::property("attachmentList", &KivExpObj::attachmentList),
      core::archive::property("valueMap", &KivExpObj::valueMap),
      core::archive::property("userMap", &KivExpObj::userMap),
      core::archive::property("gatewayIp", &KivExpObj::gatewayIp));
};
