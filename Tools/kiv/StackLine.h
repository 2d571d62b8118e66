#pragma once

#include <optional>
#include <string>
#include <string_view>

/// A frame's line as logs and records have it: "0  module            0x00007f12ab34cd56 symbol + 12".
/// Views into the line.
struct StackLine {
  std::string_view module;  ///< empty where no image is around the address
  std::string_view symbol;  ///< with the distance; the image's base where no function is known

  /// Nothing for any other line.
  static std::optional<StackLine> parse(std::string_view line);

  /// For a column of a table: the function's readable name without what does not tell it
  /// apart, or the module and the distance where it is not known.
  std::string brief() const;
};
