// PerfOS_Objects: what the system has of each kind, from /proc and /dev/shm. Of locks and events between threads the
// kernel knows only those that someone waits for.
#include "facts/perf_texts.h"
#include "facts/process_files.h"
#include "facts/shared_objects.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { processes = 1, threads = 2, shared = 4 };
};

struct Row {
    std::uint64_t processes = 0;
    std::optional<std::uint64_t> threads;
    facts::SharedObjects shared;
};

// clang-format off
constexpr CounterInfo counters[] = {
    {u"Events", uint32},
    {u"Mutexes", uint32},
    {u"Processes", uint32, value, Need::processes, "listed in /proc", [](const Row& row) { return row.processes; }},
    {u"Sections", uint32, value, Need::shared, "segments of shared memory, of System V and of POSIX", [](const Row& row) { return row.shared.memories; }},
    {u"Semaphores", uint32, value, Need::shared, "of System V, and those of POSIX with a name", [](const Row& row) { return row.shared.semaphores; }},
    {u"Threads", uint32, value, Need::threads, "of /proc/loadavg", [](const Row& row) { return row.threads; }},
};
// clang-format on

/// False when something that is asked for cannot be read.
bool ReadRow(const Gathering& gathering, Row& row) {
    if (gathering.asksFor(Need::processes)) row.processes = facts::ListProcessIds().size();
    if (gathering.asksFor(Need::processes) && row.processes == 0) return false;
    if (gathering.asksFor(Need::threads)) {
        row.threads = facts::ParseThreadCount(platform::ReadSystemFile("/proc/loadavg").value_or(""));
        if (!row.threads) return false;
    }
    if (!gathering.asksFor(Need::shared)) return true;
    const std::optional<facts::SharedObjects> shared = facts::CountSharedObjects();
    if (shared) row.shared = *shared;
    return shared.has_value();
}

WmiStatus ReadObjects(const Gathering& gathering, PerfSampling& sampling) {
    Row row;
    if (!ReadRow(gathering, row)) return wmi_status::providerFailure;
    sampling.Add({}, &row, TimeSinceStart());
    return wmi_status::ok;
}

constexpr PerfClass objects{.name = u"PerfOS_Objects", .counters = counters, .read = ReadObjects, .isSingle = true};

const ClassFamily family(DeclarePerfClasses<objects>);

}  // namespace

}  // namespace kv::wql
