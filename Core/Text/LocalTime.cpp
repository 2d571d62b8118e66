#include "Core/Text/LocalTime.h"

#include <algorithm>
#include <atomic>

namespace core {
namespace {

constexpr std::int64_t kSecondsADay = 86400;
constexpr std::int64_t kDaysAnEra = 146097;  // 400 years

constexpr std::int64_t floorDivide(std::int64_t value, std::int64_t by) noexcept {
  return value / by - (value % by < 0 ? 1 : 0);
}

// Years are counted from March, so that the leap day is the last one of a year, in eras of
// 400 years, which are all alike.

constexpr std::int64_t daysFromCivil(std::int64_t year, int month, int day) noexcept {
  const std::int64_t shifted = year - (month <= 2 ? 1 : 0);
  const std::int64_t era = floorDivide(shifted, 400);
  const std::int64_t yearOfEra = shifted - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + std::int64_t{day} - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * kDaysAnEra + dayOfEra - 719468;
}

constexpr int kFirstYear = -9999;
constexpr int kLastYear = 9999;
constexpr std::int64_t kFirstSecond = daysFromCivil(kFirstYear, 1, 1) * kSecondsADay;
constexpr std::int64_t kLastSecond = daysFromCivil(kLastYear + 1, 1, 1) * kSecondsADay - 1;

std::atomic<int> utcOffset{0};

}  // namespace

CivilTime civilTime(std::int64_t secondsSince1970, int utcOffsetSeconds) noexcept {
  const std::int64_t offset = utcOffsetSeconds;
  const std::int64_t local = std::clamp(secondsSince1970, kFirstSecond - offset, kLastSecond - offset) + offset;
  const std::int64_t days = floorDivide(local, kSecondsADay);
  const auto secondOfDay = static_cast<int>(local - days * kSecondsADay);

  const std::int64_t era = floorDivide(days + 719468, kDaysAnEra);
  const auto dayOfEra = static_cast<int>(days + 719468 - era * kDaysAnEra);
  const int yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const int dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const int shiftedMonth = (5 * dayOfYear + 2) / 153;

  CivilTime time;
  time.month = shiftedMonth + (shiftedMonth < 10 ? 3 : -9);
  time.year = static_cast<int>(era) * 400 + yearOfEra + (time.month <= 2 ? 1 : 0);
  time.day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
  time.hour = secondOfDay / 3600;
  time.minute = secondOfDay / 60 % 60;
  time.second = secondOfDay % 60;
  time.weekday = static_cast<int>(days + 4 - floorDivide(days + 4, 7) * 7);
  return time;
}

std::int64_t secondsSince1970(const CivilTime& time, int utcOffsetSeconds) noexcept {
  const int year = std::clamp(time.year, kFirstYear, kLastYear);
  return daysFromCivil(year, time.month, time.day) * kSecondsADay + std::int64_t{time.hour} * 3600 +
         std::int64_t{time.minute} * 60 + time.second - utcOffsetSeconds;
}

int cachedUtcOffset() noexcept {
  return utcOffset.load(std::memory_order_relaxed);
}

void cacheUtcOffset(int secondsEast) noexcept {
  utcOffset.store(secondsEast, std::memory_order_relaxed);
}

}  // namespace core
