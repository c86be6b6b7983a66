#include "facts/processor_load.h"

#include <cmath>
#include <utility>

#include "facts/process_files.h"
#include "wql/classes/perf_class.h"

namespace platform::wmi {

namespace {

CounterState StateOf(const ProcessorTimes& times) {
    return {0, TimeOfTicks(times.idleTicks()), TimeOfTicks(times.busyTicks() + times.idleTicks())};
}

}  // namespace

TimesByProcessor LoadHistory::exchange(const TimesByProcessor& sample, std::chrono::steady_clock::time_point now) {
    constexpr std::chrono::seconds youngestBase(1);
    const std::lock_guard lock(mutex_);
    if (!last_.times.empty() && now - last_.taken < youngestBase) return beforeLast_.times;
    beforeLast_ = std::exchange(last_, {sample, now});
    return beforeLast_.times;
}

std::uint16_t BusyPercent(const std::vector<CpuBlock>& processors, const TimesByProcessor& from,
                          const TimesByProcessor& to) {
    std::vector<Quotient> loads;
    for (const CpuBlock& processor : processors) {
        const auto now = to.find(processor.number);
        if (now == to.end()) continue;
        const auto earlier = from.find(processor.number);
        const CounterState before = earlier != from.end() ? StateOf(earlier->second) : CounterState();
        loads.push_back(QuotientBetween(CounterKind::percentOfTimeLeft, &before, StateOf(now->second), 0));
    }
    // Together they are one figure, in which a processor counts for as long as it ran.
    return static_cast<std::uint16_t>(std::lround(TotalOf(CounterKind::fraction, loads, 1)));
}

}  // namespace platform::wmi
