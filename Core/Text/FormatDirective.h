#pragma once

#include <cstdint>

namespace core {

/// One "%..." of a format text, taken apart: what stands between the percent sign and the
/// conversion letter. Used at compile time to check a format and at run time to follow it.
struct FormatDirective {
  static constexpr int kWidest = 9999;  ///< widths and precisions are clamped to it

  bool left = false;
  bool plus = false;
  bool blank = false;
  bool zero = false;
  bool alternate = false;
  int width = 0;
  int precision = -1;      ///< -1 when none is given
  int narrow = 0;          ///< bytes that "h" and "hh" cut an integer to, else 0
  char conversion = '\0';  ///< 0 when the text ends before it

  /// Takes the directive apart whose text begins behind the percent sign at `at`; answers
  /// where it ends. Length modifiers are skipped, since arguments know their own size.
  static constexpr const char* parse(const char* at, const char* end, FormatDirective& out) noexcept {
    if (at != end && (*at == '@' || *at == 'd' || *at == 's')) {  // most directives are no more than that
      out.conversion = *at;
      return at + 1;
    }
    for (; at != end; ++at) {
      if (*at == '-') {
        out.left = true;
      } else if (*at == '0') {
        out.zero = true;
      } else if (*at == '#') {
        out.alternate = true;
      } else if (*at == '+') {
        out.plus = true;
      } else if (*at == ' ') {
        out.blank = true;
      } else {
        break;
      }
    }
    at = parseNumber(at, end, out.width);
    if (at != end && *at == '.') {
      at = parseNumber(at + 1, end, out.precision = 0);
    }
    for (; at != end && isLength(*at); ++at) {
      if (*at == 'h') {
        out.narrow = out.narrow == 0 ? 2 : 1;
      }
    }
    if (at != end) {
      out.conversion = *at++;
    }
    return at;
  }

 private:
  static constexpr const char* parseNumber(const char* at, const char* end, int& number) noexcept {
    for (; at != end && *at >= '0' && *at <= '9'; ++at) {
      number = number * 10 + (*at - '0');
      number = number < kWidest ? number : kWidest;
    }
    return at;
  }
  static constexpr bool isLength(char letter) noexcept {
    return letter == 'l' || letter == 'h' || letter == 'q' || letter == 'z' || letter == 'j' || letter == 't';
  }
};

}  // namespace core
