// How long and how often a logical processor was in idle states (cpuidle).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "facts/hardware/cpu_info.h"

namespace kv::facts {

/// Since the system's start, or since the processor was switched on. What it is in now counts when it ends.
struct IdleTimes {
    std::uint64_t microseconds = 0;
    std::uint64_t entries = 0;
};

struct ProcessorIdle {
    static constexpr std::size_t depths = 3;

    IdleTimes all;  // polling included

    /// C1 (with C1E), C2, and C3 with the deeper ones; absent where states have other names, as on ARM.
    std::optional<std::array<IdleTimes, depths>> byDepth;
};

/// Absent when the kernel does not manage idle states, as in many virtual machines.
std::optional<ProcessorIdle> ReadProcessorIdle(std::uint32_t processor, const CpuFiles& files);

}  // namespace kv::facts
