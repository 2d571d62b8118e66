#pragma once

#include <cstdint>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/OwnMemory.h"

namespace core {

/// Where a table of symbols (Elf64_Sym each) and their names stand: offsets in a program file or
/// addresses in memory, as trustworthy as what they were read from. `count` is 0 for no table.
struct SymbolSections {
  std::uint64_t symbols = 0;
  std::uint64_t count = 0;
  std::uint64_t names = 0;
  std::uint64_t namesSize = 0;
};

/// The exported symbols of an image, which stand in memory for the loader. It is told how many
/// there are by no more than its hash tables. Fit for the crash path.
SymbolSections exportedSymbols(const ImageHeaders& headers, const OwnMemory& memory) noexcept;

}  // namespace core
