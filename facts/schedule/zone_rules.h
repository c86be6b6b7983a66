// The rules of a time zone, in POSIX's form for the variable TZ (tzset(3)), with which time zone files end.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "facts/schedule/local_time.h"

namespace kv::facts {

/// When the clock is changed each year, such as on the last Sunday in March at 2:00, by the clock before the change.
struct ClockChange {
    std::uint32_t month = 0;     // 1 to 12
    std::uint32_t week = 0;      // 1 to 4: the month's first to fourth such day; 5: its last
    std::uint8_t dayOfWeek = 0;  // 0 is Sunday
    std::uint32_t hour = 0;
    std::uint32_t minute = 0;
    std::uint32_t second = 0;
};

struct DaylightSaving {
    std::string name;              // such as "CEST"
    std::int32_t minutesEast = 0;  // of UTC, while it lasts
    ClockChange start;
    ClockChange end;
};

struct ZoneRules {
    std::string name;              // such as "CET"
    std::int32_t minutesEast = 0;  // of UTC
    std::optional<DaylightSaving> daylight;
};

/// Parses a text such as "CET-1CEST,M3.5.0,M10.5.0/3". If winter time is declared as the exception, the two are
/// swapped. A change whose time lies outside its day is moved to the next or previous day. If the changes have another
/// form (days counted by the year, which no zone uses; impossible months or weeks), the zone has no daylight saving.
/// Absent when the names or the offsets have another form.
std::optional<ZoneRules> ParseZoneRules(std::string_view text);

/// Whether it is summer time at a moment: the clock is ahead of the zone's winter time, whichever of the two its rules
/// declare as the exception. By what the C library says if there are no rules.
bool IsSummerTime(const CalendarTime& time, const std::optional<ZoneRules>& rules);

/// The zone that the computer is set to.
struct Zone {
    std::string name;  // such as "Europe/Berlin"; empty when it has no name
    std::optional<ZoneRules> rules;
};

/// The zone in the variable TZ, which is read as tzset(3) reads it, else the one in /etc/localtime.
Zone ReadZone();

}  // namespace kv::facts
