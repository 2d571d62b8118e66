#pragma once

#include <cstdint>
#include <span>

#include "Core/Memory/String.h"

namespace core {

/// A random (version 4) UUID in upper-case hexadecimal with dashes, from the kernel's generator.
String generateUuid() noexcept;

/// Two digits a byte, high nibble first.
String lowerHex(std::span<const std::uint8_t> bytes) noexcept;
String upperHex(std::span<const std::uint8_t> bytes) noexcept;

}  // namespace core
