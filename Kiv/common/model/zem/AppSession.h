#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// The session that a crash ended, with the events that the program told of.
struct AppSession : analyticsyut::WexStructBase<AppSession> {
  static constexpr std::string_view kTypeName = "kiv.AppSession";

  core::String sessionId;
  core::Array<core::String> events;

  static constexpr std::tuple kFields{
      optional<0>("sessionId", &AppSession::sessionId),
      optional<1>("events", &AppSession::events),
  };
};

}  // namespace kiv
