#include "Platform/Foundation/HostInfo.h"

#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "Core/Kernel/SystemCall.h"

namespace platform {
namespace {

constexpr std::string_view kWiredLines[] = {"Unevictable:", "SUnreclaim:", "KernelStack:", "PageTables:"};

std::uint64_t kibibytesOfLine(std::string_view text, std::string_view key) noexcept {
  auto line = valueOfLine(text, key);
  return line ? takeNumber(*line).value_or(0) * 1024 : 0;
}

/// The name of the user's locale up to its encoding or modifier.
std::string_view localeName() noexcept {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = ::getenv(variable);
    if (value != nullptr && *value != '\0') {
      const std::string_view locale = value;
      const std::string_view name = locale.substr(0, locale.find_first_of(".@"));
      return name == "C" || name == "POSIX" ? std::string_view() : name;
    }
  }
  return {};
}

std::optional<core::String> nonEmpty(std::string_view text) noexcept {
  return text.empty() ? std::nullopt : std::optional<core::String>(text);
}

}  // namespace

core::String hardwareModel() noexcept {
  utsname names{};
  return ::uname(&names) == 0 ? core::String(names.machine) : core::String();
}

core::String architectureName() noexcept {
  return hardwareModel();
}

OperatingSystemVersion operatingSystemVersion(const HostFiles& files) noexcept {
  const auto release = readHostFile(files.etc, "os-release");
  std::string_view text = release ? valueOfLine(*release, "VERSION_ID=").value_or("") : "";
  if (text.starts_with('"') || text.starts_with('\'')) {
    text.remove_prefix(1);
  }
  OperatingSystemVersion version;
  for (int* part : {&version.majorVersion, &version.minorVersion, &version.patchVersion}) {
    const auto number = takeNumber(text);
    if (!number) {
      break;
    }
    *part = static_cast<int>(std::min<std::uint64_t>(*number, std::numeric_limits<int>::max()));
    if (!text.starts_with('.')) {
      break;
    }
    text.remove_prefix(1);
  }
  return version;
}

core::String operatingSystemBuild() noexcept {
  utsname names{};
  return ::uname(&names) == 0 ? core::String(names.release) : core::String();
}

std::optional<VolumeSpace> volumeSpace(const core::String& path) noexcept {
  struct statfs facts {};
  if (core::restartedSystemCall(SYS_statfs, path.c_str(), &facts) != 0) {
    return std::nullopt;
  }
  const auto block = static_cast<std::uint64_t>(facts.f_frsize);
  return VolumeSpace{std::uint64_t{facts.f_blocks} * block, std::uint64_t{facts.f_bavail} * block};
}

std::optional<MemoryStatistics> memoryStatistics(const HostFiles& files) noexcept {
  const auto text = readHostFile(files.proc, "meminfo");
  if (!text || !valueOfLine(*text, "MemFree:")) {
    return std::nullopt;
  }
  MemoryStatistics statistics{kibibytesOfLine(*text, "MemFree:"), kibibytesOfLine(*text, "Active:"),
                              kibibytesOfLine(*text, "Inactive:"), 0};
  for (const std::string_view key : kWiredLines) {
    statistics.wired += kibibytesOfLine(*text, key);
  }
  return statistics;
}

std::optional<CpuTicks> cpuTicks(const HostFiles& files) noexcept {
  const auto text = readHostFile(files.proc, "stat");
  auto line = text ? valueOfLine(*text, "cpu ") : std::nullopt;
  if (!line) {
    return std::nullopt;
  }
  enum { kUser, kNice, kSystem, kIdle, kWaiting, kInterrupts, kSoftInterrupts, kColumns };
  std::uint64_t ticks[kColumns] = {};
  for (int column = 0; column < kColumns; ++column) {
    const auto number = takeNumber(*line);
    if (!number && column <= kIdle) {
      return std::nullopt;
    }
    ticks[column] = number.value_or(0);
  }
  return CpuTicks{
      static_cast<std::uint32_t>(ticks[kUser]),
      static_cast<std::uint32_t>(ticks[kSystem] + ticks[kInterrupts] + ticks[kSoftInterrupts]),
      static_cast<std::uint32_t>(ticks[kIdle] + ticks[kWaiting]),
      static_cast<std::uint32_t>(ticks[kNice]),
  };
}

std::optional<core::String> localeCountry() noexcept {
  const std::string_view name = localeName();
  const std::size_t separator = name.find('_');
  return separator == std::string_view::npos ? std::nullopt : nonEmpty(name.substr(separator + 1));
}

std::optional<core::String> localeLanguage() noexcept {
  const std::string_view name = localeName();
  return nonEmpty(name.substr(0, name.find('_')));
}

bool hasSuperUserRights() noexcept {
  return ::geteuid() == 0;
}

}  // namespace platform
