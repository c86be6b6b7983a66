// The tables of cron that name the user of each job: /etc/crontab and those in /etc/cron.d (crontab(5)).
//
// The routines keep no state: any thread may call them.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "facts/schedule/job_days.h"

namespace kv::facts {

/// When a job runs: at each minute whose parts all have their bits set.
struct CronTime {
    std::uint64_t minutes = 0;
    std::uint64_t hours = 0;
    std::uint64_t days = 0;      // bit 1: the first of the month
    std::uint64_t months = 0;    // bit 1: January
    std::uint64_t weekdays = 0;  // bit 0: Sunday
    bool areBothDays = true;     // false: one of the two kinds of days is enough, because both are restricted
};

struct CronJob {
    std::string when;  // as written: "17 * * * *" or "@daily"
    std::string user;
    std::string command;
    std::optional<CronTime> time;  // absent: when the system starts, or at random
    bool isAtStart = false;
};

/// The jobs of a table. Absent if a line is not one of cron's: cron ignores such a table as a whole.
std::optional<std::vector<CronJob>> ParseCronTable(std::string_view text);

/// The next minute after a moment at which a job runs, in local time; absent if none comes by the end of the fourth
/// year after it.
std::optional<std::time_t> NextRun(const CronTime& time, std::time_t after);

/// The days on which it runs; absent if it runs in some months only.
std::optional<JobDays> DaysOf(const CronTime& time);

}  // namespace kv::facts
