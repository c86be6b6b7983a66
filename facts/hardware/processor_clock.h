// The clock rate of one logical processor: now, its limits, and how long it had each rate (cpufreq).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "facts/hardware/cpu_info.h"

namespace kv::facts {

/// In MHz. Absent is what the system does not tell, as in most virtual machines.
struct ProcessorClock {
    std::optional<std::uint64_t> now;
    std::optional<std::uint64_t> nominal;  // without a boost; the highest where only that is known
    std::optional<std::uint64_t> highest;  // of the hardware
    std::optional<std::uint64_t> limit;    // that it may have now
};

ProcessorClock ReadProcessorClock(const CpuBlock& processor, const CpuFiles& files);

/// How long a processor had which rate since the system's start.
struct ClockTimes {
    std::uint64_t milliseconds = 0;
    std::uint64_t megahertzMilliseconds = 0;  // the sum of each time multiplied by its rate
};

/// From the text of cpufreq/stats/time_in_state: lines of a rate in kHz and a time in units of 10 ms. Absent when the
/// text is empty or has another form.
std::optional<ClockTimes> ParseClockTimes(std::string_view text);

}  // namespace kv::facts
