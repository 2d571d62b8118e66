#pragma once

#include <cstdint>
#include <optional>

#include "Core/Memory/String.h"
#include "Platform/Foundation/HostFiles.h"

namespace platform {

/// Facts of this process and of the run of the system that it lives in. The device utilities
/// and the crash module ask for them in normal running; any thread. Ids of the process and of
/// its threads are in Core/Kernel/Process.h.

/// The program's file; "" without a process file system. " (deleted)", which the kernel adds
/// when the file was replaced, is cut.
core::String executablePath() noexcept;

/// The program's base name. Looked up once; fit for the crash path afterwards.
core::String processName() noexcept;

int parentProcessId() noexcept;
/// The parent's command name as the kernel keeps it (15 bytes at most), "" when it cannot be read.
core::String parentProcessName(const HostFiles& files = {}) noexcept;

/// Bytes of physical memory, 0 when unknown.
std::uint64_t physicalMemory() noexcept;

/// Whether a tracer is attached right now; nothing when the kernel does not tell.
std::optional<bool> debuggerAttached(const HostFiles& files = {}) noexcept;

/// Whole seconds since 1970 at which the system was started. The kernel derives it from the
/// clock, so one boot may answer values a second apart: compare it together with bootId().
std::optional<std::int64_t> bootTime(const HostFiles& files = {}) noexcept;
/// A text that is different for each boot.
std::optional<core::String> bootId(const HostFiles& files = {}) noexcept;

/// Milliseconds since 1970 at which this process was started, as the clock stands now.
std::optional<std::int64_t> processStartTime(const HostFiles& files = {}) noexcept;

}  // namespace platform
