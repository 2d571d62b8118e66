#include "Kiv/common/model/KivLocalStrategy.h"

#include <exception>

#include "Core/Text/Format.h"
#include "Kiv/common/KivModelBase.h"
#include "Kiv/common/model/ZemModels.h"
#include "Kiv/common/network/KivCollectEndpoint.h"
#include "Kiv/common/utils/KivLog.h"

namespace {

/// The payload is a framed record, or the bare fields of one, whose first is a character.
kiv::KivStrategy readStrategy(analyticsyut::WexInputStream& reader) {
  kiv::KivStrategy record;
  analyticsyut::DataHead head;
  head.peekFrom(reader);
  if (head.type == analyticsyut::DataHead::kStructBegin) {
    reader.read(record, 0, true);
  } else {
    record.readFrom(reader);
  }
  return record;
}

std::string_view yesOrNo(bool value) noexcept {
  return value ? "YES" : "NO";
}

}  // namespace

KivLocalStrategy::KivLocalStrategy() noexcept : httpsUrl(KivCollectEndpoint::url()), httpsExpUrl(httpsUrl) {}

void KivLocalStrategy::initLocalObjWithZemBuffer(analyticsyut::WexInputStream& reader) noexcept {
  try {
    take(readStrategy(reader));
  } catch (const std::exception& fault) {
    kiv_log_error("strategy processing occur error: %s", fault.what());
    return;
  } catch (...) {
    kiv_log_error("strategy processing occur unknown error");
    return;
  }
  kiv_log_info("ResponsePackage.sBuffer: [%@, %@, %@], %lld, url=%@, expUrl=%@, httpsUrl=%@, httpsExpUrl=%@", enable,
               userInfoEnable, queryEnable, strategylastUpdateTime, url, expUrl, httpsUrl, httpsExpUrl);
}

void KivLocalStrategy::take(const kiv::KivStrategy& record) noexcept {
  enable = record.enable;
  userInfoEnable = record.userInfoEnable;
  queryEnable = record.queryEnable;
  url = record.url;
  expUrl = record.expUrl;
  encKey = record.security.encKey;
  encPubKey = record.security.encPubKey;
  strategylastUpdateTime = record.strategylastUpdateTime;
  httpsUrl = record.httpsUrl;
  httpsExpUrl = record.httpsExpUrl;
  valueMap.clear();
  for (const auto& [key, value] : record.valueMap) {
    valueMap.set(key, value);
  }
}

bool KivLocalStrategy::isEqual(const KivLocalStrategy& other) const noexcept {
  return std::apply(
      [&](const auto&... property) { return ((this->*property.member == other.*property.member) && ...); },
      kProperties);
}

core::String KivLocalStrategy::reasonDesc(std::string_view status) noexcept {
  constexpr std::string_view kHost = KivCollectEndpoint::kWebSiteHost;
  if (status == "IN_BLACK_LIST") {
    return core::kiv_format("Appid is in black list,please contact %@ for more infomation", kHost);
  }
  if (status == "VERSION_DELETE") {
    return core::kiv_format("Current App Version is deleted,please contact %@ for more infomation", kHost);
  }
  if (status == "NOT_REGISTER") {
    return core::kiv_format("Appid is not registered,register your app at %@", kHost);
  }
  return "Unknown Reason";
}

bool KivLocalStrategy::blockMonitorEnable() const noexcept {
  const core::Value* value = valueMap.find("B1");
  return value != nullptr && value->asBoolean().value_or(false);
}

core::String KivLocalStrategy::description() const noexcept {
  core::String reason;
  if (!enable) {
    const core::String status = orEmpty(KivModelBase::getDefualtAnaModel().strategyStatus());
    reason = core::kiv_format("\nInfomation:%@\n\n", reasonDesc(status));
  }
  return core::kiv_format(
      "StrategyUpdateTime: %@, Crash Report Enable: %@, Block Monitor Enable: %@, Analytics Enable: %@, %@",
      strategylastUpdateTime, yesOrNo(enable), yesOrNo(blockMonitorEnable()), yesOrNo(userInfoEnable), reason);
}

core::String KivLocalStrategy::debugDescription() const noexcept {
  return core::kiv_format("%@ %@ %@ %@", strategylastUpdateTime, yesOrNo(enable), yesOrNo(blockMonitorEnable()),
                          yesOrNo(userInfoEnable));
}
