// Time that passes only when someone sleeps.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "platform/clock.h"

namespace kv::test {

/// Thrown out of Sleep to leave a loop that never ends. No std::exception: the loops keep running through those.
struct TimeIsUp {};

/// Replaces the platform's clock while it lives: Sleep moves the time forward at once. Local time is UTC.
class VirtualClock {
  public:
    /// 2026-03-05 09:05:07 UTC.
    static constexpr std::int64_t startMilliseconds = 1772701507000;

    VirtualClock();

    std::int64_t nowMilliseconds() const { return now_; }
    std::int64_t nowSeconds() const { return now_ / 1000; }
    void advanceMilliseconds(std::int64_t milliseconds) { now_ += milliseconds; }

    /// Called on each Sleep after the time has moved; it may throw TimeIsUp.
    std::function<void(std::uint32_t milliseconds)> onSleep;

    /// Sleep throws TimeIsUp once this moment is reached (milliseconds since 1970).
    std::int64_t endMilliseconds = INT64_MAX;

  private:
    std::atomic<std::int64_t> now_{startMilliseconds};
    platform::ScopedOperations<platform::ClockOperations> scoped_;
};

}  // namespace kv::test
