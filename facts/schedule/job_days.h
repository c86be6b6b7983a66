// The days on which a job runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kv::facts {

/// A job runs on the days of either list. Jobs of every day have all days of the week.
struct JobDays {
    std::uint32_t ofMonth = 0;  // bit 0: the first
    std::uint32_t ofWeek = 0;   // bit 0: Monday
};

inline constexpr std::uint32_t everyDayOfWeek = 0x7F;

/// The days of a calendar expression of systemd.time(7), as the manager writes it: "Mon..Fri *-*-* 12:00:00". Absent if
/// the lists cannot say it: only some months, the last days of a month, or days of both kinds at once. Any thread may
/// ask.
std::optional<JobDays> DaysOfCalendar(std::string_view expression);

}  // namespace kv::facts
