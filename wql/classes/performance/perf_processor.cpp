// PerfOS_Processor and Counters_ProcessorInformation, from /proc/stat, /proc/interrupts and /proc/softirqs; the second
// also has clock rates and, in names such as "0,3", the memory node and the processor's place in it.
//
// On Windows "utility" is the busy time multiplied by the clock rate, in percent of that of a processor that is never
// idle and has its nominal rate. Linux keeps no sum of rates while busy, so here every processor counts as having the
// nominal one.
#include "facts/hardware/processor_clock.h"
#include "facts/hardware/processor_idle.h"
#include "facts/hardware/processor_nodes.h"
#include "facts/processes/kernel_totals.h"
#include "facts/processes/perf_texts.h"
#include "facts/processes/process_files.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t {
        times = 1,
        interrupts = 2,
        softInterrupts = 4,
        timer = 8,
        clock = 16,
        clockTimes = 32,
        idle = 64
    };
};

struct Row {
    facts::ProcessorTimes times;  // in ticks
    std::optional<std::uint64_t> interrupts;
    std::optional<std::uint64_t> softInterrupts;
    std::optional<std::uint64_t> timerInterrupts;
    facts::ProcessorClock clock;
    std::optional<facts::ClockTimes> clockTimes;
    std::optional<facts::ProcessorIdle> idle;
};

using Number = std::optional<std::uint64_t>;

constexpr auto idleTimeIn = [](const Row& row) { return facts::TimeOfTicks(row.times.idleTicks()); };

/// The time that percentages refer to: all that was counted. While the computer sleeps, nothing is.
constexpr auto wholeTimeIn = [](const Row& row) {
    return facts::TimeOfTicks(row.times.busyTicks() + row.times.idleTicks());
};

constexpr auto kernelTicksIn = [](const Row& row) {
    return row.times.kernel + row.times.interrupts + row.times.softInterrupts;
};

constexpr std::uint64_t wholePercent = 100;

/// A time in milliseconds, in percent: an average's amount.
std::uint64_t PercentTime(std::uint64_t ticks) {
    return facts::TimeOfTicks(ticks) / unitsPerMillisecond * wholePercent;
}

constexpr auto wholeMillisecondsIn = [](const Row& row) {
    return facts::TimeOfTicks(row.times.busyTicks() + row.times.idleTicks()) / unitsPerMillisecond;
};

Number PercentOf(const Number& part, const Number& whole) {
    return part && whole && *whole != 0 ? Number(*part * wholePercent / *whole) : std::nullopt;
}

/// The times that a processor had each rate, multiplied by the rate in percent of the nominal one.
Number PerformanceIn(const Row& row) {
    if (!row.clockTimes) return std::nullopt;
    return PercentOf(row.clockTimes->megahertzMilliseconds, row.clock.nominal);
}

constexpr std::uint64_t unitsPerMicrosecond = 10;

/// What a processor did in the idle states of a depth, from 1.
std::optional<facts::IdleTimes> IdleAt(const Row& row, std::size_t depth) {
    return row.idle && row.idle->byDepth ? std::optional((*row.idle->byDepth)[depth - 1]) : std::nullopt;
}

Number EntriesAt(const Row& row, std::size_t depth) {
    const std::optional<facts::IdleTimes> times = IdleAt(row, depth);
    return times ? Number(times->entries) : std::nullopt;
}

Number IdleTimeAt(const Row& row, std::size_t depth) {
    const std::optional<facts::IdleTimes> times = IdleAt(row, depth);
    return times ? Number(times->microseconds * unitsPerMicrosecond) : std::nullopt;
}

/// At which the kernel's counts of interrupts wrap.
constexpr std::uint64_t countPeriod = std::uint64_t{1} << 32;

// clang-format off
/// What both classes have.
constexpr CounterInfo counters[] = {
    {u"C1TransitionsPersec", uint64, rate, Need::idle, "times that it went into C1 and C1E, usage of cpuidle", [](const Row& row) { return EntriesAt(row, 1); }},
    {u"C2TransitionsPersec", uint64, rate, Need::idle, "times that it went into C2, usage of cpuidle", [](const Row& row) { return EntriesAt(row, 2); }},
    {u"C3TransitionsPersec", uint64, rate, Need::idle, "times that it went into C3 and deeper, usage of cpuidle", [](const Row& row) { return EntriesAt(row, 3); }},
    {u"DPCRate", uint32},
    {u"DPCsQueuedPersec", uint32, rate, Need::softInterrupts, "softirqs run, of /proc/softirqs",
        [](const Row& row) { return row.softInterrupts; }, nullptr, countPeriod},
    {u"InterruptsPersec", uint32, rate, Need::interrupts, "of /proc/interrupts", [](const Row& row) { return row.interrupts; },
        nullptr, countPeriod},
    {u"PercentC1Time", uint64, percentOfTime, Need::idle, "in C1 and C1E, time of cpuidle", [](const Row& row) { return IdleTimeAt(row, 1); }, wholeTimeIn},
    {u"PercentC2Time", uint64, percentOfTime, Need::idle, "in C2, time of cpuidle", [](const Row& row) { return IdleTimeAt(row, 2); }, wholeTimeIn},
    {u"PercentC3Time", uint64, percentOfTime, Need::idle, "in C3 and deeper, time of cpuidle", [](const Row& row) { return IdleTimeAt(row, 3); }, wholeTimeIn},
    {u"PercentDPCTime", uint64, percentOfTime, Need::times, "softirq", [](const Row& row) { return facts::TimeOfTicks(row.times.softInterrupts); }, wholeTimeIn},
    {u"PercentIdleTime", uint64, percentOfTime, Need::times, "idle and iowait", idleTimeIn, wholeTimeIn},
    {u"PercentInterruptTime", uint64, percentOfTime, Need::times, "irq", [](const Row& row) { return facts::TimeOfTicks(row.times.interrupts); }, wholeTimeIn},
    {u"PercentPrivilegedTime", uint64, percentOfTime, Need::times, "system, irq and softirq",
        [](const Row& row) { return facts::TimeOfTicks(kernelTicksIn(row)); }, wholeTimeIn},
    {u"PercentProcessorTime", uint64, percentOfTimeLeft, Need::times, "not idle; the raw counter is the idle time", idleTimeIn, wholeTimeIn},
    {u"PercentUserTime", uint64, percentOfTime, Need::times, "user and nice, guests included",
        [](const Row& row) { return facts::TimeOfTicks(row.times.user + row.times.nice); }, wholeTimeIn},
};

constexpr CounterInfo moreCounters[] = {
    {u"AverageIdleTime", uint64, averageOfMany, Need::idle, "100 ns, that it stayed in an idle state, time and usage of cpuidle",
        [](const Row& row) { return row.idle ? Number(row.idle->all.microseconds * unitsPerMicrosecond) : std::nullopt; },
        [](const Row& row) { return row.idle ? row.idle->all.entries : 0; }},
    {u"ClockInterruptsPersec", uint32, rate, Need::timer, "of the processor's timer, of /proc/interrupts", [](const Row& row) { return row.timerInterrupts; },
        nullptr, countPeriod},
    {u"IdleBreakEventsPersec", uint64, rate, Need::idle, "times that it left an idle state, usage of cpuidle",
        [](const Row& row) { return row.idle ? Number(row.idle->all.entries) : std::nullopt; }},
    {u"ParkingStatus", uint32, value, 0, "always 0: Linux parks no processor", [](const Row&) { return 0; }},
    {u"PercentofMaximumFrequency", uint32, level, Need::clock, "the clock rate now, in percent of the hardware's highest",
        [](const Row& row) { return PercentOf(row.clock.now, row.clock.highest); }},
    {u"PercentPerformanceLimit", uint32, level, Need::clock, "the clock rate that it may have now, in percent of the hardware's highest",
        [](const Row& row) { return PercentOf(row.clock.limit, row.clock.highest); }},
    {u"PercentPriorityTime", uint64, percentOfTime, Need::times, "busy, without nice", [](const Row& row) { return facts::TimeOfTicks(row.times.busyTicks() - row.times.nice); }, wholeTimeIn},
    {u"PercentPrivilegedUtility", uint64, averageAmount, Need::times, "as PercentPrivilegedTime, whatever the clock rate", [](const Row& row) { return PercentTime(kernelTicksIn(row)); },
        wholeMillisecondsIn},
    {u"PercentProcessorPerformance", uint64, averageAmount, Need::clock | Need::clockTimes, "the mean clock rate in percent of the nominal one, of time_in_state; NULL under drivers without it, such as intel_pstate",
        [](const Row& row) { return PerformanceIn(row); }, [](const Row& row) { return row.clockTimes ? row.clockTimes->milliseconds : 0; }},
    {u"PercentProcessorUtility", uint64, averageAmount, Need::times, "as PercentProcessorTime, whatever the clock rate", [](const Row& row) { return PercentTime(row.times.busyTicks()); },
        wholeMillisecondsIn},
    {u"PerformanceLimitFlags", uint32},
    {u"ProcessorFrequency", uint32, level, Need::clock, "MHz, the clock rate now", [](const Row& row) { return row.clock.now; }},
    {u"ProcessorStateFlags", uint32},
};
// clang-format on

constexpr auto informationCounters = Joined(counters, moreCounters);

using Sums = std::map<std::uint32_t, std::uint64_t>;

std::optional<std::uint64_t> SumOf(const Sums& sums, std::uint32_t processor) {
    const auto found = sums.find(processor);
    return found != sums.end() ? std::optional(found->second) : std::nullopt;
}

/// What the rows of one query share.
struct Surroundings {
    Sums interrupts;
    Sums softInterrupts;
    Sums timerInterrupts;
    std::string cpuInfo;
    std::vector<facts::CpuBlock> blocks;  // refer to cpuInfo
};

/// Reads what the query asks for.
void ReadSurroundings(const Gathering& gathering, Surroundings& surroundings) {
    if (gathering.asksFor(Need::interrupts | Need::timer)) {
        const std::string text = ReadPart("/proc/interrupts", "Interrupts", gathering);
        surroundings.interrupts = facts::SumByProcessor(text);
        surroundings.timerInterrupts = facts::TimerInterruptsByProcessor(text);
    }
    if (gathering.asksFor(Need::softInterrupts))
        surroundings.softInterrupts = facts::SumByProcessor(ReadPart("/proc/softirqs", "Softirqs", gathering));
    if (gathering.asksFor(Need::clock)) {
        surroundings.cpuInfo = ReadPart("/proc/cpuinfo", "Clock rates", gathering);
        surroundings.blocks = facts::ParseCpuInfo(surroundings.cpuInfo);
    }
}

Row RowOf(const facts::ProcessorTimes& times, const Gathering& gathering, const Surroundings& surroundings) {
    Row row;
    row.times = times;
    row.interrupts = SumOf(surroundings.interrupts, times.number);
    row.softInterrupts = SumOf(surroundings.softInterrupts, times.number);
    row.timerInterrupts = SumOf(surroundings.timerInterrupts, times.number);
    for (const facts::CpuBlock& block : surroundings.blocks) {
        if (block.number == times.number) row.clock = facts::ReadProcessorClock(block, facts::ReadCpuFile);
    }
    if (gathering.asksFor(Need::idle)) row.idle = facts::ReadProcessorIdle(times.number, facts::ReadCpuFile);
    if (gathering.asksFor(Need::clockTimes)) {
        row.clockTimes =
            facts::ParseClockTimes(facts::ReadCpuFile(times.number, "cpufreq/stats/time_in_state").value_or(""));
    }
    return row;
}

/// Adds the processors under the names that a routine gives them.
WmiStatus ReadProcessors(const Gathering& gathering, PerfSampling& sampling,
                         const std::function<void(std::uint32_t number, PerfObject& object)>& setName) {
    const std::optional<std::string> text = platform::ReadSystemFile("/proc/stat");
    if (!text) return FailedFile("/proc/stat", "Processors", gathering);
    const std::uint64_t now = TimeSinceStart();
    Surroundings surroundings;
    ReadSurroundings(gathering, surroundings);
    for (const facts::ProcessorTimes& times : facts::ParseProcessorTimes(*text)) {
        PerfObject object;
        object.key = std::to_string(times.number);
        setName(times.number, object);
        // A processor that was added later, or switched off and on, has been counted for as long as its times add up
        // to.
        object.birth = now - std::min(now, facts::TimeOfTicks(times.busyTicks() + times.idleTicks()));
        const Row row = RowOf(times, gathering, surroundings);
        sampling.Add(std::move(object), &row, now);
    }
    return wmi_status::ok;
}

WmiStatus ReadNumberedProcessors(const Gathering& gathering, PerfSampling& sampling) {
    return ReadProcessors(gathering, sampling,
                          [](std::uint32_t number, PerfObject& object) { object.name = std::to_string(number); });
}

WmiStatus ReadProcessorsOfNodes(const Gathering& gathering, PerfSampling& sampling) {
    std::map<std::uint32_t, std::uint32_t> nodes = facts::ReadNodesOfProcessors();
    std::map<std::uint32_t, unsigned> counts;  // of the processors of each node so far
    return ReadProcessors(gathering, sampling, [&](std::uint32_t number, PerfObject& object) {
        const std::uint32_t node = nodes[number];
        object.group = std::to_string(node);
        object.name = object.group + ',' + std::to_string(counts[node]++);
    });
}

constexpr PerfClass processors{.name = u"PerfOS_Processor",
                               .meaning = "load of each processor",
                               .counters = counters,
                               .read = ReadNumberedProcessors,
                               .hasTotal = true};
constexpr PerfClass information{.name = u"Counters_ProcessorInformation",
                                .meaning = "load and clock rate of each processor and memory node",
                                .counters = informationCounters,
                                .read = ReadProcessorsOfNodes,
                                .hasTotal = true};

const ClassFamily family(DeclarePerfClasses<processors, information>);

}  // namespace

}  // namespace kv::wql
