#pragma once

#include <cstdint>
#include <span>

#include "Core/Memory/Result.h"
#include "Core/PropertyList/Value.h"

namespace core {

/// Levels of arrays and dictionaries that are read or written at most.
inline constexpr int kPropertyListDepth = 512;

/// The binary property list ("bplist00") of `root`. Equal strings, numbers and data are
/// written once. Null is written as null; `root` deeper than kPropertyListDepth is cut there to null.
Data encodeBinaryPropertyList(const Value& root) noexcept;

/// Reads a binary property list of any source: every offset, count and reference is checked,
/// memory stays in proportion to the input, circles and bombs of shared references end in an error.
Result<Value> decodeBinaryPropertyList(std::span<const std::uint8_t> bytes) noexcept;

}  // namespace core
