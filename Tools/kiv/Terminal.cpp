#include "Tools/kiv/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdlib>

#include "Core/Text/Format.h"
#include "Core/Text/Utf8.h"

namespace {

constexpr std::string_view kEllipsis = "…";

struct Range {
  char32_t first;
  char32_t last;
};

/// Control characters, and those that order, join or end lines without being seen.
constexpr Range kObeyed[] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C}, {0x200E, 0x200F},
                             {0x2028, 0x202E}, {0x2066, 0x2069}, {0xFEFF, 0xFEFF}};

bool isObeyed(char32_t character) {
  return std::any_of(std::begin(kObeyed), std::end(kObeyed),
                     [=](const Range& range) { return range.first <= character && character <= range.last; });
}

bool isKept(char32_t character, Place place) {
  return !isObeyed(character) || (place == Place::kBlock && (character == '\n' || character == '\t')) ||
         (place == Place::kJson && character == '\n');
}

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

std::size_t columnsOf(char32_t character) {
  static const bool kKnowsUnicode = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
  const int columns = kKnowsUnicode ? ::wcwidth(static_cast<wchar_t>(character)) : 1;
  return columns < 0 ? 1 : static_cast<std::size_t>(columns);
}

}  // namespace

std::optional<std::size_t> outputColumns() {
  const std::string_view wanted = variable("COLUMNS");
  std::size_t columns = 0;
  const auto [end, error] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), columns);
  if (error == std::errc() && end == wanted.data() + wanted.size() && columns != 0) {
    return columns;
  }
  winsize size{};
  const bool isTerminal = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return isTerminal ? std::optional<std::size_t>(size.ws_col) : std::nullopt;
}

bool isColored(std::string_view when) {
  if (when != "auto") {
    return when == "always";
  }
  const std::string_view terminal = variable("TERM");
  return variable("NO_COLOR").empty() && !terminal.empty() && terminal != "dumb" && ::isatty(STDOUT_FILENO) == 1;
}

std::string harmless(std::string_view text, Place place) {
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const core::Utf8Character next = core::decodeUtf8(text);
    const bool isByte = !next.valid || (next.codePoint < 0x80 && place != Place::kJson);
    if (next.valid && isKept(next.codePoint, place)) {
      shown += text.substr(0, next.size);
    } else if (isByte) {
      shown += core::kiv_format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text.front()))).view();
    } else {
      shown += core::kiv_format("\\u%04x", static_cast<unsigned>(next.codePoint)).view();
    }
    text.remove_prefix(next.size);
  }
  return shown;
}

std::size_t columnsOf(std::string_view line) {
  std::size_t columns = 0;
  while (!line.empty()) {
    const core::Utf8Character next = core::decodeUtf8(line);
    columns += columnsOf(next.codePoint);
    line.remove_prefix(next.size);
  }
  return columns;
}

std::string cutTo(std::string_view line, std::size_t columns) {
  if (columnsOf(line) <= columns) {
    return std::string(line);
  }
  std::string cut;
  std::size_t used = 1;  // by the ellipsis
  while (columns != 0) {
    const core::Utf8Character next = core::decodeUtf8(line);
    used += columnsOf(next.codePoint);
    if (used > columns) {
      return cut + std::string(kEllipsis);
    }
    cut += line.substr(0, next.size);
    line.remove_prefix(next.size);
  }
  return cut;
}

std::string styled(std::string_view text, std::string_view style) {
  return style.empty() ? std::string(text) : "\x1b[" + std::string(style) + "m" + std::string(text) + "\x1b[0m";
}
