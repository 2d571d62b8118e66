#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// What every request carries: who reports, with what command, and in `sBuffer` the encoded upload
/// record, compressed and enciphered. Reserved fields are part of the format; nothing fills them.
struct RequestPkg : analyticsyut::WexStructBase<RequestPkg> {
  static constexpr std::string_view kTypeName = "kiv.RequestPkg";

  std::int32_t platformId = 0;
  core::String productId;
  core::String bundleId;
  core::String productVersion;
  core::String channel;
  core::String sdkVersion;
  std::int32_t cmd = 0;
  core::Data sBuffer;
  core::String model;
  core::String hardwareOs;
  core::SortedMap<core::String> reserved;
  core::String sessionId;
  std::int64_t strategylastUpdateTime = 0;
  core::String sdkId;
  core::String deviceId;
  core::String apn;
  std::int64_t reserved16 = 0;
  core::String reserved17;
  core::String vorin;
  core::String reserved19;
  core::String reserved20;
  core::String reserved21;
  core::String networkType;
  core::String idfv;

  static constexpr std::tuple kFields{
      optional<0>("platformId", &RequestPkg::platformId),
      optional<1>("productId", &RequestPkg::productId),
      optional<2>("bundleId", &RequestPkg::bundleId),
      optional<3>("productVersion", &RequestPkg::productVersion),
      optional<4>("channel", &RequestPkg::channel),
      optional<5>("sdkVersion", &RequestPkg::sdkVersion),
      optional<6>("cmd", &RequestPkg::cmd),
      optional<7>("sBuffer", &RequestPkg::sBuffer),
      optional<8>("model", &RequestPkg::model),
      optional<9>("hardwareOs", &RequestPkg::hardwareOs),
      optional<10>("reserved", &RequestPkg::reserved),
      optional<11>("sessionId", &RequestPkg::sessionId),
      optional<12>("strategylastUpdateTime", &RequestPkg::strategylastUpdateTime),
      optional<13>("sdkId", &RequestPkg::sdkId),
      optional<14>("deviceId", &RequestPkg::deviceId),
      optional<15>("apn", &RequestPkg::apn),
      optional<16>("reserved16", &RequestPkg::reserved16),
      optional<17>("reserved17", &RequestPkg::reserved17),
      optional<18>("vorin", &RequestPkg::vorin),
      optional<19>("reserved19", &RequestPkg::reserved19),
      optional<20>("reserved20", &RequestPkg::reserved20),
      optional<21>("reserved21", &RequestPkg::reserved21),
      optional<22>("networkType", &RequestPkg::networkType),
      optional<23>("idfv", &RequestPkg::idfv),
  };
};

}  // namespace kiv
