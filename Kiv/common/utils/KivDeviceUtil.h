#pragma once

#include <cstdint>
#include <optional>

#include "Core/Memory/Dictionary.h"
#include "Core/Memory/String.h"

/// Facts of the machine, the operating system and the running process, and the time texts
/// that records and file names are made with. Stateless but for small caches; any thread,
/// except getCpuUsage(), which expects one.
class KivDeviceUtil {
 public:
  KivDeviceUtil() = delete;

  static core::String generateUUID() noexcept;

  /// The machine type, e.g. "x86_64".
  static core::String model() noexcept;

  /// "major.minor" as a float, computed once.
  static float getOSVerFloat() noexcept;
  /// "%d.%d.%d(%@)": version of the distribution and the build of the kernel.
  static core::String getOSVersion() noexcept;
  static core::String getSystemBuildVersion() noexcept;

  /// Milliseconds since 1970 of today's local midnight.
  static std::int64_t getTimeOfTodayStart() noexcept;

  /// Local time of `seconds` since 1970 as "2018-03-05-14-03-09", "2018-03-05 14:03:09" and
  /// "2018-03-05".
  static core::String getFullTimeFileStrBy(std::int64_t seconds) noexcept;
  static core::String getFullTimeStrBy(std::int64_t seconds) noexcept;
  static core::String getDayTimeStrBy(std::int64_t seconds) noexcept;
  /// Now, as "2018-03-05 14:03:09.123 +0800" and "2018-03-05".
  static core::String getFullTimeMsStr() noexcept;
  static core::String getDayTimeStr() noexcept;
  /// The first of these at a moment in milliseconds since 1970.
  static core::String getFullTimeMsStrBy(std::int64_t milliseconds) noexcept;

  /// Bytes; 0 and 1.0 when the file system cannot be asked.
  static float getFreeSpace() noexcept;
  static float getTotalSpace() noexcept;
  static float getFreeSDCard() noexcept { return 0; }

  /// Bytes of physical memory; and what could be had at once, the largest value when unknown.
  static std::int64_t getTotalMemorySize() noexcept;
  static std::int64_t getAvailableMemorySize() noexcept;
  /// Total less available, so in spite of its name the memory in use.
  static std::int64_t getFreeMemory() noexcept;
  /// Bytes that the kernel accounts for as free, active, inactive or unevictable; -1 when unknown.
  static float getTotalMemory() noexcept;

  static core::String getCPUArchName() noexcept;
  /// Percent of all processors in use since the call before; -1 when unknown.
  static float getCpuUsage() noexcept;

  /// Whether this process could change the system: it runs with the super-user's rights.
  static bool isReet() noexcept;

  static core::String getProcessName() noexcept;
  static std::int64_t getProcessId() noexcept;
  static std::int64_t getParentProcessId() noexcept;
  static core::String getParentProcessName() noexcept;

  /// "UUID" (the build id's first 16 bytes in upper case, "" without one), "Arch" and
  /// "BaseAddress" of the main program; nothing when its image cannot be found.
  static std::optional<core::Dictionary<core::String>> executableInfo() noexcept;
};
