// How busy processors were since someone last asked.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "facts/hardware/cpu_info.h"
#include "facts/processes/kernel_totals.h"

namespace kv::facts {

using TimesByProcessor = std::map<std::uint32_t, ProcessorTimes>;

/// The samples that later ones may be compared with. Any thread may call it.
class LoadHistory {
  public:
    /// Takes a sample, and returns the one to compare it with: the last that is at least a second older. Without such a
    /// sample it returns an empty one, which stands for the system's start.
    TimesByProcessor Exchange(const TimesByProcessor& sample, std::chrono::steady_clock::time_point now);

  private:
    struct Sample {
        TimesByProcessor times;
        std::chrono::steady_clock::time_point taken;
    };

    std::mutex mutex_;
    Sample last_;
    Sample beforeLast_;
};

/// How much of the time between two samples some processors were busy, all of them together, in percent. A processor
/// that the first sample lacks counts from the system's start, and one that the second lacks does not count. 0 when no
/// time has passed.
std::uint16_t BusyPercent(const std::vector<CpuBlock>& processors, const TimesByProcessor& from,
                          const TimesByProcessor& to);

}  // namespace kv::facts
