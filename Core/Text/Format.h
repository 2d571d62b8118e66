#pragma once

#include <string_view>
#include <type_traits>

#include "Core/Memory/String.h"
#include "Core/Text/FormatArgument.h"
#include "Core/Text/FormatDirective.h"

namespace core {
namespace format_detail {

enum class FormatFault : std::uint8_t { kNone, kMoreDirectives, kFewerDirectives, kUnfit, kUnknown };

constexpr bool fits(char conversion, FormatKind kind) noexcept {
  switch (conversion) {
    case '@':
      return kind != FormatKind::kPointer && kind != FormatKind::kUnsupported;
    case 's':
      return kind == FormatKind::kText || kind == FormatKind::kMissing;
    case 'f':
      return kind == FormatKind::kReal;
    case 'p':
      return kind == FormatKind::kPointer || kind == FormatKind::kMissing;
    default:
      return kind == FormatKind::kInteger || kind == FormatKind::kCharacter;
  }
}

/// What is wrong with a format for arguments of these kinds.
constexpr FormatFault faultOf(std::string_view text, const FormatKind* kinds, std::size_t count) noexcept {
  const char* at = text.data();
  const char* const end = at + text.size();
  std::size_t used = 0;
  while (at != end) {
    if (*at++ != '%') {
      continue;
    }
    FormatDirective directive;
    at = FormatDirective::parse(at, end, directive);
    if (directive.conversion == '%') {
      continue;
    }
    if (std::string_view("@sfpdiuxXoc").find(directive.conversion) == std::string_view::npos) {
      return FormatFault::kUnknown;
    }
    if (used == count) {
      return FormatFault::kMoreDirectives;
    }
    if (!fits(directive.conversion, kinds[used++])) {
      return FormatFault::kUnfit;
    }
  }
  return used == count ? FormatFault::kNone : FormatFault::kFewerDirectives;
}

// Not constant expressions: a call stops the compilation and its name says why.
void formatHasMoreDirectivesThanArguments();
void formatHasFewerDirectivesThanArguments();
void formatDirectiveDoesNotFitItsArgument();
void formatDirectiveIsUnknown();

String format(std::string_view text, const FormatArgument* arguments, std::size_t count) noexcept;
void append(StringBuilder& out, std::string_view text, const FormatArgument* arguments, std::size_t count) noexcept;

}  // namespace format_detail

/// A format text that is known only at run time. Where it asks for what the arguments do
/// not have, "(null)" or 0 is shown; an unknown conversion is shown as it stands.
struct UncheckedFormat {
  std::string_view text;
};

/// A format text for arguments of the types `A`. A literal is checked when it is compiled:
/// number of arguments and whether each fits its conversion.
template <class... A>
class FormatString {
 public:
  template <class T>
  requires std::is_convertible_v<const T&, std::string_view>
  consteval FormatString(const T& literal) : text_(literal) {
    constexpr FormatKind kKinds[] = {format_detail::kindOf<std::remove_cv_t<A>>()..., FormatKind::kMissing};
    switch (format_detail::faultOf(text_, kKinds, sizeof...(A))) {
      case format_detail::FormatFault::kNone:
        break;
      case format_detail::FormatFault::kMoreDirectives:
        format_detail::formatHasMoreDirectivesThanArguments();
        break;
      case format_detail::FormatFault::kFewerDirectives:
        format_detail::formatHasFewerDirectivesThanArguments();
        break;
      case format_detail::FormatFault::kUnfit:
        format_detail::formatDirectiveDoesNotFitItsArgument();
        break;
      case format_detail::FormatFault::kUnknown:
        format_detail::formatDirectiveIsUnknown();
        break;
    }
  }

  FormatString(UncheckedFormat format) noexcept : text_(format.text) {}

  constexpr std::string_view text() const noexcept { return text_; }

 private:
  std::string_view text_;
};

/// The text of a printf-like format, fit for the crash path (no C library, no locale).
///
///     kiv_format("Thread %d name: %@", index, name)
///
/// %@ shows texts, numbers, booleans as 1 and 0, objects by their description(), arrays in
/// parentheses, dictionaries in braces; an empty optional or pointer is "(null)". %s takes
/// texts; %d %i %u %x %X %o %c integers; %f reals; %p pointers. Flags, width and precision are
/// C's, in bytes. Apart from C: an integer prints by its own size whatever the length modifier
/// (h and hh do cut it), and # puts 0x before a zero too.
template <class... A>
String kiv_format(FormatString<std::type_identity_t<A>...> format, const A&... arguments) noexcept {
  const FormatArgument erased[] = {FormatArgument(arguments)..., FormatArgument()};
  return format_detail::format(format.text(), erased, sizeof...(A));
}

/// The same at the end of `out`, into whose text no argument may point.
template <class... A>
void kiv_append(StringBuilder& out, FormatString<std::type_identity_t<A>...> format, const A&... arguments) noexcept {
  const FormatArgument erased[] = {FormatArgument(arguments)..., FormatArgument()};
  format_detail::append(out, format.text(), erased, sizeof...(A));
}

}  // namespace core
