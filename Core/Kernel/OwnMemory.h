#pragma once

#include <cstddef>
#include <cstdint>

namespace core {

/// Copies `size` bytes at `address` of the own process; false when any of them cannot be
/// read. Never faults. Where the kernel forbids the call for that, the process's memory
/// file is read, which stays open from the first such read on. Fit for the crash path.
bool readOwnMemory(std::uint64_t address, void* into, std::size_t size) noexcept;

}  // namespace core
