#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

/// What is in a file, for showing: objects keep the order of the file.
using Document = nlohmann::ordered_json;

using ByteView = std::span<const std::uint8_t>;

/// A file that could be shown up to `offset` only, with what was read until there.
struct BrokenDocument : std::runtime_error {
  BrokenDocument(std::size_t where, const std::string& why, Document until = nullptr)
      : std::runtime_error(why), offset(where), read(std::move(until)) {}

  std::size_t offset;
  Document read;
};

/// Bytes as a document: text where they are readable UTF-8, else their number and digits.
Document documentOfBytes(ByteView bytes);

inline std::string_view textOf(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
