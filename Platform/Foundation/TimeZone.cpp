#include "Platform/Foundation/TimeZone.h"

#include <errno.h>
#include <time.h>

#include "Core/Kernel/Process.h"
#include "Core/Memory/CrashOwner.h"

namespace platform {

int utcOffsetAt(std::int64_t secondsSince1970) noexcept {
  if (core::CrashOwner::isCurrentThread()) {
    return core::cachedUtcOffset();
  }
  const int savedError = errno;
  const time_t moment = secondsSince1970;
  tm local{};
  // localtime_r alone would keep the zone of its first call when TZ or the system's zone changes.
  ::tzset();
  const bool known = ::localtime_r(&moment, &local) != nullptr;
  errno = savedError;
  if (!known) {
    return core::cachedUtcOffset();
  }
  const std::int64_t age = core::wallClockNanoseconds() / 1'000'000'000 - secondsSince1970;
  if (age == 0 || age == 1) {
    core::cacheUtcOffset(static_cast<int>(local.tm_gmtoff));
  }
  return static_cast<int>(local.tm_gmtoff);
}

core::CivilTime localTime(std::int64_t secondsSince1970) noexcept {
  return core::civilTime(secondsSince1970, utcOffsetAt(secondsSince1970));
}

}  // namespace platform
