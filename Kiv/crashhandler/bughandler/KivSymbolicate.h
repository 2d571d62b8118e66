#pragma once

#include <cstdint>
#include <span>

inline constexpr std::size_t kKivSymbolBuffer = 512;

/// Writes the name of the function around `address` and the distance from its start, "name + 12",
/// 511 characters at most and a terminator. Answers the number of characters, 0 when nothing
/// is known. From the tables of core::SymbolTables alone: fit for the crash path.
std::size_t kiv_symbolicate(std::uint64_t address, std::span<char, kKivSymbolBuffer> buffer) noexcept;
