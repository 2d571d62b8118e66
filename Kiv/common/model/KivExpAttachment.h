#pragma once

#include "Core/PropertyList/ArchivedProperties.h"
#include "Kiv/common/model/zem/Attachment.h"

/// A file that travels with a crash or stall. A plain value.
struct KivExpAttachment {
  static constexpr std::string_view kClassName = "KivExpAttachment";
  /// The type of what the library attaches: "crash.log" and "crash_times.log".
  static constexpr std::int8_t kLogType = 11;

  std::int8_t type = 0;
  std::optional<core::String> fileName;
  std::optional<core::Data> data;

  void createZEMModel(kiv::Attachment& record) const noexcept;

  friend bool operator==(const KivExpAttachment&, const KivExpAttachment&) = default;

  static constexpr auto kProperties =
      core::archive::properties(core::archive::property("type", &KivExpAttachment::type),
                                core::archive::property("fileName", &KivExpAttachment::fileName),
                                core::archive::property("data", &KivExpAttachment::data));
};
