#include "lab/commands/moment.h"

#include <ctime>
#include <optional>

#include "lab/commands/command_line.h"
#include "lab/commands/duration.h"

namespace kv::lab {

namespace {

/// Seconds since 1970 when a whole text is a time of this form; absent otherwise, also for days such as February 30.
std::optional<std::int64_t> SecondsOf(const std::string& text, const char* form) {
    std::tm time{};
    const char* const end = strptime(text.c_str(), form, &time);
    if (end == nullptr || *end != '\0') return std::nullopt;
    const int day = time.tm_mday;
    const std::int64_t seconds = timegm(&time);  // which makes March 2 of February 30
    return time.tm_mday == day ? std::optional(seconds) : std::nullopt;
}

/// When it was such a time of day last.
std::int64_t LastTimeOfDay(std::int64_t timeOfDay, std::int64_t now) {
    constexpr std::int64_t day = 86'400'000;
    const std::int64_t today = now - now % day + timeOfDay;
    return today <= now ? today : today - day;
}

}  // namespace

std::int64_t MomentOf(const std::string& option, const std::string& text, std::int64_t now) {
    std::string plain = text;
    if (plain.ends_with('Z')) plain.pop_back();
    if (const std::size_t mark = plain.find('T'); mark != std::string::npos) plain[mark] = ' ';
    for (const char* const form : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S"})
        if (const std::optional<std::int64_t> seconds = SecondsOf(plain, form)) return *seconds * 1000;
    for (const char* const form : {"%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S"})
        if (const std::optional<std::int64_t> seconds = SecondsOf("1970-01-01 " + plain, form))
            return LastTimeOfDay(*seconds * 1000, now);
    if (const std::int64_t ago = MillisecondsIn(text); ago > 0) return now - ago;
    throw UsageError(option + " takes a time in UTC such as 13:10 or '2026-11-27 13:10', or 15m, 2h, 7d ago, not '" +
                     text + "'");
}

}  // namespace kv::lab
