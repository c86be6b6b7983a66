#include "tests/support/virtual_clock.h"

#include <ctime>

namespace kv::test {

namespace {

platform::LocalTime UtcParts(std::int64_t milliseconds) {
    const std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    return {parts.tm_year + 1900,
            parts.tm_mon + 1,
            parts.tm_mday,
            parts.tm_hour,
            parts.tm_min,
            parts.tm_sec,
            static_cast<int>(milliseconds % 1000)};
}

std::int64_t MillisecondsOf(const platform::LocalTime& time) {
    std::tm parts{};
    parts.tm_year = time.year - 1900;
    parts.tm_mon = time.month - 1;
    parts.tm_mday = time.day;
    parts.tm_hour = time.hour;
    parts.tm_min = time.minute;
    parts.tm_sec = time.second;
    return std::int64_t{timegm(&parts)} * 1000 + time.millisecond;
}

}  // namespace

VirtualClock::VirtualClock()
    : scoped_(platform::ClockOperations{
          .GetSystemTimeMilliseconds = [this] { return now_.load(); },
          .GetTickCount64 = [this] { return static_cast<std::uint64_t>(now_.load()); },
          .ToLocalTime = UtcParts,
          .FromLocalTime = MillisecondsOf,
          .Sleep =
              [this](std::uint32_t milliseconds) {
                  now_ += milliseconds;
                  if (onSleep) onSleep(milliseconds);
                  if (now_ >= endMilliseconds) throw TimeIsUp();
              },
      }) {}

}  // namespace kv::test
