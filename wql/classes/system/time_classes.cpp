// Win32_LocalTime, Win32_UTCTime and Win32_TimeZone.
#include <cstdlib>
#include <fmt/format.h>

#include "facts/schedule/local_time.h"
#include "facts/schedule/zone_rules.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

// clang-format off
constexpr PropertyInfo timeProperties[] = {
    {u"Day", uint32, 0, "of the month", [](const facts::CalendarTime& row) { return row.parts.tm_mday; }},
    {u"DayOfWeek", uint32, 0, "0 Sunday to 6 Saturday", [](const facts::CalendarTime& row) { return row.parts.tm_wday; }},
    {u"Hour", uint32, 0, "0 to 23", [](const facts::CalendarTime& row) { return row.parts.tm_hour; }},
    {u"Milliseconds", uint32, 0, "of the second", [](const facts::CalendarTime& row) { return row.milliseconds; }},
    {u"Minute", uint32, 0, "0 to 59", [](const facts::CalendarTime& row) { return row.parts.tm_min; }},
    {u"Month", uint32, 0, "1 to 12", [](const facts::CalendarTime& row) { return row.parts.tm_mon + 1; }},
    {u"Quarter", uint32, 0, "1 to 4", [](const facts::CalendarTime& row) { return row.parts.tm_mon / 3 + 1; }},
    {u"Second", uint32, 0, "0 to 60", [](const facts::CalendarTime& row) { return row.parts.tm_sec; }},
    {u"WeekInMonth", uint32, 0, "1 to 6, from Sunday to Saturday", [](const facts::CalendarTime& row) { return facts::WeekInMonthOf(row.parts); }},
    {u"Year", uint32, 0, "of the calendar", [](const facts::CalendarTime& row) { return row.parts.tm_year + 1900; }},
};
// clang-format on

struct ZoneRow {
    std::string name;  // of the zone; may be empty
    facts::ZoneRules rules;
    facts::DaylightSaving daylight;  // all 0 if the clock is not changed
};

/// Such as "(UTC+01:00) Europe/Berlin".
std::string CaptionOf(const ZoneRow& row) {
    constexpr std::int32_t minutesPerHour = 60;
    const std::string& name = row.name.empty() ? row.rules.name : row.name;
    if (row.rules.minutesEast == 0) return fmt::format("(UTC) {}", name);
    const std::int32_t minutes = std::abs(row.rules.minutesEast);
    return fmt::format("(UTC{}{:02}:{:02}) {}", row.rules.minutesEast < 0 ? '-' : '+', minutes / minutesPerHour,
                       minutes % minutesPerHour, name);
}

/// Minutes from daylight saving to standard time, negative as on Windows when the clock goes forward.
std::int32_t DaylightBiasOf(const ZoneRow& row) {
    return row.rules.daylight ? row.rules.minutesEast - row.daylight.minutesEast : 0;
}

const std::string& DaylightNameOf(const ZoneRow& row) {
    return row.rules.daylight ? row.daylight.name : row.rules.name;
}

constexpr auto captionIn = [](const ZoneRow& row) { return CaptionOf(row); };
constexpr auto zero = [](const ZoneRow&) { return 0; };

// clang-format off
constexpr PropertyInfo zoneProperties[] = {
    {u"Bias", sint32, 0, "minutes east of UTC", [](const ZoneRow& row) { return row.rules.minutesEast; }},
    {u"Caption", string, 0, "offset and name", captionIn},
    {u"DaylightBias", sint32, 0, "minutes, -60 for an hour forward", [](const ZoneRow& row) { return DaylightBiasOf(row); }},
    {u"DaylightDay", uint32, 0, "which DaylightDayOfWeek of the month, 5 the last", [](const ZoneRow& row) { return row.daylight.start.week; }},
    {u"DaylightDayOfWeek", uint8, 0, "0 Sunday", [](const ZoneRow& row) { return row.daylight.start.dayOfWeek; }},
    {u"DaylightHour", uint32, 0, "of the clock before the change", [](const ZoneRow& row) { return row.daylight.start.hour; }},
    {u"DaylightMillisecond", uint32, 0, "always 0", zero},
    {u"DaylightMinute", uint32, 0, "of the clock before the change", [](const ZoneRow& row) { return row.daylight.start.minute; }},
    {u"DaylightMonth", uint32, 0, "0 without daylight saving", [](const ZoneRow& row) { return row.daylight.start.month; }},
    {u"DaylightName", string, 0, "such as CEST; as StandardName without daylight saving", [](const ZoneRow& row) { return DaylightNameOf(row); }},
    {u"DaylightSecond", uint32, 0, "of the clock before the change", [](const ZoneRow& row) { return row.daylight.start.second; }},
    {u"DaylightYear", uint32, 0, "0: every year", zero},
    {u"Description", string, 0, "as Caption", captionIn},
    {u"SettingID", string, 0, "name of the zone", [](const ZoneRow& row) { return facts::KnownText(row.name); }},
    {u"StandardBias", uint32, 0, "minutes, always 0", zero},
    {u"StandardDay", uint32, 0, "which StandardDayOfWeek of the month, 5 the last", [](const ZoneRow& row) { return row.daylight.end.week; }},
    {u"StandardDayOfWeek", uint8, 0, "0 Sunday", [](const ZoneRow& row) { return row.daylight.end.dayOfWeek; }},
    {u"StandardHour", uint32, 0, "of the clock before the change", [](const ZoneRow& row) { return row.daylight.end.hour; }},
    {u"StandardMillisecond", uint32, 0, "always 0", zero},
    {u"StandardMinute", uint32, 0, "of the clock before the change", [](const ZoneRow& row) { return row.daylight.end.minute; }},
    {u"StandardMonth", uint32, 0, "0 without daylight saving", [](const ZoneRow& row) { return row.daylight.end.month; }},
    {u"StandardName", string, 0, "such as CET", [](const ZoneRow& row) { return row.rules.name; }},
    {u"StandardSecond", uint32, 0, "of the clock before the change", [](const ZoneRow& row) { return row.daylight.end.second; }},
    {u"StandardYear", uint32, 0, "0: every year", zero},
};
// clang-format on

WmiStatus GatherLocalTime(const Gathering& gathering) {
    const facts::CalendarTime now = facts::LocalTimeOf(facts::MicrosecondsNow());
    gathering.row(&now);
    return wmi_status::ok;
}

WmiStatus GatherUtcTime(const Gathering& gathering) {
    const facts::CalendarTime now = facts::UtcTimeOf(facts::MicrosecondsNow());
    gathering.row(&now);
    return wmi_status::ok;
}

/// Rules made from the current offset, for a zone whose file ends without rules.
facts::ZoneRules RulesNow() {
    const facts::CalendarTime now = facts::LocalTimeOf(facts::MicrosecondsNow());
    return {.name = now.parts.tm_zone, .minutesEast = now.minutesEast, .daylight = std::nullopt};
}

WmiStatus GatherTimeZone(const Gathering& gathering) {
    facts::Zone zone = facts::ReadZone();
    ZoneRow row;
    row.name = std::move(zone.name);
    row.rules = zone.rules ? std::move(*zone.rules) : RulesNow();
    row.daylight = row.rules.daylight.value_or(facts::DaylightSaving());
    gathering.row(&row);
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_LocalTime", u"Win32_CurrentTime", timeProperties, GatherLocalTime, u"", "the time here"},
    {u"Win32_UTCTime", u"Win32_CurrentTime", timeProperties, GatherUtcTime, u"", "the time in UTC"},
    {u"Win32_TimeZone", u"CIM_Setting", zoneProperties, GatherTimeZone, u"StandardName",
     "the time zone with its rules"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
