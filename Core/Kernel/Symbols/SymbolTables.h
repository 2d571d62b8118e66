#pragma once

#include <cstdint>
#include <optional>

#include "Core/Kernel/Symbols/SymbolIndex.h"
#include "Core/Memory/Viewed.h"

namespace core {

/// The symbol indexes of the images of the process, published so that whoever names addresses,
/// a crash too, takes no lock and sees one state for as long as it looks.
class SymbolTables {
  struct Table;

 public:
  /// Reads the memory map anew, makes the indexes of images that are new and drops those of
  /// images that are gone. Takes milliseconds for large images: for a background thread in normal
  /// running. Does nothing on the owner of a crash.
  static void refresh() noexcept;

  /// One state of the tables, which stays while the object lives. Fit for the crash path.
  class View {
   public:
    View() noexcept;

    /// The function around `address`, nothing where there is none; its name lives with the view.
    std::optional<Symbol> lookup(std::uint64_t address) const noexcept;
    /// Whether there is an index of the image that begins there.
    bool has(std::uint64_t base) const noexcept;

   private:
    Viewed<Table>::View table_;
  };

 private:
  static Viewed<Table> tables_;
};

}  // namespace core
