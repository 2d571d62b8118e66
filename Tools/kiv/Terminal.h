#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

/// What standard output is, and how texts of unknown content are made fit for it.

/// The columns that a line may have: $COLUMNS, else the terminal's; nothing where nobody cares.
std::optional<std::size_t> outputColumns();

/// Whether to colour, `when` being "always", "never" or "auto": on a terminal that can, unless
/// $NO_COLOR is set.
bool isColored(std::string_view when);

/// Where a text is going to stand, which tells what it may hold.
enum class Place {
  kLine,   ///< one line
  kBlock,  ///< several: line ends and tabs stay
  kJson    ///< JSON that is finished but for what a terminal would obey
};

/// The text with everything that a terminal would obey, or that would turn the order of the
/// text around, written out: "\x1b", "\u202e".
std::string harmless(std::string_view text, Place place);

/// The columns that a harmless line takes, and its beginning of at most `columns`, with an ellipsis
/// where it was cut.
std::size_t columnsOf(std::string_view line);
std::string cutTo(std::string_view line, std::size_t columns);

/// A text in a colour: kRed, kBold ...; as it is for kPlain.
namespace style {
inline constexpr std::string_view kPlain = "";
inline constexpr std::string_view kBold = "1";
inline constexpr std::string_view kRed = "31";
inline constexpr std::string_view kBrightRed = "1;31";
inline constexpr std::string_view kYellow = "33";
inline constexpr std::string_view kBrightYellow = "1;33";
inline constexpr std::string_view kBrightCyan = "1;36";
}  // namespace style
std::string styled(std::string_view text, std::string_view style);
