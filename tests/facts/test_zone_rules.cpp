// The rules of every time zone, compared with the C library.
#include <algorithm>
#include <chrono>
#include <gtest/gtest.h>

#include "facts/schedule/local_time.h"
#include "facts/schedule/zone_rules.h"
#include "facts/system_text.h"
#include "platform/linux/system_file.h"
#include "tests/support/linux/zone_setting.h"

namespace kv::test {
namespace {

using namespace facts;

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
