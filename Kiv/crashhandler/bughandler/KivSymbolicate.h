#pragma once

#include <cstdint>
#include <span>

#include "Core/Kernel/Symbols/SymbolIndex.h"

inline constexpr std::size_t kKivSymbolBuffer = 512;

/// Writes the name of the function around `address` and the distance from its start, "name + 12",
/// 511 characters at most and a terminator. Answers the number of characters, 0 when nothing
/// is known. From the tables of core::SymbolTables alone: fit for the crash path.
std::size_t kiv_symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) noexcept;

/// The same of a function that was looked up elsewhere; nothing for none.
std::size_t kiv_symbolicate(const std::optional<core::Symbol>& symbol,
                            std::span<char, kKivSymbolBuffer> buffer) noexcept;
