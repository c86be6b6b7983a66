// Timer units: when they elapse, and what they start (org.freedesktop.systemd1(5)).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/systemd/system_bus.h"

namespace platform::systemd {

/// Times are microseconds; 0 for one that is not set.
struct TimerState {
    std::string unit;                   // what it starts: "logrotate.service"
    std::vector<std::string> calendar;  // of OnCalendar=, as the manager writes them: "Mon *-*-* 00:00:00"
    bool followsItsUnit = false;        // elapses a time after the unit was started or stopped, again and again
    std::uint64_t nextRealtime = 0;     // since 1970
    std::uint64_t nextMonotonic = 0;    // of the monotonic clock
    std::uint64_t lastTrigger = 0;      // since 1970
};

/// Asks for one timer. Negative: a negated errno value.
[[nodiscard]] int ReadTimer(sd_bus* bus, const std::string& timer, TimerState& state);

/// When a timer elapses next, in microseconds since 1970, as systemctl shows it: the earlier one of its two times. now:
/// the present by either clock. Absent if it does not elapse any more.
std::optional<std::uint64_t> NextElapse(const TimerState& state, std::uint64_t nowRealtime, std::uint64_t nowMonotonic);

}  // namespace platform::systemd
