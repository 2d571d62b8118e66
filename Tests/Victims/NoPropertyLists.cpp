// Stands in for the reader of property lists in static victims: the XML library that it needs
// comes in shared form only, and a victim has no bundle.

#include "Platform/Foundation/PropertyListReader.h"

namespace platform {

core::Result<core::Value> readPropertyList(std::span<const std::uint8_t>) noexcept {
  return core::ParseError{"is not read here", 0};
}

core::Result<core::Value> readPropertyListFile(const core::String&, std::size_t) noexcept {
  return core::ParseError{"is not read here", 0};
}

}  // namespace platform
