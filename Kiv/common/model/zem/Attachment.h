#pragma once

#include "Kiv/common/wex/WexStructBase.h"

namespace kiv {

/// A file that travels with a crash.
struct Attachment : analyticsyut::WexStructBase<Attachment> {
  static constexpr std::string_view kTypeName = "kiv.Attachment";

  std::int8_t type = 0;
  core::String fileName;
  core::Data data;

  static constexpr std::tuple kFields{
      optional<0>("type", &Attachment::type),
      optional<1>("fileName", &Attachment::fileName),
      optional<2>("data", &Attachment::data),
  };
};

}  // namespace kiv
