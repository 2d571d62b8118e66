#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Core/Memory/Result.h"
#include "Core/Memory/String.h"
#include "Core/PropertyList/Value.h"

namespace platform {

/// Reads a property list of any source: binary ones by their magic, else XML in UTF-8. Of XML
/// the five named entities and character numbers are known; a document type is skipped, with
/// all that it declares. Answers the first thing found wrong and its place in the bytes.
core::Result<core::Value> readPropertyList(std::span<const std::uint8_t> bytes) noexcept;

/// The same for a file of at most `limit` bytes; a larger one "is too large", what is missing,
/// forbidden or no regular file "cannot be read".
core::Result<core::Value> readPropertyListFile(const core::String& path,
                                               std::size_t limit = std::size_t{64} << 20) noexcept;

}  // namespace platform
