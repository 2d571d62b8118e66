#pragma once

#include "Core/Kernel/Unwind/CallFrameEntry.h"

namespace core {

// The programs of call-frame tables (DW_CFA_*). False for instructions that are unknown, name
// impossible registers, or go back to states that were never kept. Fit for the crash path.

/// Runs the rest of a common part, before which `cursor` stands, into `common.initial`.
bool computeInitialRow(const CallFrameTable& table, CallFrameCommon& common, const OwnMemory& memory,
                       ByteCursor& cursor) noexcept;

/// The row that holds at `address`, which `entry` covers.
bool computeRow(const CallFrameTable& table, const CallFrameCommon& common, const CallFrameEntry& entry,
                const OwnMemory& memory, std::uint64_t address, CallFrameRow& row) noexcept;

}  // namespace core
