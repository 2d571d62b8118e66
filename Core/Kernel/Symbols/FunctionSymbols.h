#pragma once

#include <cstdint>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Kernel/Symbols/SymbolSections.h"
#include "Core/Memory/Array.h"
#include "Core/Memory/Bytes.h"

namespace core {

/// One function, placed relative to its image's base.
struct FunctionSymbol {
  std::uint32_t start;
  std::uint32_t size;  ///< never 0, ends with the image at the latest
  std::uint32_t name;  ///< where it begins among the names
  std::uint32_t rank;  ///< of names for the same code the lower one is taken: global, weak, local
};

/// The functions that a table of symbols tells of, and the table's names.
struct FunctionSymbols {
  Array<FunctionSymbol> functions;
  Bytes names;

  /// Reads through `source.read(place, into, size)` of an OwnMemory or a ProgramFile, in the
  /// table's order. What is not whole (no size, no name, outside the image) is left out: a symbol
  /// of size 0 covers nothing. Normal running only.
  template <class Source>
  static FunctionSymbols read(const Source& source, const SymbolSections& sections,
                              const ImageHeaders& headers) noexcept;

  /// Puts the functions in the order of their addresses, the larger of two that begin together
  /// first, and drops further names for the same piece of code.
  void sort() noexcept;
};

}  // namespace core
