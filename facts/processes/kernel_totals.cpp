#include "facts/processes/kernel_totals.h"

#include "facts/system_text.h"

namespace kv::facts {

std::optional<std::uint64_t> MemoryFigure(std::string_view memInfo, std::string_view key) {
    for (std::string_view line; TakeLine(memInfo, line);) {
        if (!line.starts_with(key) || line.substr(key.size(), 1) != ":") continue;
        line.remove_prefix(key.size() + 1);
        return NumberOf(TakeField(line));
    }
    return std::nullopt;
}

std::optional<std::uint64_t> AvailableMemory(std::string_view memInfo) {
    if (const auto available = MemoryFigure(memInfo, "MemAvailable")) return available;
    const auto free = MemoryFigure(memInfo, "MemFree");
    if (!free) return std::nullopt;
    return *free + MemoryFigure(memInfo, "Buffers").value_or(0) + MemoryFigure(memInfo, "Cached").value_or(0);
}

std::vector<ProcessorTimes> ParseProcessorTimes(std::string_view stat) {
    constexpr std::string_view prefix = "cpu";
    std::vector<ProcessorTimes> all;
    for (std::string_view line; TakeLine(stat, line) && line.starts_with(prefix);) {
        const std::optional<std::uint64_t> number = NumberOf(TakeField(line).substr(prefix.size()));
        if (!number) continue;
        ProcessorTimes& times = all.emplace_back();
        times.number = static_cast<std::uint32_t>(*number);
        for (std::uint64_t* figure : {&times.user, &times.nice, &times.kernel, &times.idle, &times.ioWait,
                                      &times.interrupts, &times.softInterrupts, &times.stolen}) {
            *figure = NumberOf(TakeField(line)).value_or(0);
        }
    }
    return all;
}

}  // namespace kv::facts
