#pragma once

#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "Core/Text/Format.h"

namespace test {

/// Bytes as the tests write them: "0A 10 7F 0B".
inline std::string hex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += core::kiv_format("%s%02X", text.empty() ? "" : " ", byte).view();
  }
  return text;
}

inline std::vector<std::uint8_t> fromHex(std::string_view text) {
  std::vector<std::uint8_t> bytes;
  std::istringstream digits{std::string(text)};
  for (unsigned byte = 0; digits >> std::hex >> byte;) {
    bytes.push_back(static_cast<std::uint8_t>(byte));
  }
  return bytes;
}

/// What `work` throws, "" for nothing.
template <class Exception, class Work>
std::string messageOf(Work work) {
  try {
    work();
  } catch (const Exception& exception) {
    return exception.what();
  }
  return "";
}

}  // namespace test
