#pragma once

#include "Kiv/common/model/zem/KivSecurity.h"
#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// What the collection server decides for this program: what is reported, and where to.
struct KivStrategy : analyticsyut::WexStructBase<KivStrategy> {
  static constexpr std::string_view kTypeName = "kiv.KivStrategy";

  bool enable = false;
  bool userInfoEnable = false;
  bool queryEnable = false;
  core::String url;
  core::String expUrl;
  KivSecurity security;
  core::SortedMap<core::String> valueMap;
  std::int64_t strategylastUpdateTime = 0;
  core::String httpsUrl;
  core::String httpsExpUrl;

  static constexpr std::tuple kFields{
      required<0>("enable", &KivStrategy::enable),
      required<1>("userInfoEnable", &KivStrategy::userInfoEnable),
      required<2>("queryEnable", &KivStrategy::queryEnable),
      optional<3>("url", &KivStrategy::url),
      optional<4>("expUrl", &KivStrategy::expUrl),
      optional<5>("security", &KivStrategy::security),
      optional<6>("valueMap", &KivStrategy::valueMap),
      optional<7>("strategylastUpdateTime", &KivStrategy::strategylastUpdateTime),
      optional<8>("httpsUrl", &KivStrategy::httpsUrl),
      optional<9>("httpsExpUrl", &KivStrategy::httpsExpUrl),
  };
};

}  // namespace kiv
