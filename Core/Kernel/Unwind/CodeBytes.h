#pragma once

#include <cstdint>

#include "Core/Kernel/OwnMemory.h"
#include "Core/Kernel/Unwind/CodeImages.h"

namespace core {

/// True when the bytes before `address` are a call instruction, so that it can be the return
/// address of one. Fit for the crash path.
bool followsCall(const OwnMemory& memory, std::uint64_t address) noexcept;

/// True when the code at `address` is what a signal handler returns to: it makes the system
/// call that goes back to the interrupted context. Fit for the crash path.
bool isSignalReturn(const OwnMemory& memory, std::uint64_t address) noexcept;
/// The same without a look at the code, where the image's steps tell that it is a common function's.
bool isSignalReturn(const CodeImages::View& images, const OwnMemory& memory, std::uint64_t address) noexcept;

}  // namespace core
