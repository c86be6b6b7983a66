#include "facts/processes/perf_texts.h"

#include <string>
#include <vector>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

/// The numbers of the processors in a heading such as "CPU0 CPU1".
std::vector<std::uint32_t> ParseHeading(std::string_view line) {
    constexpr std::string_view prefix = "CPU";
    std::vector<std::uint32_t> numbers;
    for (std::string_view field = TakeField(line); field.starts_with(prefix); field = TakeField(line)) {
        numbers.push_back(static_cast<std::uint32_t>(NumberOf(field.substr(prefix.size())).value_or(UINT32_MAX)));
    }
    return numbers;
}

/// The columns after a line's name; empty when there are fewer than asked for.
std::vector<std::uint64_t> ParseColumns(std::string_view line, std::size_t count) {
    std::vector<std::uint64_t> columns;
    TakeField(line);
    while (columns.size() < count) {
        const std::optional<std::uint64_t> number = NumberOf(TakeField(line));
        if (!number) return {};
        columns.push_back(*number);
    }
    return columns;
}

}  // namespace

std::optional<std::uint64_t> NumberUnder(std::string_view text, std::string_view name) {
    for (std::string_view line; TakeLine(text, line);) {
        if (line.starts_with(name) && TakeField(line) == name) return NumberOf(TakeField(line));
    }
    return std::nullopt;
}

std::map<std::uint32_t, std::uint64_t> SumByProcessor(std::string_view text) {
    std::string_view line;
    TakeLine(text, line);
    const std::vector<std::uint32_t> numbers = ParseHeading(line);
    std::map<std::uint32_t, std::uint64_t> sums;
    while (TakeLine(text, line)) {
        const std::vector<std::uint64_t> columns = ParseColumns(line, numbers.size());
        for (std::size_t at = 0; at < columns.size(); ++at) sums[numbers[at]] += columns[at];
    }
    return sums;
}

std::map<std::uint32_t, std::uint64_t> TimerInterruptsByProcessor(std::string_view interrupts) {
    std::string_view line;
    TakeLine(interrupts, line);
    std::string timers = std::string(line) + '\n';
    while (TakeLine(interrupts, line)) {
        line = Trimmed(line);
        const bool isTimer = line.starts_with("LOC:") || line.ends_with("arch_timer") || line.ends_with("riscv-timer");
        if (isTimer) timers.append(line) += '\n';
    }
    return SumByProcessor(timers);
}

std::optional<std::uint64_t> ParseThreadCount(std::string_view text) {
    constexpr int averages = 3;
    for (int field = 0; field < averages; ++field) TakeField(text);
    const std::string_view runningOfAll = TakeField(text);
    const std::size_t slash = runningOfAll.find('/');
    return slash == std::string_view::npos ? std::nullopt : NumberOf(runningOfAll.substr(slash + 1));
}

}  // namespace kv::facts
