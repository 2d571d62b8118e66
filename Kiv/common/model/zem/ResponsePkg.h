#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// What every response carries: the result of the request and, in `sBuffer`, the enciphered record
/// that `cmd` stands for. serverTime is in milliseconds since 1970.
struct ResponsePkg : analyticsyut::WexStructBase<ResponsePkg> {
  static constexpr std::string_view kTypeName = "kiv.ResponsePkg";

  std::int8_t result = 0;
  std::int32_t cmd = 0;
  core::Data sBuffer;
  core::String gateWayIp;
  std::int64_t serverTime = 0;
  core::String status;
  core::String vorin;

  static constexpr std::tuple kFields{
      required<0>("result", &ResponsePkg::result),         required<1>("cmd", &ResponsePkg::cmd),
      optional<2>("sBuffer", &ResponsePkg::sBuffer),       optional<3>("gateWayIp", &ResponsePkg::gateWayIp),
      optional<4>("serverTime", &ResponsePkg::serverTime), optional<5>("status", &ResponsePkg::status),
      optional<6>("vorin", &ResponsePkg::vorin),
  };
};

}  // namespace kiv
