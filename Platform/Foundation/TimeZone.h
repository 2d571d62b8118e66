#pragma once

#include <cstdint>

#include "Core/Text/LocalTime.h"

namespace platform {

/// Seconds east of UTC in the user's time zone at `secondsSince1970`. A question about the
/// present second also refreshes core::cachedUtcOffset(), which is what the owner of a crash
/// is answered, since it must not open the time-zone database. Any thread; keeps errno.
int utcOffsetAt(std::int64_t secondsSince1970) noexcept;

/// The user's calendar and clock at `secondsSince1970`.
core::CivilTime localTime(std::int64_t secondsSince1970) noexcept;

}  // namespace platform
