#include "Core/Kernel/Symbols/SymbolIndex.h"

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Symbols/FunctionSymbols.h"
#include "Core/Kernel/Symbols/ProgramFile.h"

namespace core {

SymbolIndex SymbolIndex::of(const ImageHeaders& headers, const String& path) noexcept {
  if (const auto file = ProgramFile::open(path, headers)) {
    FunctionSymbols all = FunctionSymbols::read(*file, file->symbols(), headers);
    if (!all.functions.empty()) {
      return SymbolIndex(headers.base(), std::move(all));
    }
  }
  const OwnMemory memory;
  return SymbolIndex(headers.base(), FunctionSymbols::read(memory, exportedSymbols(headers, memory), headers));
}

SymbolIndex::SymbolIndex(std::uint64_t base, FunctionSymbols symbols) noexcept : base_(base) {
  symbols.sort();
  names_ = std::move(symbols.names);
  starts_.reserve(symbols.functions.size());
  extents_.reserve(symbols.functions.size());
  const auto endOf = [this](std::uint32_t i) { return std::uint64_t{starts_[i]} + extents_[i].size; };
  for (const FunctionSymbol& function : symbols.functions) {
    const std::uint64_t end = std::uint64_t{function.start} + function.size;
    std::uint32_t enclosing = extents_.empty() ? kNone : static_cast<std::uint32_t>(extents_.size() - 1);
    while (enclosing != kNone && endOf(enclosing) <= end) {
      enclosing = extents_[enclosing].enclosing;
    }
    starts_.append(function.start);
    extents_.append({function.size, function.name, enclosing});
  }
}

std::optional<Symbol> SymbolIndex::lookup(std::uint64_t address) const noexcept {
  const std::uint64_t offset = address - base_;
  if (starts_.empty() || offset < starts_[0]) {
    return std::nullopt;
  }
  // Halves without a branch that depends on what was found: such branches are guessed wrong.
  const std::uint32_t* last = starts_.begin();
  for (std::size_t rest = starts_.size(); rest > 1;) {
    const std::size_t half = rest / 2;
    last += last[half] <= offset ? half : 0;
    rest -= half;
  }
  auto found = static_cast<std::uint32_t>(last - starts_.begin());
  while (found != kNone && offset - starts_[found] >= extents_[found].size) {
    found = extents_[found].enclosing;
  }
  if (found == kNone) {
    return std::nullopt;
  }
  const Extent& extent = extents_[found];
  return Symbol{names_.data() + extent.name, offset - starts_[found], base_ + starts_[found], extent.size};
}

}  // namespace core
