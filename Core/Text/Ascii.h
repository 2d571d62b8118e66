#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace core {

/// Whether every byte is below 128; eight of them at a time, since texts are long. Crash-path safe.
inline bool isAscii(std::string_view text) noexcept {
  constexpr std::uint64_t kHighBits = 0x8080808080808080U;
  std::uint64_t seen = 0;
  std::size_t at = 0;
  for (; at + sizeof seen <= text.size(); at += sizeof seen) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + at, sizeof word);
    seen |= word;
  }
  for (; at < text.size(); ++at) {
    seen |= static_cast<unsigned char>(text[at]);
  }
  return (seen & kHighBits) == 0;
}

}  // namespace core
