// Times of cron's tables, days of systemd's calendar, and the rules of time zones.
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "facts/schedule/cron_tables.h"
#include "facts/schedule/job_days.h"
#include "facts/schedule/local_time.h"
#include "facts/schedule/zone_rules.h"
#include "facts/system_text.h"
#include "platform/linux/system_file.h"
#include "tests/support/linux/zone_setting.h"

namespace kv::test {
namespace {

using namespace facts;

std::string TextOf(const std::optional<JobDays>& days) {
    return days ? fmt::format("{:x} {:x}", days->ofWeek, days->ofMonth) : "-";
}

TEST(CronTables, TellWhenAJobRuns) {
    const ZoneSetting zone("UTC");
    constexpr std::time_t wednesday = 1764174000;  // 2025-11-26 16:20
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"17 * * * *", "+ 57", "7f 0"},          {"20 16 * * *", "+ 1440", "7f 0"}, {"*/20 * * * *", "+ 20", "7f 0"},
        {"5-15/5,50 23 * * *", "+ 405", "7f 0"}, {"0 0 1 * *", "+ 6220", "0 1"},    {"0 0 * * 7", "+ 4780", "40 0"},
        {"0 0 * * Mon-wed", "+ 6220", "7 0"},    {"0 0 1 * thu", "+ 460", "8 1"},   {"0 0 */2 * thu", "+ 460", "-"},
        {"0 0 29 feb *", "+ 1187020", "-"},      {"@weekly", "+ 4780", "40 0"},     {"0 0 30 2 *", "never", "-"},
    };
    for (const auto& [when, next, days] : rows) {
        const auto jobs = ParseCronTable(std::string(when) + " root x");
        ASSERT_TRUE(jobs && jobs->size() == 1 && (*jobs)[0].time) << when;
        const std::optional<std::time_t> run = NextRun(*(*jobs)[0].time, wednesday);
        const std::string text = run ? fmt::format("+ {}", (*run - wednesday) / 60) : "never";
        EXPECT_EQ(text, next) << when;
        EXPECT_EQ(TextOf(DaysOf(*(*jobs)[0].time)), days) << when;
    }
    for (const char* line :
         {"60 * * * * r x", "* * 0 * * r x", "* * * 13 * r x", "* * * * 8 r x", "1- * * * * r x", "1, * * * * r x",
          "1/ * * * * r x", "*/0 * * * * r x", ", * * * * r x", "* * * * *", "* * * * * r", "@often r x", "@daily r",
          "x", "1-99999999999999999999 * * * * r x", "0~60 * * * * r x", "9~5 * * * * r x", "--5 * * * * r x"}) {
        EXPECT_FALSE(ParseCronTable(line)) << line;
    }
    EXPECT_EQ((*ParseCronTable("-*/20 * * * * r x"))[0].when, "*/20 * * * *");
    for (const char* when : {"0~59 * * * *", "~ 3~5 * * *", "-5 0 1~ * ~"}) {
        const auto jobs = ParseCronTable(std::string(when) + " r x");
        EXPECT_TRUE(jobs && !jobs->front().time && !jobs->front().isAtStart) << when;
    }
    EXPECT_EQ(ParseCronTable("\n # x\nA=b c\n\"B\" = d\n")->size(), 0u);
}

TEST(JobDays, AreThoseOfCalendarExpressions) {
    const std::pair<const char*, const char*> rows[] = {{"*-*-* 00:00:00", "7f 0"},
                                                        {"Mon..Fri *-*-* 12:00:00", "1f 0"},
                                                        {"Sun *-*-* 00:00:00", "40 0"},
                                                        {"*-*-01 00:00:00", "0 1"},
                                                        {"*-*-1..3,31 *:00:00", "0 40000007"}};
    for (const char* other : {"*-01-01 00:00:00", "Mon *-*-1..7 00:00:00", "*-*~01 00:00:00", "*-*-1/2 00:00:00",
                              "2026-01-01 00:00:00", "", "Mon"})
        EXPECT_FALSE(DaysOfCalendar(other)) << other;
    for (const auto& [expression, days] : rows) EXPECT_EQ(TextOf(DaysOfCalendar(expression)), days) << expression;
}

/// The C library's time in the middle of each month of a year beyond the tables of transitions.
std::vector<CalendarTime> MonthlyTimes() {
    std::vector<CalendarTime> times;
    for (unsigned month = 1; month <= 12; ++month) {
        const std::chrono::sys_seconds moment{
            std::chrono::sys_days(std::chrono::year(2200) / std::chrono::month(month) / 15)};
        times.push_back(LocalTimeOf(moment.time_since_epoch().count() * 1'000'000));
    }
    return times;
}

TEST(ZoneRules, EqualTheCLibrarys) {
    std::size_t zonesWithDaylight = 0;
    const std::string table = platform::ReadSystemFile("/usr/share/zoneinfo/zone1970.tab").value_or("");
    std::string_view rest = table;
    for (std::string_view line; TakeLine(rest, line);) {
        if (line.starts_with('#')) continue;
        TakeField(line);
        TakeField(line);
        const ZoneSetting setting{std::string(TakeField(line))};
        const Zone zone = ReadZone();
        ASSERT_TRUE(zone.rules.has_value()) << zone.name;
        const std::vector<CalendarTime> times = MonthlyTimes();
        const auto ends = std::ranges::minmax_element(times, {}, &CalendarTime::minutesEast);
        const auto least = ends.min->minutesEast, most = ends.max->minutesEast;
        for (const CalendarTime& time : times)
            EXPECT_EQ(IsSummerTime(time, zone.rules), time.minutesEast > least) << zone.name;
        EXPECT_EQ(zone.rules->minutesEast, least) << zone.name;
        EXPECT_EQ(zone.rules->daylight ? zone.rules->daylight->minutesEast : least, most) << zone.name;
        if (!zone.rules->daylight) continue;
        ++zonesWithDaylight;
        const std::size_t afterStart = zone.rules->daylight->start.month % 12;  // the month after it
        const std::size_t afterEnd = zone.rules->daylight->end.month % 12;
        EXPECT_EQ(times[afterStart].minutesEast, most) << zone.name;
        EXPECT_EQ(times[afterEnd].minutesEast, least) << zone.name;
    }
    if (table.empty()) GTEST_SKIP() << "the list of time zones is not installed";
    EXPECT_GT(zonesWithDaylight, 50U);
}

}  // namespace
}  // namespace kv::test
