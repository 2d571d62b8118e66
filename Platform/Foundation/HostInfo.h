#pragma once

#include <cstdint>
#include <optional>

#include "Core/Memory/String.h"
#include "Platform/Foundation/HostFiles.h"

namespace platform {

/// Facts of the machine and its operating system, for the device utilities. Read anew at each
/// call, in normal running; any thread. What the system does not tell is nothing or zero.

/// The machine type and the processor architecture, both as the kernel names it: "x86_64".
core::String hardwareModel() noexcept;
core::String architectureName() noexcept;

/// The distribution's version: VERSION_ID of os-release ("22.04" is 22.4.0), zeros where a
/// distribution has none.
struct OperatingSystemVersion {
  int majorVersion = 0;
  int minorVersion = 0;
  int patchVersion = 0;
  friend bool operator==(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;
};
OperatingSystemVersion operatingSystemVersion(const HostFiles& files = {}) noexcept;
/// The build of the system: the running kernel's release, "" when unknown.
core::String operatingSystemBuild() noexcept;

/// Bytes of the volume that holds `path`; `free` is what a user without privileges may still use.
struct VolumeSpace {
  std::uint64_t total;
  std::uint64_t free;
};
std::optional<VolumeSpace> volumeSpace(const core::String& path) noexcept;

/// Bytes of memory by use. `wired` is what can never be paged out: unevictable pages and the
/// kernel's own slabs, stacks and page tables.
struct MemoryStatistics {
  std::uint64_t free = 0;
  std::uint64_t active = 0;
  std::uint64_t inactive = 0;
  std::uint64_t wired = 0;
};
std::optional<MemoryStatistics> memoryStatistics(const HostFiles& files = {}) noexcept;

/// Clock ticks that all processors together spent since boot, modulo 2^32, so that the
/// difference of two samples is right across an overflow. Interrupts count as system, waiting
/// for devices as idle, time stolen by a hypervisor as nothing.
struct CpuTicks {
  std::uint32_t user = 0;
  std::uint32_t system = 0;
  std::uint32_t idle = 0;
  std::uint32_t nice = 0;
  friend bool operator==(const CpuTicks&, const CpuTicks&) = default;
};
std::optional<CpuTicks> cpuTicks(const HostFiles& files = {}) noexcept;

/// Country and language of the user's locale ("DE" and "de" of "de_DE.UTF-8"), from the first
/// of LC_ALL, LC_MESSAGES and LANG that is set; nothing in the locales "C" and "POSIX".
std::optional<core::String> localeCountry() noexcept;
std::optional<core::String> localeLanguage() noexcept;

/// Whether this process could change the system underneath it: it runs with the effective
/// rights of the super-user.
bool hasSuperUserRights() noexcept;

}  // namespace platform
