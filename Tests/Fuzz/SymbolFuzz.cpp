#include <cstdlib>

#include "Core/Kernel/Symbols/FunctionSymbols.h"
#include "Core/Kernel/Symbols/ProgramFile.h"
#include "Core/Kernel/Symbols/SymbolIndex.h"
#include "Tests/Support/SymbolImage.h"

namespace {

using core::FunctionSymbol;

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

/// What the index should find, the slow way.
const FunctionSymbol* innermost(const core::FunctionSymbols& symbols, std::uint64_t offset) {
  const FunctionSymbol* best = nullptr;
  for (const FunctionSymbol& each : symbols.functions) {
    const bool isInner =
        best == nullptr || each.start > best->start || (each.start == best->start && each.size < best->size);
    best = offset - each.start < each.size && isInner ? &each : best;
  }
  return best;
}

core::FunctionSymbols symbolsOf(const core::ImageHeaders& headers, const core::String& path) {
  if (const auto file = core::ProgramFile::open(path, headers)) {
    core::FunctionSymbols all = core::FunctionSymbols::read(*file, file->symbols(), headers);
    if (!all.functions.empty()) {
      return all;
    }
  }
  const core::OwnMemory memory;
  return core::FunctionSymbols::read(memory, core::exportedSymbols(headers, memory), headers);
}

}  // namespace

/// The first byte says whether the rest is the image in memory, its file, or both.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static test::LoadedBytes loaded;
  static const test::SymbolImage whole;
  if (size < 2 || size > test::LoadedBytes::kRoom) {
    return 0;
  }
  const std::span<const std::uint8_t> bytes(data + 1, size - 1);
  loaded.load(data[0] % 3 == 1 ? whole.bytes() : bytes);
  require(loaded.writeFile(data[0] % 3 == 0 ? whole.bytes() : bytes));
  core::ImageHeaders headers;
  if (!headers.read(loaded.base())) {
    return 0;
  }
  const core::String path(loaded.filePath());
  const core::FunctionSymbols symbols = symbolsOf(headers, path);
  const core::SymbolIndex index = core::SymbolIndex::of(headers, path);
  require(index.size() <= symbols.functions.size());
  std::size_t left = 200;
  for (const FunctionSymbol& each : symbols.functions) {
    for (const std::uint64_t offset : {std::uint64_t{each.start}, std::uint64_t{each.start} + each.size}) {
      const FunctionSymbol* expected = innermost(symbols, offset);
      const auto found = index.lookup(headers.base() + offset);
      require(found.has_value() == (expected != nullptr));
      require(!found || (found->distance == offset - expected->start && found->size == expected->size &&
                         found->name.size() <= symbols.names.size()));
    }
    if (--left == 0) {
      break;
    }
  }
  return 0;
}
