// PerfProc_Process, from the files of /proc/<id>. Objects are named as Windows names them: the second process of a name
// is "name#1". A process that WHERE names by its id is read alone, and so has no such number.
//
// When a parent has waited for a process, the kernel adds what the process read and wrote to the parent's counters, so
// the parent's figures can jump, and those of _Total with them.
#include <algorithm>
#include <unistd.h>

#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"
#include "wql/classes/software/processes.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { name = 1, memory = 2, io = 4, handles = 8 };
};

struct Row {
    facts::ProcessStat stat;
    std::optional<facts::ProcessMemory> memory;
    std::optional<facts::ProcessIo> io;
    std::optional<std::uint64_t> handles;
};

using Number = std::optional<std::uint64_t>;

template <class Figure>
Number Io(const Row& row, Figure figure) {
    if (!row.io) return std::nullopt;
    return figure(*row.io);
}

template <class Figure>
Number Memory(const Row& row, Figure figure) {
    if (!row.memory) return std::nullopt;
    return figure(*row.memory);
}

constexpr auto privateBytesIn = [](const Row& row) {
    return Memory(row, [](const auto& memory) { return memory.anonymous + memory.swapped; });
};

// clang-format off
constexpr CounterInfo counters[] = {
    {u"CreatingProcessID", uint32, label, 0, "the parent's id", [](const Row& row) { return row.stat.parentId; }},
    {u"ElapsedTime", uint64, elapsedTime, 0, "seconds since the process's start", [](const Row& row) { return facts::TimeOfTicks(row.stat.startTicks); }},
    {u"HandleCount", uint32, value, Need::handles, "open files", [](const Row& row) { return row.handles; }},
    {u"IDProcess", uint32, label, 0, "the id", [](const Row& row) { return row.stat.id; }},
    {u"IODataBytesPersec", uint64, rate, Need::io, "bytes, rchar and wchar",
        [](const Row& row) { return Io(row, [](const auto& io) { return io.readBytes + io.writtenBytes; }); }},
    {u"IODataOperationsPersec", uint64, rate, Need::io, "syscr and syscw",
        [](const Row& row) { return Io(row, [](const auto& io) { return io.readOperations + io.writeOperations; }); }},
    {u"IOOtherBytesPersec", uint64, rate},
    {u"IOOtherOperationsPersec", uint64, rate},
    {u"IOReadBytesPersec", uint64, rate, Need::io, "bytes, rchar", [](const Row& row) { return Io(row, [](const auto& io) { return io.readBytes; }); }},
    {u"IOReadOperationsPersec", uint64, rate, Need::io, "syscr", [](const Row& row) { return Io(row, [](const auto& io) { return io.readOperations; }); }},
    {u"IOWriteBytesPersec", uint64, rate, Need::io, "bytes, wchar", [](const Row& row) { return Io(row, [](const auto& io) { return io.writtenBytes; }); }},
    {u"IOWriteOperationsPersec", uint64, rate, Need::io, "syscw", [](const Row& row) { return Io(row, [](const auto& io) { return io.writeOperations; }); }},
    {u"PageFaultsPersec", uint32, rate, 0, "minor and major ones", [](const Row& row) { return row.stat.minorFaults + row.stat.majorFaults; }},
    {u"PageFileBytes", uint64, value, Need::memory, "bytes, as PrivateBytes", privateBytesIn},
    {u"PageFileBytesPeak", uint64},
    {u"PercentPrivilegedTime", uint64, percentOfProcessors, 0, "stime", [](const Row& row) { return facts::TimeOfTicks(row.stat.kernelTicks); }},
    {u"PercentProcessorTime", uint64, percentOfProcessors, 0, "utime and stime, of one processor",
        [](const Row& row) { return facts::TimeOfTicks(row.stat.userTicks + row.stat.kernelTicks); }},
    {u"PercentUserTime", uint64, percentOfProcessors, 0, "utime", [](const Row& row) { return facts::TimeOfTicks(row.stat.userTicks); }},
    {u"PoolNonpagedBytes", uint32},
    {u"PoolPagedBytes", uint32},
    {u"PriorityBase", uint32, label, 0, "24 real time, else 13 to 4 by the nice value, 8 normal", [](const Row& row) { return facts::BasePriorityOf(row.stat); }},
    {u"PrivateBytes", uint64, value, Need::memory, "bytes that belong to no file, resident or swapped out; RssAnon and VmSwap", privateBytesIn},
    {u"ThreadCount", uint32, value, 0, "threads", [](const Row& row) { return row.stat.threads; }},
    {u"VirtualBytes", uint64, value, 0, "bytes", [](const Row& row) { return row.stat.virtualBytes; }},
    {u"VirtualBytesPeak", uint64, value, Need::memory, "bytes, VmPeak",
        [](const Row& row) { return Memory(row, [](const auto& memory) { return memory.peakVirtual; }); }},
    {u"WorkingSet", uint64, value, 0, "bytes resident", [](const Row& row) { return row.stat.residentPages * facts::PageSize(); }},
    {u"WorkingSetPeak", uint64, value, Need::memory, "bytes, VmHWM",
        [](const Row& row) { return Memory(row, [](const auto& memory) { return memory.peakResident; }); }},
    {u"WorkingSetPrivate", uint64, value, Need::memory, "resident bytes that belong to no file, RssAnon",
        [](const Row& row) { return Memory(row, [](const auto& memory) { return memory.anonymous; }); }},
};
// clang-format on

/// The ids of processes that can match, ascending. Those that WHERE names need not exist.
std::vector<std::uint32_t> ProcessesToRead(const Gathering& gathering, PerfSampling& sampling) {
    const std::vector<CimValue>* values = gathering.valuesOf(u"IDProcess");
    const auto idOf = [](const CimValue& value) {
        const auto* number = std::get_if<std::int64_t>(&value.held);
        return number != nullptr ? *number : -1;
    };
    // _Total has the id 0.
    if (values == nullptr ||
        std::any_of(values->begin(), values->end(), [&](const auto& value) { return idOf(value) == 0; })) {
        return facts::ListProcessIds();
    }
    std::vector<std::uint32_t> ids;
    for (const CimValue& value : *values) {
        const std::int64_t id = idOf(value);
        if (id > 0 && id <= INT32_MAX) ids.push_back(static_cast<std::uint32_t>(id));
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    sampling.isAsked = [ids](const std::string& key) {
        return std::binary_search(ids.begin(), ids.end(), facts::NumberOf(key).value_or(0));
    };
    return ids;
}

/// The needs of the parts that this user may not read.
std::uint32_t ReadParts(facts::ProcessFiles& files, const Gathering& gathering, Row& row) {
    const std::uint32_t id = row.stat.id;
    std::uint32_t refused = 0;
    row.memory.reset();
    if (gathering.asksFor(Need::memory)) {
        if (const auto text = files.Read(id, "status")) row.memory = facts::ParseProcessStatus(*text);
        if (files.wasRefused()) refused |= Need::memory;
    }
    if (gathering.asksFor(Need::io)) {
        row.io = facts::ParseProcessIo(files.Read(id, "io").value_or(""));
        if (files.wasRefused()) refused |= Need::io;
    }
    if (gathering.asksFor(Need::handles)) {
        row.handles = files.CountOpenFiles(id);
        if (files.wasRefused()) refused |= Need::handles;
    }
    return refused;
}

/// How many processes had each name so far.
using NameCounts = std::unordered_map<std::string, std::size_t>;

/// A name that no process has had so far: one process's own name may be the numbered name of another.
std::string NumberedName(NameCounts& counts, const std::string& name) {
    for (;;) {
        const std::size_t earlier = counts[name]++;
        if (earlier == 0) return name;
        std::string numbered = name + '#' + std::to_string(earlier);
        if (counts.emplace(numbered, 1).second) return numbered;
    }
}

std::string ExecutableName(facts::ProcessFiles& files, const facts::ProcessStat& stat) {
    const std::string_view commandLine = facts::MayBeCut(stat) ? files.Read(stat.id, "cmdline").value_or("") : "";
    return std::string(facts::ExecutableNameOf(stat, commandLine));
}

unsigned ProcessorsOnline() {
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    return static_cast<unsigned>(std::max(count, 1L));
}

WmiStatus ReadProcesses(const Gathering& gathering, PerfSampling& sampling) {
    facts::ProcessFiles files;
    NameCounts names{{"_Total", 1}};
    Row row;
    sampling.processors = ProcessorsOnline();
    const std::vector<std::uint32_t> ids = ProcessesToRead(gathering, sampling);
    UnseenProcesses unseen(sampling.isAsked != nullptr);
    for (const std::uint32_t id : ids) {
        const std::optional<std::string_view> text = files.Read(id, "stat");
        const std::uint64_t now = TimeSinceStart();
        std::optional<facts::ProcessStat> stat = text ? facts::ParseProcessStat(*text) : std::nullopt;
        if (!stat || !stat->isProcess) {
            unseen.Miss(files.wasRefused());
            continue;
        }
        row.stat = std::move(*stat);
        PerfObject object;
        object.unseen = ReadParts(files, gathering, row);
        unseen.See(id, object.unseen == 0);
        if (gathering.asksFor(Need::name)) object.name = NumberedName(names, ExecutableName(files, row.stat));
        object.key = std::to_string(id);
        object.generation = row.stat.startTicks;
        object.birth = facts::TimeOfTicks(row.stat.startTicks);
        sampling.Add(std::move(object), &row, now);
    }
    sampling.lacksObjects = unseen.areAnyMissing(files);
    unseen.Tell(files, gathering);
    // If /proc does not even show this process, finding no others says nothing.
    const bool canRead = !sampling.rows.empty() || platform::ReadSystemFile("/proc/self/stat");
    return canRead ? wmi_status::ok : FailedFile("/proc/self/stat", "Processes", gathering);
}

constexpr PerfClass processes{.name = u"PerfProc_Process",
                              .meaning = "load, memory and reads of each process",
                              .counters = counters,
                              .read = ReadProcesses,
                              .hasTotal = true,
                              .nameNeeds = Need::name};

const ClassFamily family(DeclarePerfClasses<processes>);

}  // namespace

}  // namespace kv::wql
