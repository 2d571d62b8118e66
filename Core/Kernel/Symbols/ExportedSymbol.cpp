#include "Core/Kernel/Symbols/ExportedSymbol.h"

#include <elf.h>

#include <algorithm>
#include <array>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Symbols/SymbolSections.h"

namespace core {
namespace {

/// More than the largest libraries have; beyond that a count is corrupt.
constexpr std::uint64_t kMostSymbols = std::uint64_t{1} << 20;
constexpr std::size_t kSymbolsAtOnce = 32;

bool covers(const Elf64_Sym& symbol, std::uint64_t address, std::uint64_t bias) noexcept {
  const unsigned type = ELF64_ST_TYPE(symbol.st_info);
  return (type == STT_FUNC || type == STT_GNU_IFUNC) && symbol.st_shndx != SHN_UNDEF &&
         address - (bias + symbol.st_value) < symbol.st_size;
}

}  // namespace

std::optional<Symbol> findExportedSymbol(std::uint64_t base, std::uint64_t address, std::span<char> name) noexcept {
  ImageHeaders headers;
  const OwnMemory memory;
  if (!headers.read(base)) {
    return std::nullopt;
  }
  const SymbolSections sections = exportedSymbols(headers, memory);
  const std::uint64_t count = std::min(sections.count, kMostSymbols);
  std::optional<Elf64_Sym> innermost;
  std::array<Elf64_Sym, kSymbolsAtOnce> block;
  for (std::uint64_t first = 0; first < count; first += block.size()) {
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(count - first, block.size()));
    if (!memory.read(sections.symbols + first * sizeof block[0], block.data(), taken * sizeof block[0])) {
      break;
    }
    for (const Elf64_Sym& symbol : std::span(block).first(taken)) {
      if (covers(symbol, address, headers.bias()) && (!innermost || symbol.st_value > innermost->st_value)) {
        innermost = symbol;
      }
    }
  }
  if (!innermost || innermost->st_name >= sections.namesSize) {
    return std::nullopt;
  }
  const auto most =
      static_cast<std::size_t>(std::min<std::uint64_t>(sections.namesSize - innermost->st_name, name.size()));
  const std::size_t size = memory.readFront(sections.names + innermost->st_name, name.data(), most);
  const char* end = std::find(name.data(), name.data() + size, '\0');
  const std::uint64_t start = headers.bias() + innermost->st_value;
  return Symbol{{name.data(), static_cast<std::size_t>(end - name.data())}, address - start, start, innermost->st_size};
}

}  // namespace core
