#include "facts/schedule/zone_rules.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <utility>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::int32_t secondsPerMinute = 60;
constexpr std::int32_t secondsPerHour = 3600;
constexpr std::int32_t daysPerWeek = 7;
constexpr std::int32_t secondsPerDay = 86400;
constexpr std::string_view digits = "0123456789";
constexpr const char* systemZone = "/etc/localtime";

/// Takes a character off a text, if it is there.
bool Take(std::string_view& text, char character) {
    if (!text.starts_with(character)) return false;
    text.remove_prefix(1);
    return true;
}

/// Takes a number of at most three digits off a text.
std::optional<std::int32_t> TakeNumber(std::string_view& text) {
    constexpr std::size_t mostDigits = 3;
    const std::size_t length = std::min(text.find_first_not_of(digits), text.size());
    if (length == 0 || length > mostDigits) return std::nullopt;
    const std::optional<std::uint64_t> number = NumberOf(text.substr(0, length));
    text.remove_prefix(length);
    return static_cast<std::int32_t>(*number);
}

/// Takes a name: letters, or anything between < and >.
std::optional<std::string> TakeName(std::string_view& text) {
    const bool isQuoted = Take(text, '<');
    const auto isPart = [&](unsigned char byte) { return isQuoted ? byte != '>' : std::isalpha(byte) != 0; };
    std::string name(text.begin(), std::ranges::find_if_not(text, isPart));
    text.remove_prefix(name.size());
    if (name.empty() || (isQuoted && !Take(text, '>'))) return std::nullopt;
    return name;
}

/// Takes a time "[+|-]hh[:mm[:ss]]", in seconds.
std::optional<std::int32_t> TakeTime(std::string_view& text) {
    const bool isNegative = Take(text, '-');
    if (!isNegative) Take(text, '+');
    std::optional<std::int32_t> seconds = TakeNumber(text);
    if (!seconds) return std::nullopt;
    *seconds *= secondsPerHour;
    for (std::int32_t unit = secondsPerMinute; unit > 0 && Take(text, ':'); unit /= secondsPerMinute) {
        const std::optional<std::int32_t> part = TakeNumber(text);
        if (!part) return std::nullopt;
        *seconds += *part * unit;
    }
    return isNegative ? -*seconds : *seconds;
}

/// The change at so many seconds after the start of a day.
ClockChange ChangeAt(ClockChange day, std::int32_t seconds) {
    const std::int32_t days = seconds / secondsPerDay - (seconds % secondsPerDay < 0 ? 1 : 0);
    const std::int32_t ofDay = seconds - days * secondsPerDay;
    day.dayOfWeek = static_cast<std::uint8_t>(((day.dayOfWeek + days) % daysPerWeek + daysPerWeek) % daysPerWeek);
    day.hour = static_cast<std::uint32_t>(ofDay / secondsPerHour);
    day.minute = static_cast<std::uint32_t>(ofDay % secondsPerHour / secondsPerMinute);
    day.second = static_cast<std::uint32_t>(ofDay % secondsPerMinute);
    return day;
}

/// Takes ",Mmonth.week.day[/time]".
std::optional<ClockChange> TakeChange(std::string_view& text) {
    constexpr std::int32_t usualTime = 2 * secondsPerHour;
    constexpr std::int32_t months = 12;
    constexpr std::int32_t weeks = 5;
    constexpr std::int32_t absent = -1;
    if (!Take(text, ',') || !Take(text, 'M')) return std::nullopt;
    const std::int32_t month = TakeNumber(text).value_or(absent);
    const std::int32_t week = Take(text, '.') ? TakeNumber(text).value_or(absent) : absent;
    const std::int32_t day = Take(text, '.') ? TakeNumber(text).value_or(absent) : absent;
    const std::optional<std::int32_t> time = Take(text, '/') ? TakeTime(text) : usualTime;
    if (month < 1 || month > months || week < 1 || week > weeks || day < 0 || day >= daysPerWeek) return std::nullopt;
    if (!time) return std::nullopt;
    return ChangeAt({.month = static_cast<std::uint32_t>(month),
                     .week = static_cast<std::uint32_t>(week),
                     .dayOfWeek = static_cast<std::uint8_t>(day)},
                    *time);
}

/// Takes a name and the seconds west of UTC. These stay as they are when the name stands alone.
bool TakeClock(std::string_view& text, std::string& name, std::int32_t& secondsWest) {
    const std::optional<std::string> found = TakeName(text);
    const bool hasTime = !text.empty() && text.front() != ',';
    const std::optional<std::int32_t> time = hasTime ? TakeTime(text) : secondsWest;
    if (!found || !time) return false;
    name = *found;
    secondsWest = *time;
    return true;
}

/// Makes winter time the rule if it is declared as the exception.
void PutSummerLast(ZoneRules& zone) {
    DaylightSaving& daylight = *zone.daylight;
    if (daylight.minutesEast > zone.minutesEast) return;
    std::swap(zone.name, daylight.name);
    std::swap(zone.minutesEast, daylight.minutesEast);
    std::swap(daylight.start, daylight.end);
}

/// "Europe/Berlin" from the path of its file; empty for a file that is kept elsewhere.
std::string NameInPath(const std::string& path) {
    constexpr std::string_view directory = "zoneinfo/";
    const std::size_t at = path.find(directory);
    return at == std::string::npos ? "" : path.substr(at + directory.size());
}

/// The name in a file's path, else in the path that it links to; for the system's zone else the name in /etc/timezone.
std::string ReadZoneName(const std::string& path) {
    std::error_code failure;
    std::string name = NameInPath(path);
    if (name.empty()) name = NameInPath(std::filesystem::read_symlink(path, failure).string());
    if (name.empty() && path == systemZone) name = ReadSystemLine("/etc/timezone").value_or("");
    return name;
}

/// The last line of a time zone file.
std::string_view LastLineOf(std::string_view file) {
    file = Trimmed(file);
    return file.substr(file.rfind('\n') + 1);
}

/// Absent when there is no such file.
std::optional<Zone> ReadZoneFile(const std::string& path) {
    const std::optional<std::string> file = platform::ReadSystemFile(path);
    return file ? std::optional(Zone{ReadZoneName(path), ParseZoneRules(LastLineOf(*file))}) : std::nullopt;
}

}  // namespace

std::optional<ZoneRules> ParseZoneRules(std::string_view text) {
    ZoneRules zone;
    std::int32_t secondsWest = 0;
    if (!TakeClock(text, zone.name, secondsWest)) return std::nullopt;
    zone.minutesEast = -secondsWest / secondsPerMinute;
    if (text.empty()) return zone;
    DaylightSaving& daylight = zone.daylight.emplace();
    secondsWest -= secondsPerHour;
    if (!TakeClock(text, daylight.name, secondsWest)) return std::nullopt;
    daylight.minutesEast = -secondsWest / secondsPerMinute;
    const std::optional<ClockChange> start = TakeChange(text);
    const std::optional<ClockChange> end = TakeChange(text);
    if (!start || !end) {
        zone.daylight.reset();
        return zone;
    }
    daylight.start = *start;
    daylight.end = *end;
    PutSummerLast(zone);
    return zone;
}

bool IsSummerTime(const CalendarTime& time, const std::optional<ZoneRules>& rules) {
    const bool isException = time.parts.tm_isdst > 0;
    if (!rules) return isException;
    return (rules->daylight || isException) && time.minutesEast > rules->minutesEast;
}

Zone ReadZone() {
    const char* variable = std::getenv("TZ");
    if (variable == nullptr) return ReadZoneFile(systemZone).value_or(Zone());
    std::string_view name = variable;
    Take(name, ':');
    if (name.empty()) return {"UTC", ParseZoneRules("UTC0")};
    const std::optional<Zone> zone =
        ReadZoneFile(name.starts_with('/') ? std::string(name) : fmt::format("/usr/share/zoneinfo/{}", name));
    return zone ? *zone : Zone{"", ParseZoneRules(name)};
}

}  // namespace kv::facts
