// Time: the wall clock, a tick count and sleep. Everything in the agent that waits or reads the time does it here, so
// that a test can let hours pass at once.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/seam.h"

namespace platform {

/// A point of time in local time, split into its parts.
struct LocalTime {
    int year = 1970;  // full year
    int month = 1;    // 1 to 12
    int day = 1;      // 1 to 31
    int hour = 0;
    int minute = 0;
    int second = 0;
    int millisecond = 0;
};

struct ClockOperations {
    /// Milliseconds since 1970, UTC.
    std::function<std::int64_t()> GetSystemTimeMilliseconds;

    /// Milliseconds since some fixed moment, in steps of at most 16; never goes back. The time that the computer sleeps
    /// counts on Windows and does not on Linux.
    std::function<std::uint64_t()> GetTickCount64;

    // The next two are meant for the years 1601 to 9999. Outside of them they give some time.

    /// Local time of a moment given in milliseconds since 1970.
    std::function<LocalTime(std::int64_t millisecondsSince1970)> ToLocalTime;

    /// Milliseconds since 1970 of a local time; of a time that the clocks pass twice, one of the two. A part beyond its
    /// range carries over into the next larger one: the 32nd of January is the 1st of February.
    std::function<std::int64_t(const LocalTime& time)> FromLocalTime;

    /// Waits that long; 0 only lets other threads run. No number means forever.
    std::function<void(std::uint32_t milliseconds)> Sleep;
};

inline const ClockOperations& Clock() { return CurrentOperations<ClockOperations>(); }

}  // namespace platform
