#include "facts/hardware/processor_load.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "facts/processes/process_files.h"

namespace kv::facts {

namespace {

/// Parts of the time between two samples, in ticks.
struct Share {
    double busy = 0;
    double whole = 0;
};

double WholeTicks(const ProcessorTimes& times) { return static_cast<double>(times.busyTicks() + times.idleTicks()); }

/// If the counters have started again since the earlier sample, the share since the system's start. An idle time that
/// went back a little, as the kernel's does, counts as unchanged.
Share ShareBetween(const ProcessorTimes& earlier, const ProcessorTimes& now) {
    const double whole = WholeTicks(now) - WholeTicks(earlier);
    const double idle = static_cast<double>(now.idleTicks()) - static_cast<double>(earlier.idleTicks());
    if (whole < 0 || -idle > static_cast<double>(ClockTicksPerSecond())) {
        return {static_cast<double>(now.busyTicks()), WholeTicks(now)};
    }
    return {whole - std::max(idle, 0.0), whole};
}

}  // namespace

TimesByProcessor LoadHistory::Exchange(const TimesByProcessor& sample, std::chrono::steady_clock::time_point now) {
    constexpr std::chrono::seconds youngestBase(1);
    const std::lock_guard lock(mutex_);
    if (!last_.times.empty() && now - last_.taken < youngestBase) return beforeLast_.times;
    beforeLast_ = std::exchange(last_, {sample, now});
    return beforeLast_.times;
}

std::uint16_t BusyPercent(const std::vector<CpuBlock>& processors, const TimesByProcessor& from,
                          const TimesByProcessor& to) {
    // A processor weighs as much in the one figure as the time that it was online.
    Share all;
    for (const CpuBlock& processor : processors) {
        const auto now = to.find(processor.number);
        if (now == to.end()) continue;
        const auto earlier = from.find(processor.number);
        const Share share = ShareBetween(earlier != from.end() ? earlier->second : ProcessorTimes(), now->second);
        all.busy += share.busy;
        all.whole += share.whole;
    }
    constexpr double wholePercent = 100;
    return all.whole > 0 ? static_cast<std::uint16_t>(std::lround(std::max(all.busy, 0.0) * wholePercent / all.whole))
                         : std::uint16_t{0};
}

}  // namespace kv::facts
