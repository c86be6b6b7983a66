// The rules of a time zone, in the form in which time zone files end with them: POSIX's of the variable TZ (tzset(3)).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// When the clock is changed each year: in a month (1 to 12), on its first to fourth or, as 5, last of a day of the
/// week (0 is Sunday), at a time of the clock that is left.
struct ClockChange {
    std::uint32_t month = 0;
    std::uint32_t week = 0;
    std::uint8_t dayOfWeek = 0;
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

/// Parses a text such as "CET-1CEST,M3.5.0,M10.5.0/3". A winter time that is declared as the exception comes out as the
/// rule. A change outside of its day is moved to the next or previous one. Days counted by the year, which no zone
/// changes its clocks on, and impossible months and weeks, count as no change. Absent when the text has another form.
std::optional<ZoneRules> ParseZoneRules(std::string_view text);

/// The zone that the computer is set to.
struct Zone {
    std::string name;  // such as "Europe/Berlin"; empty when it has no name
    std::optional<ZoneRules> rules;
};

/// That of the variable TZ, which is read as tzset(3) does, else of /etc/localtime.
Zone ReadZone();

}  // namespace kv::facts
