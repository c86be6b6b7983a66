#include "tools/kvagentctl/status/status_text.h"

#include <fmt/format.h>

#include "platform/clock.h"

namespace kv::control {

std::string TimeText(std::int64_t time) {
    if (time == 0) return "never";
    const platform::LocalTime local = platform::Clock().ToLocalTime(time * 1000);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}", local.year, local.month, local.day, local.hour,
                       local.minute, local.second);
}

std::string TimeWithAge(std::int64_t time, std::int64_t now) {
    if (time == 0 || time > now) return TimeText(time);
    return fmt::format("{} ({} ago)", TimeText(time), DurationText(now - time));
}

std::string DurationText(std::int64_t seconds) {
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    constexpr std::int64_t day = 24 * hour;
    if (seconds < 0) seconds = 0;
    if (seconds < 2 * minute) return Counted(static_cast<std::uint64_t>(seconds), "second");
    if (seconds < 2 * hour) return Counted(static_cast<std::uint64_t>(seconds / minute), "minute");
    if (seconds < 2 * day) return fmt::format("{} h {} min", seconds / hour, seconds % hour / minute);
    return Counted(static_cast<std::uint64_t>(seconds / day), "day");
}

std::string SizeText(std::uint64_t bytes) {
    if (bytes < 1000) return Counted(bytes, "byte");
    constexpr const char* units[] = {"kB", "MB", "GB", "TB"};
    double size = static_cast<double>(bytes) / 1000;
    std::size_t unit = 0;
    for (; size >= 999.95 && unit + 1 < std::size(units); ++unit) size /= 1000;
    return fmt::format("{:.1f} {}", size, units[unit]);
}

std::string Counted(std::uint64_t number, std::string_view what) {
    return fmt::format("{} {}{}", number, what, number == 1 ? "" : "s");
}

}  // namespace kv::control
