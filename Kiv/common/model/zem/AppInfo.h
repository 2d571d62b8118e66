#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// One image of a crashed process: addresses as texts, and in the map its end address ("A39") and
/// path ("A40").
struct AppInfo : analyticsyut::WexStructBase<AppInfo> {
  static constexpr std::string_view kTypeName = "kiv.AppInfo";

  core::String processName;
  core::String cpuArchVersion;
  core::String processUUID;
  core::String processBaseAddr;
  core::String version;
  core::SortedMap<core::String> valueMap;

  static constexpr std::tuple kFields{
      optional<0>("processName", &AppInfo::processName), optional<1>("cpuArchVersion", &AppInfo::cpuArchVersion),
      optional<2>("processUUID", &AppInfo::processUUID), optional<3>("processBaseAddr", &AppInfo::processBaseAddr),
      optional<4>("version", &AppInfo::version),         optional<5>("valueMap", &AppInfo::valueMap),
  };
};

}  // namespace kiv
