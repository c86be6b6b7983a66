// PerfOS_System, from /proc/stat, /proc/loadavg and the list of processes.
#include <algorithm>

#include "facts/processes/kernel_totals.h"
#include "facts/processes/perf_texts.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { stat = 1, processes = 2, threads = 4 };
};

struct Row {
    std::string stat;
    std::optional<std::uint64_t> processes;
    std::optional<std::uint64_t> threads;
};

/// Threads that wait for a processor: the running ones beyond one for each processor.
std::optional<std::uint64_t> QueueLengthIn(const Row& row) {
    const std::optional<std::uint64_t> runnable = facts::NumberUnder(row.stat, "procs_running");
    if (!runnable) return std::nullopt;
    return *runnable - std::min<std::uint64_t>(*runnable, facts::ParseProcessorTimes(row.stat).size());
}

// clang-format off
constexpr CounterInfo counters[] = {
    {u"AlignmentFixupsPersec", uint32, rate},
    {u"ContextSwitchesPersec", uint32, rate, Need::stat, "ctxt of stat", [](const Row& row) { return facts::NumberUnder(row.stat, "ctxt"); }},
    {u"ExceptionDispatchesPersec", uint32, rate},
    {u"FileControlBytesPersec", uint64, rate},
    {u"FileControlOperationsPersec", uint32, rate},
    {u"FileDataOperationsPersec", uint32, rate},
    {u"FileReadBytesPersec", uint64, rate},
    {u"FileReadOperationsPersec", uint32, rate},
    {u"FileWriteBytesPersec", uint64, rate},
    {u"FileWriteOperationsPersec", uint32, rate},
    {u"FloatingEmulationsPersec", uint32, rate},
    {u"PercentRegistryQuotaInUse", uint32, fraction},
    {u"Processes", uint32, value, Need::processes, "listed in /proc; NULL where it hides those of other users", [](const Row& row) { return row.processes; }},
    {u"ProcessorQueueLength", uint32, value, Need::stat, "procs_running of stat beyond one for each processor",
        [](const Row& row) { return QueueLengthIn(row); }},
    {u"SystemCallsPersec", uint32, rate},
    {u"SystemUpTime", uint64, elapsedTime, 0, "seconds since the system's start", [](const Row&) { return std::uint64_t{0}; }},
    {u"Threads", uint32, value, Need::threads, "of loadavg", [](const Row& row) { return row.threads; }},
};
// clang-format on

WmiStatus ReadSystem(const Gathering& gathering, PerfSampling& sampling) {
    std::optional<std::string> stat = "";
    std::optional<std::string> load = "";
    if (gathering.asksFor(Need::stat)) stat = platform::ReadSystemFile("/proc/stat");
    const std::uint64_t now = TimeSinceStart();
    if (gathering.asksFor(Need::threads)) load = platform::ReadSystemFile("/proc/loadavg");
    if (!stat) return FailedFile("/proc/stat", "The system's counters", gathering);
    if (!load) return FailedFile("/proc/loadavg", "The system's counters", gathering);
    Row row{std::move(*stat), {}, facts::ParseThreadCount(*load)};
    if (gathering.asksFor(Need::processes)) row.processes = CountAllProcesses(gathering);
    sampling.Add({}, &row, now);
    return wmi_status::ok;
}

constexpr PerfClass systemClass{.name = u"PerfOS_System",
                                .meaning = "processes, context switches, time since the start",
                                .counters = counters,
                                .read = ReadSystem,
                                .isSingle = true};

const ClassFamily family(DeclarePerfClasses<systemClass>);

}  // namespace

}  // namespace kv::wql
