#include "platform/posix/wmi_classes/processor_load.h"

#include <utility>

namespace platform::wmi {

namespace {

ProcessorTimes TimesOf(const TimesByProcessor& sample, std::uint32_t number) {
    const auto found = sample.find(number);
    return found == sample.end() ? ProcessorTimes() : found->second;
}

/// Growth of a counter; one that was set back has none.
std::uint64_t Growth(std::uint64_t from, std::uint64_t to) { return to > from ? to - from : 0; }

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
    constexpr std::uint64_t hundred = 100;
    std::uint64_t busy = 0;
    std::uint64_t idle = 0;
    for (const CpuBlock& processor : processors) {
        const ProcessorTimes before = TimesOf(from, processor.number);
        const ProcessorTimes after = TimesOf(to, processor.number);
        busy += Growth(before.busyTicks(), after.busyTicks());
        idle += Growth(before.idleTicks(), after.idleTicks());
    }
    const std::uint64_t all = busy + idle;
    return all == 0 ? std::uint16_t{0} : static_cast<std::uint16_t>((busy * hundred + all / 2) / all);
}

}  // namespace platform::wmi
