#include "tests/support/virtual_clock.h"

#include <chrono>

namespace kv::test {

namespace {

platform::LocalTime TakeApartUtc(std::int64_t milliseconds) {
    const std::chrono::sys_time<std::chrono::milliseconds> moment{std::chrono::milliseconds(milliseconds)};
    const auto midnight = std::chrono::floor<std::chrono::days>(moment);
    const std::chrono::year_month_day date(midnight);
    const std::chrono::hh_mm_ss time(moment - midnight);
    return {int{date.year()},
            static_cast<int>(unsigned{date.month()}),
            static_cast<int>(unsigned{date.day()}),
            static_cast<int>(time.hours().count()),
            static_cast<int>(time.minutes().count()),
            static_cast<int>(time.seconds().count()),
            static_cast<int>(time.subseconds().count())};
}

std::int64_t PutTogetherUtc(const platform::LocalTime& time) {
    const std::chrono::sys_days midnight(std::chrono::year(time.year) / time.month / time.day);
    const std::chrono::milliseconds moment = midnight.time_since_epoch() + std::chrono::hours(time.hour) +
                                             std::chrono::minutes(time.minute) + std::chrono::seconds(time.second) +
                                             std::chrono::milliseconds(time.millisecond);
    return moment.count();
}

}  // namespace

VirtualClock::VirtualClock()
    : scoped_(platform::ClockOperations{
          .GetSystemTimeMilliseconds = [this] { return now_.load(); },
          .GetTickCount64 = [this] { return static_cast<std::uint64_t>(now_.load()); },
          .ToLocalTime = TakeApartUtc,
          .FromLocalTime = PutTogetherUtc,
          .Sleep =
              [this](std::uint32_t milliseconds) {
                  now_ += milliseconds;
                  if (onSleep) onSleep(milliseconds);
                  if (now_ >= endMilliseconds) throw TimeIsUp();
              },
      }) {}

}  // namespace kv::test
