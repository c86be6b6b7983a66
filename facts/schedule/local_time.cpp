#include "facts/schedule/local_time.h"

#include <chrono>

namespace kv::facts {

namespace {

CalendarTime TimeBy(std::tm* (*calendar)(const std::time_t*, std::tm*), std::int64_t microsecondsSince1970) {
    using namespace std::chrono;
    constexpr long secondsPerMinute = 60;
    const sys_time<microseconds> moment{microseconds(microsecondsSince1970)};
    const sys_seconds second = floor<seconds>(moment);
    const std::time_t sinceEpoch = second.time_since_epoch().count();
    CalendarTime time;
    calendar(&sinceEpoch, &time.parts);
    time.milliseconds = static_cast<std::uint32_t>(floor<milliseconds>(moment - second).count());
    time.minutesEast = static_cast<std::int32_t>(time.parts.tm_gmtoff / secondsPerMinute);
    return time;
}

}  // namespace

std::int64_t MicrosecondsNow() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

CalendarTime LocalTimeOf(std::int64_t microsecondsSince1970) { return TimeBy(localtime_r, microsecondsSince1970); }

CalendarTime UtcTimeOf(std::int64_t microsecondsSince1970) { return TimeBy(gmtime_r, microsecondsSince1970); }

std::uint32_t WeekInMonthOf(const std::tm& day) {
    constexpr int daysPerWeek = 7;
    const int firstOfMonth = (day.tm_wday - (day.tm_mday - 1) % daysPerWeek + daysPerWeek) % daysPerWeek;
    return static_cast<std::uint32_t>((firstOfMonth + day.tm_mday - 1) / daysPerWeek + 1);
}

}  // namespace kv::facts
