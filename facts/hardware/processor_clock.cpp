#include "facts/hardware/processor_clock.h"

#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::uint64_t kilohertzPerMegahertz = 1000;

std::optional<std::uint64_t> MegahertzIn(const CpuFiles& files, std::uint32_t number, std::string_view name) {
    const std::optional<std::string> text = files(number, name);
    const std::optional<std::uint64_t> kilohertz = text ? NumberOf(*text) : std::nullopt;
    return kilohertz ? std::optional(*kilohertz / kilohertzPerMegahertz) : std::nullopt;
}

}  // namespace

ProcessorClock ReadProcessorClock(const CpuBlock& processor, const CpuFiles& files) {
    const Socket alone{0, {processor}};
    ProcessorClock clock;
    clock.now = ClockOf(alone, files);
    clock.nominal = MaxClockOf(alone, files);
    clock.highest = MegahertzIn(files, processor.number, "cpufreq/cpuinfo_max_freq");
    clock.limit = MegahertzIn(files, processor.number, "cpufreq/scaling_max_freq");
    return clock;
}

std::optional<ClockTimes> ParseClockTimes(std::string_view text) {
    constexpr std::uint64_t millisecondsPerUnit = 10;
    ClockTimes times;
    for (std::string_view line; TakeLine(text, line);) {
        const std::optional<std::uint64_t> kilohertz = NumberOf(TakeField(line));
        const std::optional<std::uint64_t> units = NumberOf(TakeField(line));
        if (!kilohertz || !units) return std::nullopt;
        times.milliseconds += *units * millisecondsPerUnit;
        times.megahertzMilliseconds += *units * millisecondsPerUnit * (*kilohertz / kilohertzPerMegahertz);
    }
    return times.milliseconds != 0 ? std::optional(times) : std::nullopt;
}

}  // namespace kv::facts
