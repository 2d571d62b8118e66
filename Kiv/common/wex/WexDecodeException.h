#pragma once

#include <string>

#include "Core/Text/Format.h"
#include "Kiv/common/wex/WexException.h"

namespace analyticsyut {

/// Bytes that are no well-formed fields, or a value that cannot be one: there is no other
/// exception for encoding.
class WexDecodeException : public WexException {
 public:
  using WexException::WexException;

  /// Throws one with the formatted text, cut to what a buffer of 64 characters holds.
  template <class... A>
  [[noreturn, gnu::cold, gnu::noinline]] static void raise(core::FormatString<std::type_identity_t<A>...> format,
                                                           const A&... arguments) {
    throwCut(core::kiv_format(format, arguments...), 64);
  }
  /// The same with a buffer of 128 characters: the texts about sizes and byte vectors.
  template <class... A>
  [[noreturn, gnu::cold, gnu::noinline]] static void raiseLong(core::FormatString<std::type_identity_t<A>...> format,
                                                               const A&... arguments) {
    throwCut(core::kiv_format(format, arguments...), 128);
  }

 private:
  [[noreturn]] static void throwCut(std::string_view text, std::size_t bufferSize) {
    throw WexDecodeException(std::string(text.substr(0, bufferSize - 1)));
  }
};

}  // namespace analyticsyut
