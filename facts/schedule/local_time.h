// Moments by the calendar, in the computer's local time or in UTC.
#pragma once

#include <cstdint>
#include <ctime>

namespace kv::facts {

/// Microseconds since 1970 by the wall clock.
std::int64_t MicrosecondsNow();

/// A moment by the calendar and the clock.
struct CalendarTime {
    std::tm parts{};  // as localtime(3) and gmtime(3) give them
    std::uint32_t milliseconds = 0;
    std::int32_t minutesEast = 0;  // of UTC, daylight saving included
};

CalendarTime LocalTimeOf(std::int64_t microsecondsSince1970);
CalendarTime UtcTimeOf(std::int64_t microsecondsSince1970);

/// The week of the month to which a day belongs, 1 to 6. Weeks start on Sunday, so the first may be short.
std::uint32_t WeekInMonthOf(const std::tm& day);

}  // namespace kv::facts
