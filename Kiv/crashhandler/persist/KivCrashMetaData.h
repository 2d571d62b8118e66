#pragma once

#include "Core/PropertyList/ArchivedProperties.h"

/// The entry of one stored crash in the store's index. A plain value; fit for the crash path.
struct KivCrashMetaData {
  static constexpr std::string_view kClassName = "KivCrashMetaData";

  std::optional<core::String> md5;   ///< the crash's hash, the key of the index
  std::optional<core::String> file;  ///< name of its file, not a path
  std::int64_t time = 0;             ///< milliseconds since 1970
  bool hasNew = false;               ///< occurred (again) since it was last uploaded
  bool uplaoded = false;

  core::Data encodeData() const noexcept;

  /// Takes over what the archive holds. False, with a line in the log and nothing changed, for
  /// no data and for what is no archive of an entry.
  bool setEncodeData(std::span<const std::uint8_t> data) noexcept;

  friend bool operator==(const KivCrashMetaData&, const KivCrashMetaData&) = default;

  static constexpr auto kProperties = core::archive::properties(
      core::archive::property("md5", &KivCrashMetaData::md5), core::archive::property("file", &KivCrashMetaData::file),
      core::archive::property("time", &KivCrashMetaData::time),
      core::archive::property("hasNew", &KivCrashMetaData::hasNew),
      core::archive::property("uplaoded", &KivCrashMetaData::uplaoded));
};
