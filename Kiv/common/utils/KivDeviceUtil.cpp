#include "Kiv/common/utils/KivDeviceUtil.h"

#include <algorithm>
#include <limits>

#include "Core/Kernel/ImageList.h"
#include "Core/Kernel/Process.h"
#include "Core/Memory/CrashOwner.h"
#include "Core/Memory/Immortal.h"
#include "Core/Memory/Mutex.h"
#include "Core/Memory/Published.h"
#include "Core/Text/Format.h"
#include "Core/Text/Uuid.h"
#include "Kiv/common/utils/KivLog.h"
#include "Platform/Foundation/HostInfo.h"
#include "Platform/Foundation/ProcessInfo.h"
#include "Platform/Foundation/TimeZone.h"
#include "Platform/Foundation/UserDirectories.h"

namespace {

constexpr std::int64_t kNanosecondsASecond = 1'000'000'000;
constexpr std::int64_t kNanosecondsAMillisecond = 1'000'000;
constexpr std::int64_t kMillisecondsASecond = 1000;
constexpr std::size_t kUuidBytes = 16;

std::int64_t nowSeconds() noexcept {
  return core::wallClockNanoseconds() / kNanosecondsASecond;
}

/// "+0530" as a number: hours times 100 plus minutes, east positive.
int zoneNumber(int utcOffsetSeconds) noexcept {
  const int minutesWest = -utcOffsetSeconds / 60;
  return -(minutesWest / 60 * 100 + minutesWest % 60);
}

/// Read once: an update of the system shows after the next start.
const platform::OperatingSystemVersion& systemVersion() noexcept {
  static const platform::OperatingSystemVersion version = platform::operatingSystemVersion();
  return version;
}

/// Where the home directory is may be told by a database alone, which a crash cannot ask.
core::String documentsDirectory() noexcept {
  static core::Immortal<core::Published<core::String>> known;
  if (!core::CrashOwner::isCurrentThread()) {
    known->set(platform::documentsDirectory());
  }
  return known->get();
}

}  // namespace

core::String KivDeviceUtil::generateUUID() noexcept {
  return core::generateUuid();
}

core::String KivDeviceUtil::model() noexcept {
  return platform::hardwareModel();
}

float KivDeviceUtil::getOSVerFloat() noexcept {
  static const float version = [] {
    const platform::OperatingSystemVersion& facts = systemVersion();
    float fraction = static_cast<float>(facts.minorVersion);
    while (fraction >= 1) {
      fraction /= 10;
    }
    return static_cast<float>(facts.majorVersion) + fraction;
  }();
  return version;
}

core::String KivDeviceUtil::getOSVersion() noexcept {
  const platform::OperatingSystemVersion& version = systemVersion();
  return core::kiv_format("%d.%d.%d(%@)", version.majorVersion, version.minorVersion, version.patchVersion,
                          getSystemBuildVersion());
}

core::String KivDeviceUtil::getSystemBuildVersion() noexcept {
  return platform::operatingSystemBuild();
}

std::int64_t KivDeviceUtil::getTimeOfTodayStart() noexcept {
  const std::int64_t now = nowSeconds();
  core::CivilTime today = platform::localTime(now);
  today.hour = today.minute = today.second = 0;
  // The zone may have changed its offset since midnight, so the offset of then counts.
  const std::int64_t guess = core::secondsSince1970(today, platform::utcOffsetAt(now));
  return core::secondsSince1970(today, platform::utcOffsetAt(guess)) * 1000;
}

core::String KivDeviceUtil::getFullTimeFileStrBy(std::int64_t seconds) noexcept {
  const core::CivilTime time = platform::localTime(seconds);
  return core::kiv_format("%d-%02d-%02d-%02d-%02d-%02d", time.year, time.month, time.day, time.hour, time.minute,
                          time.second);
}

core::String KivDeviceUtil::getFullTimeStrBy(std::int64_t seconds) noexcept {
  const core::CivilTime time = platform::localTime(seconds);
  return core::kiv_format("%d-%02d-%02d %02d:%02d:%02d", time.year, time.month, time.day, time.hour, time.minute,
                          time.second);
}

core::String KivDeviceUtil::getDayTimeStrBy(std::int64_t seconds) noexcept {
  const core::CivilTime time = platform::localTime(seconds);
  return core::kiv_format("%d-%02d-%02d", time.year, time.month, time.day);
}

core::String KivDeviceUtil::getFullTimeMsStr() noexcept {
  return getFullTimeMsStrBy(core::wallClockNanoseconds() / kNanosecondsAMillisecond);
}

core::String KivDeviceUtil::getFullTimeMsStrBy(std::int64_t milliseconds) noexcept {
  const std::int64_t seconds = milliseconds / kMillisecondsASecond;
  const core::CivilTime time = platform::localTime(seconds);
  return core::kiv_format("%d-%02d-%02d %02d:%02d:%02d.%03d %+05d", time.year, time.month, time.day, time.hour,
                          time.minute, time.second, static_cast<int>(milliseconds % kMillisecondsASecond),
                          zoneNumber(platform::utcOffsetAt(seconds)));
}

core::String KivDeviceUtil::getDayTimeStr() noexcept {
  return getDayTimeStrBy(nowSeconds());
}

float KivDeviceUtil::getFreeSpace() noexcept {
  const auto space = platform::volumeSpace(documentsDirectory());
  return space ? static_cast<float>(space->free) : 0;
}

float KivDeviceUtil::getTotalSpace() noexcept {
  const auto space = platform::volumeSpace(platform::homeDirectory());
  return space ? static_cast<float>(space->total) : 1.0F;
}

std::int64_t KivDeviceUtil::getTotalMemorySize() noexcept {
  return static_cast<std::int64_t>(platform::physicalMemory());
}

std::int64_t KivDeviceUtil::getAvailableMemorySize() noexcept {
  const auto memory = platform::memoryStatistics();
  return memory ? static_cast<std::int64_t>(memory->free + memory->inactive) : std::numeric_limits<std::int64_t>::max();
}

std::int64_t KivDeviceUtil::getFreeMemory() noexcept {
  return std::max<std::int64_t>(getTotalMemorySize() - getAvailableMemorySize(), 0);
}

float KivDeviceUtil::getTotalMemory() noexcept {
  const auto memory = platform::memoryStatistics();
  return memory ? static_cast<float>(memory->free + memory->active + memory->inactive + memory->wired) : -1;
}

core::String KivDeviceUtil::getCPUArchName() noexcept {
  return platform::architectureName();
}

float KivDeviceUtil::getCpuUsage() noexcept {
  static platform::CpuTicks previous;
  const auto ticks = platform::cpuTicks();
  if (!ticks) {
    kiv_log_always("Failed to fetch vm statistics");
    return -1;
  }
  const float busy =
      static_cast<float>(ticks->user - previous.user) + static_cast<float>(ticks->system - previous.system);
  const float all =
      busy + static_cast<float>(ticks->idle - previous.idle) + static_cast<float>(ticks->nice - previous.nice);
  previous = *ticks;
  return all > 0 ? busy / all * 100 : 0;
}

bool KivDeviceUtil::isReet() noexcept {
  return platform::hasSuperUserRights();
}

core::String KivDeviceUtil::getProcessName() noexcept {
  return platform::processName();
}

std::int64_t KivDeviceUtil::getProcessId() noexcept {
  return core::processId();
}

std::int64_t KivDeviceUtil::getParentProcessId() noexcept {
  return platform::parentProcessId();
}

core::String KivDeviceUtil::getParentProcessName() noexcept {
  return platform::parentProcessName();
}

std::optional<core::Dictionary<core::String>> KivDeviceUtil::executableInfo() noexcept {
  const core::Array<core::LoadedImage> images = core::readLoadedImages();
  if (images.empty()) {
    return std::nullopt;
  }
  const core::LoadedImage& program = images[0];
  const auto uuid = program.buildId.span().first(std::min(program.buildId.size(), kUuidBytes));
  return core::Dictionary<core::String>{
      {"UUID", core::upperHex(uuid)},
      {"Arch", getCPUArchName()},
      {"BaseAddress", core::kiv_format("%#018llx", program.base)},
  };
}
