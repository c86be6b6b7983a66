#include <algorithm>
#include <chrono>

#include "platform/windows/win32.h"

namespace platform {

namespace {

/// The system counts 100 nanoseconds since 1601; this is 1970 in that count.
constexpr std::int64_t ticksTo1970 = 116'444'736'000'000'000;
constexpr std::int64_t ticksInMillisecond = 10'000;

std::int64_t MillisecondsOf(const FILETIME& time) {
    const std::uint64_t ticks = (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
    const std::int64_t since1970 = static_cast<std::int64_t>(ticks) - ticksTo1970;
    return (since1970 - (since1970 < 0 ? ticksInMillisecond - 1 : 0)) / ticksInMillisecond;
}

FILETIME FileTimeOf(std::int64_t millisecondsSince1970) {
    const auto ticks = static_cast<std::uint64_t>(millisecondsSince1970 * ticksInMillisecond + ticksTo1970);
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

std::int64_t GetSystemTimeMilliseconds() {
    FILETIME now;
    ::GetSystemTimeAsFileTime(&now);
    return MillisecondsOf(now);
}

/// The system knows no moment before the first of these years. The last is the agent's choice.
constexpr std::int64_t firstYear = 1601;
constexpr std::int64_t lastYear = 9999;

std::int64_t WithinRange(std::int64_t milliseconds) {
    constexpr std::int64_t endOfLastYear = 253'402'300'799'999;
    return std::clamp(milliseconds, -ticksTo1970 / ticksInMillisecond, endOfLastYear);
}

SYSTEMTIME PartsOf(std::int64_t millisecondsSince1970) {
    const FILETIME time = FileTimeOf(WithinRange(millisecondsSince1970));
    SYSTEMTIME parts{};
    ::FileTimeToSystemTime(&time, &parts);
    return parts;
}

/// Daylight saving is that of the moment in question, not today's.
LocalTime ToLocalTime(std::int64_t millisecondsSince1970) {
    const SYSTEMTIME utc = PartsOf(millisecondsSince1970);
    SYSTEMTIME local;
    if (!::SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local)) local = utc;
    return {.year = local.wYear,
            .month = local.wMonth,
            .day = local.wDay,
            .hour = local.wHour,
            .minute = local.wMinute,
            .second = local.wSecond,
            .millisecond = local.wMilliseconds};
}

/// The moment at which a UTC clock would show the time. Parts beyond their range, as archives have them, carry over
/// into the next larger one; the system's own routine would refuse them.
std::int64_t AsUtc(const LocalTime& time) {
    const std::int64_t months =
        std::clamp(std::int64_t{time.year} * 12 + time.month - 1, firstYear * 12, (lastYear + 1) * 12 - 1);
    const std::chrono::year year(static_cast<int>(months / 12));
    const std::chrono::sys_days firstOfMonth(year / static_cast<int>(months % 12 + 1) / 1);
    const std::chrono::milliseconds moment = firstOfMonth.time_since_epoch() + std::chrono::days(time.day - 1) +
                                             std::chrono::hours(time.hour) + std::chrono::minutes(time.minute) +
                                             std::chrono::seconds(time.second) +
                                             std::chrono::milliseconds(time.millisecond);
    return moment.count();
}

std::int64_t FromLocalTime(const LocalTime& time) {
    const SYSTEMTIME local = PartsOf(AsUtc(time));
    SYSTEMTIME utc;
    if (!::TzSpecificLocalTimeToSystemTime(nullptr, &local, &utc)) utc = local;
    FILETIME moment{};
    ::SystemTimeToFileTime(&utc, &moment);
    return MillisecondsOf(moment);
}

/// To the system the greatest number means forever.
void Sleep(std::uint32_t milliseconds) { ::Sleep(std::min<DWORD>(milliseconds, INFINITE - 1)); }

}  // namespace

ClockOperations WindowsClock() {
    return {
        .GetSystemTimeMilliseconds = GetSystemTimeMilliseconds,
        .GetTickCount64 = [] { return std::uint64_t{::GetTickCount64()}; },
        .ToLocalTime = ToLocalTime,
        .FromLocalTime = FromLocalTime,
        .Sleep = Sleep,
    };
}

}  // namespace platform
