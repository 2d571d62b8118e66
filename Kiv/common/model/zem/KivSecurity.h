#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// The cipher keys that a strategy brings: for requests and for responses.
struct KivSecurity : analyticsyut::WexStructBase<KivSecurity> {
  static constexpr std::string_view kTypeName = "kiv.KivSecurity";

  core::String encKey;
  core::String encPubKey;

  static constexpr std::tuple kFields{
      required<0>("encKey", &KivSecurity::encKey),
      required<1>("encPubKey", &KivSecurity::encPubKey),
  };
};

}  // namespace kiv
