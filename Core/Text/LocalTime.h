#pragma once

#include <cstdint>

namespace core {

/// A moment split into calendar fields (proleptic Gregorian).
struct CivilTime {
  int year;
  int month;  ///< 1 to 12
  int day;    ///< 1 to 31
  int hour;
  int minute;
  int second;
  int weekday;  ///< 0 is Sunday
};

/// `secondsSince1970` as a clock shows it that is `utcOffsetSeconds` east of UTC.
CivilTime civilTime(std::int64_t secondsSince1970, int utcOffsetSeconds) noexcept;
/// The reverse.
std::int64_t secondsSince1970(const CivilTime& time, int utcOffsetSeconds) noexcept;

/// Seconds east of UTC as last looked up: the crash path must not open the time-zone
/// database. 0 until cacheUtcOffset was called.
int cachedUtcOffset() noexcept;
void cacheUtcOffset(int secondsEast) noexcept;

}  // namespace core
