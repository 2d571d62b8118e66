#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "Core/Kernel/Symbols/SymbolIndex.h"

namespace core {

/// The exported function around an address of an image in memory, for one that has no index yet: every
/// symbol of it is looked at, some hundred a microsecond. Its name is written into `name`, cut where
/// that is too short. Fit for the crash path.
std::optional<Symbol> findExportedSymbol(std::uint64_t base, std::uint64_t address, std::span<char> name) noexcept;

}  // namespace core
