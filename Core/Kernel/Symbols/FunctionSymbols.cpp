#include "Core/Kernel/Symbols/FunctionSymbols.h"

#include <algorithm>
#include <array>
#include <limits>
#include <tuple>
#include <utility>

#include "Core/Kernel/Symbols/ProgramFile.h"

namespace core {
namespace {

/// More than the largest programs have; beyond that a count is corrupt.
constexpr std::uint64_t kMostSymbols = std::uint64_t{1} << 22;
constexpr std::uint64_t kMostNameBytes = std::uint64_t{1} << 26;
constexpr std::uint64_t kMostReserved = std::uint64_t{1} << 16;  // on a count's word alone
constexpr std::size_t kSymbolsAtOnce = 2048;

constexpr std::uint32_t rankOf(unsigned binding) noexcept {
  return binding == STB_GLOBAL ? 0 : binding == STB_WEAK ? 1 : 2;
}

bool isFunction(const Elf64_Sym& symbol) noexcept {
  const unsigned type = ELF64_ST_TYPE(symbol.st_info);
  return (type == STT_FUNC || type == STT_GNU_IFUNC) && symbol.st_shndx != SHN_UNDEF && symbol.st_size != 0;
}

/// Adds the symbol when it is a function of the image.
void take(const Elf64_Sym& symbol, const ImageHeaders& headers, FunctionSymbols& into) noexcept {
  const std::uint64_t start = headers.bias() + symbol.st_value - headers.base();
  const std::uint64_t end =
      std::min<std::uint64_t>(headers.end() - headers.base(), std::numeric_limits<std::uint32_t>::max());
  if (isFunction(symbol) && start < end && symbol.st_name < into.names.size() &&
      into.names.data()[symbol.st_name] != '\0') {
    into.functions.append({static_cast<std::uint32_t>(start),
                           static_cast<std::uint32_t>(std::min(symbol.st_size, end - start)), symbol.st_name,
                           rankOf(ELF64_ST_BIND(symbol.st_info))});
  }
}

constexpr unsigned kDigitBits = 8;
constexpr unsigned kStartBits = 32;

/// Digit by digit from the lowest on: a fraction of the time that comparisons take.
void sortByStart(Array<FunctionSymbol>& functions) noexcept {
  Array<FunctionSymbol> sorted(functions);
  for (unsigned shift = 0; shift < kStartBits; shift += kDigitBits) {
    constexpr std::uint32_t kMask = (1U << kDigitBits) - 1;
    std::array<std::uint32_t, kMask + 1> places{};
    for (const FunctionSymbol& function : functions) {
      ++places[(function.start >> shift) & kMask];
    }
    std::uint32_t before = 0;
    for (std::uint32_t& place : places) {
      before += std::exchange(place, before);
    }
    for (const FunctionSymbol& function : functions) {
      sorted[places[(function.start >> shift) & kMask]++] = function;
    }
    std::swap(functions, sorted);
  }
}

}  // namespace

template <class Source>
FunctionSymbols FunctionSymbols::read(const Source& source, const SymbolSections& sections,
                                      const ImageHeaders& headers) noexcept {
  FunctionSymbols made;
  if (sections.count == 0 || sections.namesSize > kMostNameBytes) {
    return made;
  }
  bool isRead = false;
  const auto namesSize = static_cast<std::size_t>(sections.namesSize);
  made.names = Bytes::filled(namesSize, [&](char* into) { isRead = source.read(sections.names, into, namesSize); });
  if (!isRead) {
    return made;
  }
  const std::uint64_t count = std::min(sections.count, kMostSymbols);
  made.functions.reserve(static_cast<std::size_t>(std::min(count, kMostReserved)));
  Array<Elf64_Sym> block;
  block.reserve(kSymbolsAtOnce);
  for (std::uint64_t first = 0; first < count; first += kSymbolsAtOnce) {
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(count - first, kSymbolsAtOnce));
    if (!source.read(sections.symbols + first * sizeof(Elf64_Sym), block.data(), taken * sizeof(Elf64_Sym))) {
      break;
    }
    for (std::size_t i = 0; i < taken; ++i) {
      take(block.data()[i], headers, made);
    }
  }
  return made;
}

template FunctionSymbols FunctionSymbols::read(const OwnMemory&, const SymbolSections&, const ImageHeaders&) noexcept;
template FunctionSymbols FunctionSymbols::read(const ProgramFile&, const SymbolSections&, const ImageHeaders&) noexcept;

void FunctionSymbols::sort() noexcept {
  sortByStart(functions);
  FunctionSymbol* kept = functions.begin();
  for (FunctionSymbol* first = functions.begin(); first != functions.end();) {
    FunctionSymbol* const last =
        std::find_if(first, functions.end(), [first](const FunctionSymbol& f) { return f.start != first->start; });
    if (last - first > 1) {
      std::sort(first, last, [](const FunctionSymbol& a, const FunctionSymbol& b) {
        return std::tie(b.size, a.rank, a.name) < std::tie(a.size, b.rank, b.name);
      });
    }
    const auto isSamePiece = [](const FunctionSymbol& a, const FunctionSymbol& b) { return a.size == b.size; };
    FunctionSymbol* const end = std::unique(first, last, isSamePiece);
    kept = std::move(first, end, kept);
    first = last;
  }
  while (functions.end() != kept) {
    functions.removeAt(functions.size() - 1);
  }
}

}  // namespace core
