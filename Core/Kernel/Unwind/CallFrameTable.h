#pragma once

#include <array>
#include <cstdint>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Unwind/ByteCursor.h"
#include "Core/Memory/Bytes.h"

namespace core {

/// Room for the table bytes that a look-up has to fetch.
using TableBlock = std::array<std::uint8_t, 256>;

/// A stretch of an image's tables: where it lies, and a copy of it where one was made ahead. A
/// copy is read at the speed of memory and outlives the image; without one each read is checked.
struct TableStretch {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  Data copy;

  bool empty() const noexcept { return start == end; }
  /// Copies all of it, unless that is done or it cannot be read.
  void makeCopy(const OwnMemory& memory) noexcept;
  /// From `address` to the end; at the end, and failing, for an address outside.
  ByteCursor cursor(const OwnMemory& memory, TableBlock& block, std::uint64_t address) const noexcept;
};

/// The call-frame information of one image: its entries (.eh_frame) and the sorted index of
/// them (.eh_frame_hdr, or one of our own). Fit for the crash path.
struct CallFrameTable {
  TableStretch entries;
  /// Pairs of signed 32-bit distances from `anchor`: a function's start and its entry, sorted.
  TableStretch index;
  std::uint64_t anchor = 0;

  /// One pair of the index as addresses.
  struct Function {
    std::uint64_t start = 0;
    std::uint64_t entry = 0;
  };
  std::size_t functionCount() const noexcept { return (index.end - index.start) / sizeof(std::uint64_t); }
  /// False when the pair cannot be read.
  bool function(const OwnMemory& memory, std::size_t number, Function& into) const noexcept;

  /// The address of the entry of the last function that starts at or before `address`, 0 for none.
  std::uint64_t find(const OwnMemory& memory, std::uint64_t address) const noexcept;

 private:
  std::uint64_t atDistance(std::int64_t distance) const noexcept {
    return anchor + static_cast<std::uint64_t>(distance);
  }
};

}  // namespace core
