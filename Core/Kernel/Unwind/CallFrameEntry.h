#pragma once

#include <cstdint>
#include <span>

#include "Core/Kernel/Unwind/CallFrameRow.h"
#include "Core/Kernel/Unwind/CallFrameTable.h"

namespace core {

/// The head of an entry of either kind.
struct EntryHead {
  std::uint64_t end;      ///< address of the next entry
  std::uint64_t idPlace;  ///< address of `id`
  std::uint32_t id;       ///< 0 in a common part, else the distance back to it

  /// False at the end of the table and for lengths that lead out of it.
  static bool take(ByteCursor& cursor, EntryHead& head) noexcept;
};

/// What many functions' entries share (a CIE). Fit for the crash path.
struct CallFrameCommon {
  std::uint64_t address = 0;  ///< 0: nothing was read
  std::uint64_t codeFactor = 1;
  std::uint64_t dataFactor = 1;  ///< signed
  std::uint64_t returnColumn = 0;
  std::uint8_t pointerEncoding = 0;
  bool isSignalFrame = false;
  bool hasAugmentationData = false;
  CallFrameRow initial;  ///< the row that each function begins with

  /// False for bytes at `place` that are no such part of a known shape.
  bool read(const CallFrameTable& table, const OwnMemory& memory, std::uint64_t place) noexcept;

 private:
  bool readHeader(ByteCursor& cursor, const OwnMemory& memory) noexcept;
  bool readAugmentation(ByteCursor& cursor, std::span<const char> letters, const OwnMemory& memory) noexcept;
};

/// One function's entry in a call-frame table (an FDE): its code, and where the program lies
/// that computes its rows. Fit for the crash path.
struct CallFrameEntry {
  std::uint64_t start = 0;
  std::uint64_t size = 0;
  std::uint64_t program = 0;  ///< addresses in the table's entries
  std::uint64_t programEnd = 0;

  bool covers(std::uint64_t address) const noexcept { return address - start < size; }

  /// Reads the entry at `place`, and its common part into `common` unless that is there
  /// already. False for bytes that are no entry of a known shape.
  bool read(const CallFrameTable& table, const OwnMemory& memory, std::uint64_t place,
            CallFrameCommon& common) noexcept;
};

}  // namespace core
