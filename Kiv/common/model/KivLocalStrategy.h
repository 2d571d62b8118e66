#pragma once

#include "Kiv/common/model/KivLocalObjInitWithZemProtocol.h"
#include "Kiv/common/model/KivLocalObject.h"
#include "Kiv/common/model/zem/KivStrategy.h"

/// What the collection server decided for this program: what is reported, where to, with which
/// cipher keys, and further switches ("B1": the stall monitor). Starts with built-in defaults, is
/// brought by responses of command 510 and kept by the store. A plain value.
class KivLocalStrategy final : public KivArchivedObject<KivLocalStrategy>, public KivLocalObjInitWithZemProtocol {
 public:
  using Text = std::optional<core::String>;
  static constexpr std::string_view kClassName = "KivLocalStrategy";

  /// The defaults; both addresses are the endpoint of KivCollectEndpoint.
  KivLocalStrategy() noexcept;

  bool enable = true;
  bool userInfoEnable = true;
  bool queryEnable = true;
  Text url{""};
  Text expUrl{""};
  Text encKey{"Q7#v!Kp2"};     ///< of requests
  Text encPubKey{"M(&T#T&)"};  ///< of responses
  core::ValueDictionary valueMap{{"B1", true}};
  std::int64_t strategylastUpdateTime = 0;
  Text httpsUrl;
  Text httpsExpUrl;

  /// Replaces every property by what the record says, or changes nothing.
  void initLocalObjWithZemBuffer(analyticsyut::WexInputStream& reader) noexcept override;

  /// Whether the strategies decide the same, whenever and wherever they were stored.
  bool isEqual(const KivLocalStrategy& other) const noexcept;

  /// Why the server has switched reports off, by its status text.
  static core::String reasonDesc(std::string_view status) noexcept;

  core::String description() const noexcept;
  core::String debugDescription() const noexcept;

  static constexpr auto kProperties = core::archive::properties(
      core::archive::property("enable", &KivLocalStrategy::enable),
      core::archive::property("userInfoEnable", &KivLocalStrategy::userInfoEnable),
      core::archive::property("queryEnable", &KivLocalStrategy::queryEnable),
      core::archive::property("url", &KivLocalStrategy::url),
      core::archive::property("expUrl", &KivLocalStrategy::expUrl),
      core::archive::property("encKey", &KivLocalStrategy::encKey),
      core::archive::property("encPubKey", &KivLocalStrategy::encPubKey),
      core::archive::property("valueMap", &KivLocalStrategy::valueMap),
      core::archive::property("strategylastUpdateTime", &KivLocalStrategy::strategylastUpdateTime),
      core::archive::property("httpsUrl", &KivLocalStrategy::httpsUrl),
      core::archive::property("httpsExpUrl", &KivLocalStrategy::httpsExpUrl));

 private:
  void take(const kiv::KivStrategy& record) noexcept;
  bool blockMonitorEnable() const noexcept;
};
