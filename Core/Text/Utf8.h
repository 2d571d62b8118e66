#pragma once

#include <cstddef>
#include <string_view>

namespace core {

/// What stands for text that cannot be decoded.
inline constexpr char32_t kReplacementCharacter = 0xFFFD;

struct Utf8Character {
  char32_t codePoint;
  std::size_t size;  ///< bytes taken, at least 1
  bool valid;
};

/// The character that begins `text`, which is not empty. A byte that begins no well-formed
/// sequence (overlong forms, surrogates and values above U+10FFFF count as none) is an
/// invalid kReplacementCharacter of size 1. Crash-path safe, as everything here.
constexpr Utf8Character decodeUtf8(std::string_view text) noexcept {
  const auto lead = static_cast<unsigned char>(text.front());
  if (lead < 0x80) {
    return {lead, 1, true};
  }
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const std::size_t size = lead < 0xC0 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : 0;
  if (size == 0 || size > text.size()) {
    return {kReplacementCharacter, 1, false};
  }
  char32_t codePoint = lead & (0x7FU >> size);
  for (std::size_t i = 1; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) {
      return {kReplacementCharacter, 1, false};
    }
    codePoint = (codePoint << 6) | (byte & 0x3FU);
  }
  const bool surrogate = codePoint >= 0xD800 && codePoint < 0xE000;
  if (codePoint < kLeast[size] || codePoint > 0x10FFFF || surrogate) {
    return {kReplacementCharacter, 1, false};
  }
  return {codePoint, size, true};
}

constexpr std::size_t utf8Size(char32_t codePoint) noexcept {
  return codePoint < 0x80 ? 1 : codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
}

/// Writes utf8Size(codePoint) bytes and answers where they end.
constexpr char* encodeUtf8(char32_t codePoint, char* out) noexcept {
  const std::size_t size = utf8Size(codePoint);
  if (size == 1) {
    *out = static_cast<char>(codePoint);
    return out + 1;
  }
  for (std::size_t i = size - 1; i != 0; --i) {
    out[i] = static_cast<char>(0x80 | (codePoint & 0x3F));
    codePoint >>= 6;
  }
  *out = static_cast<char>((0xF00U >> size) | codePoint);
  return out + size;
}

}  // namespace core
