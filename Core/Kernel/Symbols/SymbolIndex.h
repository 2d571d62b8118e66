#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "Core/Kernel/ImageHeaders.h"
#include "Core/Memory/Array.h"
#include "Core/Memory/Bytes.h"
#include "Core/Memory/String.h"

namespace core {

struct FunctionSymbols;

/// A function that covers an address.
struct Symbol {
  std::string_view name;   ///< as the program file has it, not demangled; lives with the index
  std::uint64_t distance;  ///< of the address from the start
  std::uint64_t start;     ///< as an address of this process
  std::uint64_t size;
};

/// The functions of one image by address. Made in normal running and never changed after that;
/// looking one up takes no memory, no lock and no system call, and is fit for the crash path.
class SymbolIndex {
 public:
  /// From all symbols of the file at `path` where it has them and still is the image's own, else
  /// from the exported ones in memory. Empty for a stripped static program.
  static SymbolIndex of(const ImageHeaders& headers, const String& path) noexcept;

  /// The innermost function around `address`; nothing between functions, even where one is near.
  std::optional<Symbol> lookup(std::uint64_t address) const noexcept;

  std::size_t size() const noexcept { return starts_.size(); }

 private:
  static constexpr std::uint32_t kNone = 0xFFFFFFFF;

  struct Extent {
    std::uint32_t size;
    std::uint32_t name;
    /// The nearest function before that ends behind this one: next to be asked for an address
    /// behind this one's end.
    std::uint32_t enclosing;
  };

  SymbolIndex(std::uint64_t base, FunctionSymbols symbols) noexcept;

  std::uint64_t base_;
  Array<std::uint32_t> starts_;  // from the base, ascending; apart, so that a search touches little memory
  Array<Extent> extents_;        // of each start
  Bytes names_;
};

}  // namespace core
