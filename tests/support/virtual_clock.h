// Time that passes only when someone sleeps.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "platform/clock.h"

namespace kv::test {

/// Thrown by Sleep to leave an endless loop. Not a std::exception, because the loops catch those and go on.
struct TimeIsUp {};

/// The current clock while it lives. Sleep moves its time forward and returns at once; local time is UTC.
class VirtualClock {
  public:
    /// 2026-03-05 09:05:07 UTC.
    static constexpr std::int64_t startMilliseconds = 1772701507000;

    VirtualClock();

    std::int64_t nowMilliseconds() const { return now_; }
    std::int64_t nowSeconds() const { return now_ / 1000; }
    void AdvanceMilliseconds(std::int64_t milliseconds) { now_ += milliseconds; }

    /// Called by each Sleep, once the time has moved; may throw TimeIsUp.
    std::function<void(std::uint32_t milliseconds)> onSleep;

    /// Milliseconds since 1970. A Sleep that reaches this moment throws TimeIsUp.
    std::int64_t endMilliseconds = INT64_MAX;

  private:
    std::atomic<std::int64_t> now_{startMilliseconds};
    platform::ScopedOperations<platform::ClockOperations> scoped_;
};

}  // namespace kv::test
