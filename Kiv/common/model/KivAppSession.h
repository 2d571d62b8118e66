#pragma once

#include "Core/PropertyList/ArchivedProperties.h"
#include "Kiv/common/model/zem/AppSession.h"

/// The session that a crash ended, with the events that the program told of. A plain value.
struct KivAppSession {
  static constexpr std::string_view kClassName = "KivAppSession";

  std::optional<core::String> sessionId;
  core::Array<core::String> events;

  void createZEMModel(kiv::AppSession& record) const noexcept;

  friend bool operator==(const KivAppSession&, const KivAppSession&) = default;

  static constexpr auto kProperties =
      core::archive::properties(core::archive::property("sessionId", &KivAppSession::sessionId),
                                core::archive::property("events", &KivAppSession::events));
};
