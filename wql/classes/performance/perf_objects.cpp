// PerfOS_Objects: what the system has of each kind, from /proc and /dev/shm. Of locks and events between threads the
// kernel knows only those that someone waits for.
#include "facts/processes/perf_texts.h"
#include "facts/processes/shared_objects.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { processes = 1, threads = 2, shared = 4 };
};

struct Row {
    std::optional<std::uint64_t> processes;
    std::optional<std::uint64_t> threads;
    std::optional<facts::SharedObjects> shared;
};

std::optional<std::uint64_t> SharedIn(const Row& row, std::uint64_t facts::SharedObjects::*count) {
    return row.shared ? std::optional((*row.shared).*count) : std::nullopt;
}

// clang-format off
constexpr CounterInfo counters[] = {
    {u"Events", uint32},
    {u"Mutexes", uint32},
    {u"Processes", uint32, value, Need::processes, "listed in /proc; NULL where it hides those of other users", [](const Row& row) { return row.processes; }},
    {u"Sections", uint32, value, Need::shared, "segments of shared memory, of System V and of POSIX", [](const Row& row) { return SharedIn(row, &facts::SharedObjects::memories); }},
    {u"Semaphores", uint32, value, Need::shared, "of System V, and those of POSIX with a name", [](const Row& row) { return SharedIn(row, &facts::SharedObjects::semaphores); }},
    {u"Threads", uint32, value, Need::threads, "of /proc/loadavg", [](const Row& row) { return row.threads; }},
};
// clang-format on

WmiStatus ReadObjects(const Gathering& gathering, PerfSampling& sampling) {
    constexpr const char* load = "/proc/loadavg";
    Row row;
    if (gathering.asksFor(Need::processes)) row.processes = CountAllProcesses(gathering);
    if (gathering.asksFor(Need::threads)) {
        row.threads = facts::ParseThreadCount(platform::ReadSystemFile(load).value_or(""));
        if (!row.threads) return FailedFile(load, "Threads", gathering);
    }
    if (gathering.asksFor(Need::shared)) row.shared = facts::CountSharedObjects();
    if (gathering.asksFor(Need::shared) && !row.shared)
        gathering.notice("Sections and Semaphores were left out: /proc/sysvipc or /dev/shm cannot be read");
    sampling.Add({}, &row, TimeSinceStart());
    return wmi_status::ok;
}

constexpr PerfClass objects{.name = u"PerfOS_Objects",
                            .meaning = "numbers of processes, threads and semaphores",
                            .counters = counters,
                            .read = ReadObjects,
                            .isSingle = true};

const ClassFamily family(DeclarePerfClasses<objects>);

}  // namespace

}  // namespace kv::wql
