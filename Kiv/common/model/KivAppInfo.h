#pragma once

#include "Core/PropertyList/ArchivedProperties.h"
#include "Kiv/common/model/zem/AppInfo.h"

/// One image of a crashed process, or the process's own program, as reports tell of it. Addresses
/// are texts ("0x000055d0a7e1b000"). A plain value.
struct KivAppInfo {
  using Text = std::optional<core::String>;
  static constexpr std::string_view kClassName = "KivAppInfo";

  Text processName;
  Text cpuArchVersion;
  Text processUUID;
  Text processBaseAddr;
  Text version;
  Text endAddress;
  Text path;

  void createZEMModel(kiv::AppInfo& record) const noexcept;
  core::String description() const noexcept;

  friend bool operator==(const KivAppInfo&, const KivAppInfo&) = default;

  static constexpr auto kProperties =
      core::archive::properties(core::archive::property("processName", &KivAppInfo::processName),
                                core::archive::property("cpuArchVersion", &KivAppInfo::cpuArchVersion),
                                core::archive::property("processUUID", &KivAppInfo::processUUID),
                                core::archive::property("processBaseAddr", &KivAppInfo::processBaseAddr),
                                core::archive::property("version", &KivAppInfo::version),
                                core::archive::property("endAddress", &KivAppInfo::endAddress),
                                core::archive::property("path", &KivAppInfo::path));
};
