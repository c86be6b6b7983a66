#include "facts/hardware/processor_idle.h"

#include <algorithm>
#include <string>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

/// The number in a name such as "C1E", "C6" or "C2_ACPI"; 0 if the name has another form.
std::size_t DepthOf(std::string_view name) {
    if (!name.starts_with('C')) return 0;
    name.remove_prefix(1);
    return NumberOf(name.substr(0, name.find_first_not_of("0123456789"))).value_or(0);
}

void Add(const IdleTimes& times, IdleTimes& sum) {
    sum.microseconds += times.microseconds;
    sum.entries += times.entries;
}

}  // namespace

std::optional<ProcessorIdle> ReadProcessorIdle(std::uint32_t processor, const CpuFiles& files) {
    constexpr unsigned mostStates = 32;  // the kernel has at most 10
    std::optional<ProcessorIdle> idle;
    for (unsigned state = 0; state < mostStates; ++state) {
        const auto read = [&](const char* file) {
            return files(processor, "cpuidle/state" + std::to_string(state) + file).value_or("");
        };
        const std::optional<std::uint64_t> time = NumberOf(read("/time"));
        const std::optional<std::uint64_t> entries = NumberOf(read("/usage"));
        if (!time || !entries) break;
        if (!idle) idle.emplace();
        const IdleTimes times{*time, *entries};
        Add(times, idle->all);
        const std::size_t depth = std::min(DepthOf(read("/name")), ProcessorIdle::depths);
        if (depth == 0) continue;
        if (!idle->byDepth) idle->byDepth.emplace();
        Add(times, (*idle->byDepth)[depth - 1]);
    }
    return idle;
}

}  // namespace kv::facts
