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

/// The rules of the year in question, not of today's, where the time zone has changed its rules.
LocalTime ToLocalTime(std::int64_t millisecondsSince1970) {
    const FILETIME time = FileTimeOf(millisecondsSince1970);
    SYSTEMTIME utc;
    SYSTEMTIME local;
    if (!::FileTimeToSystemTime(&time, &utc)) return {};
    if (!::SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local)) local = utc;
    return {local.wYear, local.wMonth, local.wDay, local.wHour, local.wMinute, local.wSecond, local.wMilliseconds};
}

std::int64_t FromLocalTime(const LocalTime& time) {
    const auto word = [](int part) { return static_cast<WORD>(part); };
    const SYSTEMTIME local{word(time.year),   word(time.month),      0,
                           word(time.day),    word(time.hour),       word(time.minute),
                           word(time.second), word(time.millisecond)};
    SYSTEMTIME utc;
    if (!::TzSpecificLocalTimeToSystemTime(nullptr, &local, &utc)) utc = local;
    FILETIME moment{};
    ::SystemTimeToFileTime(&utc, &moment);
    return MillisecondsOf(moment);
}

}  // namespace

ClockOperations WindowsClock() {
    return {
        .GetSystemTimeMilliseconds = GetSystemTimeMilliseconds,
        .GetTickCount64 = [] { return std::uint64_t{::GetTickCount64()}; },
        .ToLocalTime = ToLocalTime,
        .FromLocalTime = FromLocalTime,
        .Sleep = [](std::uint32_t milliseconds) { ::Sleep(milliseconds); },
    };
}

}  // namespace platform
