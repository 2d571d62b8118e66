#include "Core/Text/Format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "Core/Text/FormatSink.h"

namespace core {
namespace {

constexpr std::string_view kNull = "(null)";

std::size_t lacking(int wanted, std::size_t present) noexcept {
  const auto least = static_cast<std::size_t>(wanted);
  return least > present ? least - present : 0;
}

/// `prefix` (sign, 0x), `zeros` and `body`, padded to the width of the directive.
void appendPadded(FormatSink& out, const FormatDirective& directive, std::string_view prefix, std::size_t zeros,
                  std::string_view body) noexcept {
  const std::size_t padding = lacking(directive.width, prefix.size() + zeros + body.size());
  if (!directive.left) {
    out.append(padding, ' ');
  }
  out.append(prefix);
  out.append(zeros, '0');
  out.append(body);
  if (directive.left) {
    out.append(padding, ' ');
  }
}

void appendText(FormatSink& out, const FormatDirective& directive, std::string_view text) noexcept {
  if (directive.precision >= 0) {
    text = text.substr(0, static_cast<std::size_t>(directive.precision));
  }
  if (directive.width == 0) {
    out.append(text);
  } else {
    appendPadded(out, directive, {}, 0, text);
  }
}

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

/// Digits of `value` that end before `end`; answers where they begin. Nothing for 0.
char* putDecimal(char* end, std::uint64_t value) noexcept {
  while (value >= 100) {
    end -= 2;
    std::memcpy(end, kDigitPairs + value % 100 * 2, 2);
    value /= 100;
  }
  if (value >= 10) {
    end -= 2;
    std::memcpy(end, kDigitPairs + value * 2, 2);
  } else if (value != 0) {
    *--end = static_cast<char>('0' + value);
  }
  return end;
}

char* putPowerOfTwo(char* end, std::uint64_t value, unsigned bits, const char* digits) noexcept {
  for (; value != 0; value >>= bits) {
    *--end = digits[value & ((1U << bits) - 1)];
  }
  return end;
}

constexpr char kLowerDigits[] = "0123456789abcdef";
constexpr char kUpperDigits[] = "0123456789ABCDEF";

bool isInteger(const FormatArgument& argument) noexcept {
  return argument.kind() == FormatKind::kInteger || argument.kind() == FormatKind::kCharacter;
}

/// The bits of an integer argument as its conversion sees them, sign-extended for a signed one.
std::uint64_t integerBits(const FormatArgument& argument, const FormatDirective& directive, bool isSigned) noexcept {
  if (!isInteger(argument)) {
    return 0;
  }
  unsigned bytes = argument.size();
  if (directive.narrow != 0) {
    bytes = static_cast<unsigned>(directive.narrow);
  }
  const unsigned unused = 64 - 8 * bytes;
  const std::uint64_t high = argument.integer() << unused;
  return isSigned ? static_cast<std::uint64_t>(static_cast<std::int64_t>(high) >> unused) : high >> unused;
}

void appendDigits(FormatSink& out, const FormatDirective& directive, std::string_view prefix,
                  std::string_view digits) noexcept {
  std::size_t zeros;
  if (directive.precision >= 0) {
    zeros = lacking(directive.precision, digits.size());
  } else if (directive.zero && !directive.left) {
    zeros = lacking(directive.width, prefix.size() + digits.size());
  } else {
    zeros = 0;
  }
  if (digits.empty() && directive.precision < 0 && zeros == 0) {
    zeros = 1;
  }
  appendPadded(out, directive, prefix, zeros, digits);
}

/// What most integers are shown as: no width, no precision, no flag that changes anything.
constexpr bool isPlain(const FormatDirective& directive) noexcept {
  return directive.width == 0 && directive.precision < 0 && !directive.plus && !directive.blank;
}

std::string_view signText(bool negative, const FormatDirective& directive) noexcept {
  return negative ? "-" : directive.plus ? "+" : directive.blank ? " " : "";
}

void appendSigned(FormatSink& out, const FormatDirective& directive, std::int64_t value) noexcept {
  char digits[24];
  char* const end = digits + sizeof digits;
  const auto magnitude = value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
  char* begin = putDecimal(end, magnitude);
  if (isPlain(directive)) {
    if (value <= 0) {
      *--begin = value == 0 ? '0' : '-';
    }
    out.append(std::string_view(begin, static_cast<std::size_t>(end - begin)));
    return;
  }
  appendDigits(out, directive, signText(value < 0, directive), {begin, static_cast<std::size_t>(end - begin)});
}

void appendUnsigned(FormatSink& out, const FormatDirective& directive, std::uint64_t value) noexcept {
  char digits[24];
  char* const end = digits + sizeof digits;
  char* begin;
  std::string_view prefix;
  switch (directive.conversion) {
    case 'x':
      begin = putPowerOfTwo(end, value, 4, kLowerDigits);
      prefix = directive.alternate ? "0x" : "";
      break;
    case 'X':
      begin = putPowerOfTwo(end, value, 4, kUpperDigits);
      prefix = directive.alternate ? "0X" : "";
      break;
    case 'o':
      begin = putPowerOfTwo(end, value, 3, kLowerDigits);
      if (directive.alternate) {
        *--begin = '0';  // a digit, not a prefix: precision and zeros count it
      }
      break;
    default:
      begin = putDecimal(end, value);
      break;
  }
  appendDigits(out, directive, prefix, {begin, static_cast<std::size_t>(end - begin)});
}

/// Digits that a double has behind the point at most; more are not shown.
constexpr int kMostFraction = 1074;

// Not inlined, so that only a real costs the stack of its buffer.
[[gnu::noinline]] void appendFixed(FormatSink& out, const FormatDirective& directive, double value) noexcept {
  const std::string_view sign = signText(std::signbit(value) && !std::isnan(value), directive);
  if (!std::isfinite(value)) {
    appendPadded(out, directive, sign, 0, std::isnan(value) ? "nan" : "inf");
    return;
  }
  const int precision = directive.precision < 0 ? 6 : std::min(directive.precision, kMostFraction);
  char buffer[309 + 1 + kMostFraction];
  const auto end =
      std::to_chars(buffer, buffer + sizeof buffer, std::fabs(value), std::chars_format::fixed, precision).ptr;
  const std::string_view body(buffer, static_cast<std::size_t>(end - buffer));
  const bool zero = directive.zero && !directive.left;
  appendPadded(out, directive, sign, zero ? lacking(directive.width, sign.size() + body.size()) : 0, body);
}

/// The fewest digits that read back as the same number; an exponent only outside 1e-4 to 1e17.
template <class Real>
std::string_view shortest(Real value, char (&buffer)[40]) noexcept {
  if (std::isnan(value)) {
    return "nan";
  }
  const Real magnitude = std::fabs(value);
  const bool plain = magnitude == 0 || (magnitude >= Real(1e-4) && magnitude < Real(1e17));
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value,
                                    plain ? std::chars_format::fixed : std::chars_format::scientific);
  return {buffer, static_cast<std::size_t>(result.ptr - buffer)};
}

void appendCharacter(FormatSink& out, const FormatDirective& directive, const FormatArgument& argument) noexcept {
  const char byte = static_cast<char>(argument.integer());
  appendPadded(out, directive, {}, 0, isInteger(argument) ? std::string_view(&byte, 1) : kNull);
}

void appendObject(FormatSink& out, const FormatDirective& directive, const FormatArgument& argument) noexcept {
  switch (argument.kind()) {
    case FormatKind::kText:
      appendText(out, directive, argument.text());
      break;
    case FormatKind::kInteger:
      if (argument.isSigned()) {
        appendSigned(out, directive, static_cast<std::int64_t>(argument.integer()));
      } else {
        appendUnsigned(out, directive, argument.integer());
      }
      break;
    case FormatKind::kCharacter:
      appendCharacter(out, directive, argument);
      break;
    case FormatKind::kReal: {
      char buffer[40];
      appendText(out, directive,
                 argument.size() == sizeof(float) ? shortest(static_cast<float>(argument.real()), buffer)
                                                  : shortest(argument.real(), buffer));
      break;
    }
    case FormatKind::kObject:
      appendText(out, directive, argument.description());
      break;
    default:
      appendText(out, directive, kNull);
      break;
  }
}

/// False for a conversion that does not exist.
bool appendArgument(FormatSink& out, const FormatDirective& directive, const FormatArgument& argument) noexcept {
  switch (directive.conversion) {
    case '@':
      appendObject(out, directive, argument);
      return true;
    case 's':
      appendText(out, directive, argument.kind() == FormatKind::kText ? argument.text() : kNull);
      return true;
    case 'd':
    case 'i':
      appendSigned(out, directive, static_cast<std::int64_t>(integerBits(argument, directive, true)));
      return true;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      appendUnsigned(out, directive, integerBits(argument, directive, false));
      return true;
    case 'c':
      appendCharacter(out, directive, argument);
      return true;
    case 'f':
      appendFixed(out, directive, argument.kind() == FormatKind::kReal ? argument.real() : 0.0);
      return true;
    case 'p': {
      FormatDirective address = directive;
      address.conversion = 'x';
      address.alternate = true;
      appendUnsigned(out, address, argument.kind() == FormatKind::kPointer ? argument.integer() : 0);
      return true;
    }
    default:
      return false;
  }
}

void appendFormat(FormatSink& out, std::string_view text, const FormatArgument* arguments, std::size_t count) noexcept {
  const char* at = text.data();
  const char* const end = at + text.size();
  const FormatArgument missing;
  std::size_t used = 0;
  while (at != end) {
    const char* percent = at;
    while (percent != end && *percent != '%') {
      ++percent;
    }
    out.append(std::string_view(at, static_cast<std::size_t>(percent - at)));
    if (percent == end) {
      return;
    }
    FormatDirective directive;
    at = FormatDirective::parse(percent + 1, end, directive);
    if (directive.conversion == '%') {
      out.append('%');
    } else if (appendArgument(out, directive, used < count ? arguments[used] : missing)) {
      ++used;
    } else {
      out.append(std::string_view(percent, static_cast<std::size_t>(at - percent)));
    }
  }
}

}  // namespace

namespace format_detail {

String format(std::string_view text, const FormatArgument* arguments, std::size_t count) noexcept {
  StringBuilder overflow;
  FormatSink sink(overflow);
  appendFormat(sink, text, arguments, count);
  return sink.finish();
}

void append(StringBuilder& out, std::string_view text, const FormatArgument* arguments, std::size_t count) noexcept {
  FormatSink sink(out);
  appendFormat(sink, text, arguments, count);
  sink.flush();
}

}  // namespace format_detail

void FormatArgument::appendItem(StringBuilder& out, const FormatArgument& item) noexcept {
  if (item.kind() != FormatKind::kObject) {
    format_detail::append(out, "%@", &item, 1);
    return;
  }
  const String description = item.description();
  for (const char byte : description.view()) {  // lines of a nested array move inwards
    out.append(byte);
    if (byte == '\n') {
      out.append("    ");
    }
  }
}

}  // namespace core
