// How busy processors were since the last time someone asked.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

#include "facts/cpu_info.h"
#include "facts/kernel_totals.h"

namespace kv::facts {

using TimesByProcessor = std::map<std::uint32_t, ProcessorTimes>;

/// The samples that may still be compared with. Any thread may call it.
class LoadHistory {
  public:
    /// Takes a sample, and gives the one to compare it with: the last that is at least a second older. When there is
    /// no such sample it gives an empty one, which stands for the system's start.
    TimesByProcessor exchange(const TimesByProcessor& sample, std::chrono::steady_clock::time_point now);

  private:
    struct Sample {
        TimesByProcessor times;
        std::chrono::steady_clock::time_point taken;
    };

    std::mutex mutex_;
    Sample last_;
    Sample beforeLast_;
};

/// The share that some processors together were not idle of the time between two samples, in percent; what a sample
/// lacks counts from the system's start. 0 when no time has passed.
std::uint16_t BusyPercent(const std::vector<CpuBlock>& processors, const TimesByProcessor& from,
                          const TimesByProcessor& to);

}  // namespace kv::facts
