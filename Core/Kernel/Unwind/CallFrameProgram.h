#pragma once

#include "Core/Kernel/Unwind/CallFrameEntry.h"

namespace core {

// The programs of call-frame tables (DW_CFA_*). False for instructions that are unknown, name
// impossible registers, or go back to states that were never kept. Fit for the crash path.

/// Runs the rest of a common part, before which `cursor` stands, into `common.initial`.
bool computeInitialRow(const CallFrameTable& table, CallFrameCommon& common, const OwnMemory& memory,
                       ByteCursor& cursor) noexcept;

/// Who is told the rows of a function: `take(object, row, start, end)` for the code from `start` to `end`.
struct RowReceiver {
  void* object;
  void (*take)(void* object, const CallFrameRow& row, std::uint64_t start, std::uint64_t end) noexcept;
};

/// All rows of `entry`, first to last, up to an instruction that makes no sense.
void computeRows(const CallFrameTable& table, const CallFrameCommon& common, const CallFrameEntry& entry,
                 const OwnMemory& memory, RowReceiver receiver) noexcept;

/// The row that holds at `address`, which `entry` covers.
bool computeRow(const CallFrameTable& table, const CallFrameCommon& common, const CallFrameEntry& entry,
                const OwnMemory& memory, std::uint64_t address, CallFrameRow& row) noexcept;

}  // namespace core
