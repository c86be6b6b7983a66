// PerfOS_Processor, from /proc/stat, /proc/interrupts and /proc/softirqs.
#include "facts/kernel_totals.h"
#include "facts/perf_texts.h"
#include "facts/process_files.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { times = 1, interrupts = 2, softInterrupts = 4 };
};

struct Row {
    facts::ProcessorTimes times;  // in ticks
    std::optional<std::uint64_t> interrupts;
    std::optional<std::uint64_t> softInterrupts;
};

constexpr auto idleTimeIn = [](const Row& row) { return facts::TimeOfTicks(row.times.idleTicks()); };

/// The time that percentages refer to: all that was counted. While the computer sleeps, nothing is.
constexpr auto wholeTimeIn = [](const Row& row) {
    return facts::TimeOfTicks(row.times.busyTicks() + row.times.idleTicks());
};

/// At which the kernel's counts of interrupts wrap.
constexpr std::uint64_t countPeriod = std::uint64_t{1} << 32;

// clang-format off
constexpr CounterInfo counters[] = {
    {u"C1TransitionsPersec", uint64, rate},
    {u"C2TransitionsPersec", uint64, rate},
    {u"C3TransitionsPersec", uint64, rate},
    {u"DPCRate", uint32},
    {u"DPCsQueuedPersec", uint32, rate, Need::softInterrupts, "softirqs run, of /proc/softirqs",
        [](const Row& row) { return row.softInterrupts; }, nullptr, countPeriod},
    {u"InterruptsPersec", uint32, rate, Need::interrupts, "of /proc/interrupts", [](const Row& row) { return row.interrupts; },
        nullptr, countPeriod},
    {u"PercentC1Time", uint64, percentOfTime},
    {u"PercentC2Time", uint64, percentOfTime},
    {u"PercentC3Time", uint64, percentOfTime},
    {u"PercentDPCTime", uint64, percentOfTime, Need::times, "softirq", [](const Row& row) { return facts::TimeOfTicks(row.times.softInterrupts); }, wholeTimeIn},
    {u"PercentIdleTime", uint64, percentOfTime, Need::times, "idle and iowait", idleTimeIn, wholeTimeIn},
    {u"PercentInterruptTime", uint64, percentOfTime, Need::times, "irq", [](const Row& row) { return facts::TimeOfTicks(row.times.interrupts); }, wholeTimeIn},
    {u"PercentPrivilegedTime", uint64, percentOfTime, Need::times, "system, irq and softirq",
        [](const Row& row) { return facts::TimeOfTicks(row.times.kernel + row.times.interrupts + row.times.softInterrupts); }, wholeTimeIn},
    {u"PercentProcessorTime", uint64, percentOfTimeLeft, Need::times, "not idle; the raw counter is the idle time", idleTimeIn, wholeTimeIn},
    {u"PercentUserTime", uint64, percentOfTime, Need::times, "user and nice, guests included",
        [](const Row& row) { return facts::TimeOfTicks(row.times.user + row.times.nice); }, wholeTimeIn},
};
// clang-format on

using Sums = std::map<std::uint32_t, std::uint64_t>;

Sums ReadSums(const char* path) { return facts::SumByProcessor(platform::ReadSystemFile(path).value_or("")); }

std::optional<std::uint64_t> SumOf(const Sums& sums, std::uint32_t processor) {
    const auto found = sums.find(processor);
    return found != sums.end() ? std::optional(found->second) : std::nullopt;
}

WmiStatus ReadProcessors(const Gathering& gathering, PerfSampling& sampling) {
    const std::optional<std::string> text = platform::ReadSystemFile("/proc/stat");
    if (!text) return wmi_status::providerFailure;
    const std::uint64_t now = TimeSinceStart();
    Sums interrupts;
    Sums softInterrupts;
    if (gathering.asksFor(Need::interrupts)) interrupts = ReadSums("/proc/interrupts");
    if (gathering.asksFor(Need::softInterrupts)) softInterrupts = ReadSums("/proc/softirqs");
    for (const facts::ProcessorTimes& times : facts::ParseProcessorTimes(*text)) {
        PerfObject object;
        object.name = std::to_string(times.number);
        object.key = object.name;
        // A processor that was added later, or switched off and on, has been counted for as long as its times add up
        // to.
        object.birth = now - std::min(now, facts::TimeOfTicks(times.busyTicks() + times.idleTicks()));
        const Row row{times, SumOf(interrupts, times.number), SumOf(softInterrupts, times.number)};
        sampling.Add(std::move(object), &row, now);
    }
    return wmi_status::ok;
}

constexpr PerfClass processors{
    .name = u"PerfOS_Processor", .counters = counters, .read = ReadProcessors, .hasTotal = true};

const ClassFamily family(DeclarePerfClasses<processors>);

}  // namespace

}  // namespace kv::wql
