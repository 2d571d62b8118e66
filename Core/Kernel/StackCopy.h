#pragma once

#include <cstdint>
#include <span>

namespace core {

/// The front of a stack as it was at one moment.
struct StackCopy {
  std::uint64_t address = 0;  ///< of the first byte
  std::span<const std::uint8_t> bytes{};
};

}  // namespace core
