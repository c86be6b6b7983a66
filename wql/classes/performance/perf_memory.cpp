// PerfOS_Memory, from /proc/meminfo and /proc/vmstat.
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
    enum Bits : std::uint32_t { memory = 1, events = 2, limit = 4 };
};

struct Row {
    std::string memory;     // meminfo
    std::string events;     // vmstat
    bool isStrict = false;  // the kernel commits no more memory than CommitLimit
};

using Number = std::optional<std::uint64_t>;

constexpr std::uint64_t kilobyte = 1024;

Number Multiplied(Number number, std::uint64_t factor) { return number ? Number(*number * factor) : std::nullopt; }
Number Divided(Number number, std::uint64_t divisor) { return number ? Number(*number / divisor) : std::nullopt; }

/// A line of meminfo, in bytes.
Number MemoryIn(const Row& row, std::string_view key) {
    return Multiplied(facts::MemoryFigure(row.memory, key), kilobyte);
}

/// Pages that were moved between memory and disks, from an event that counts kilobytes.
Number MovedIn(const Row& row, std::string_view event) {
    return Divided(Multiplied(facts::NumberUnder(row.events, event), kilobyte), facts::PageSize());
}

Number SumOf(std::initializer_list<Number> parts) {
    std::uint64_t sum = 0;
    for (const Number& part : parts) {
        if (!part) return std::nullopt;
        sum += *part;
    }
    return sum;
}

/// The page cache, including shared memory.
Number FileCacheIn(const Row& row) { return SumOf({MemoryIn(row, "Cached"), MemoryIn(row, "Buffers")}); }

/// If the kernel overcommits, all memory and swap: CommitLimit then counts half of the memory, and limits nothing.
Number CommitLimitIn(const Row& row) {
    if (row.isStrict) return MemoryIn(row, "CommitLimit");
    return SumOf({MemoryIn(row, "MemTotal"), MemoryIn(row, "SwapTotal")});
}

// clang-format off
constexpr CounterInfo counters[] = {
    {u"AvailableBytes", uint64, value, Need::memory, "MemAvailable", [](const Row& row) { return Multiplied(facts::AvailableMemory(row.memory), kilobyte); }},
    {u"AvailableKBytes", uint64, value, Need::memory, "MemAvailable", [](const Row& row) { return facts::AvailableMemory(row.memory); }},
    {u"AvailableMBytes", uint64, value, Need::memory, "MemAvailable", [](const Row& row) { return Divided(facts::AvailableMemory(row.memory), kilobyte); }},
    {u"CacheBytes", uint64, value, Need::memory, "Cached, Buffers and SReclaimable",
        [](const Row& row) { return SumOf({FileCacheIn(row), MemoryIn(row, "SReclaimable")}); }},
    {u"CacheBytesPeak", uint64},
    {u"CacheFaultsPersec", uint32, rate},
    {u"CommitLimit", uint64, value, Need::memory | Need::limit, "MemTotal and SwapTotal, or CommitLimit if the kernel keeps to it",
        [](const Row& row) { return CommitLimitIn(row); }},
    {u"CommittedBytes", uint64, value, Need::memory, "Committed_AS", [](const Row& row) { return MemoryIn(row, "Committed_AS"); }},
    {u"DemandZeroFaultsPersec", uint32, rate},
    {u"FreeAndZeroPageListBytes", uint64, value, Need::memory, "MemFree", [](const Row& row) { return MemoryIn(row, "MemFree"); }},
    {u"FreeSystemPageTableEntries", uint32},
    {u"LongTermAverageStandbyCacheLifetimes", uint32},
    {u"ModifiedPageListBytes", uint64, value, Need::memory, "Dirty and Writeback: to be written to disk",
        [](const Row& row) { return SumOf({MemoryIn(row, "Dirty"), MemoryIn(row, "Writeback")}); }},
    {u"PageFaultsPersec", uint32, rate, Need::events, "pgfault, minor and major ones", [](const Row& row) { return facts::NumberUnder(row.events, "pgfault"); }},
    {u"PageReadsPersec", uint32, rate, Need::events, "pgmajfault: faults that had to read", [](const Row& row) { return facts::NumberUnder(row.events, "pgmajfault"); }},
    {u"PagesInputPersec", uint32, rate, Need::events, "pgpgin: read from disks, of files and swap", [](const Row& row) { return MovedIn(row, "pgpgin"); }},
    {u"PagesOutputPersec", uint32, rate, Need::events, "pgpgout: written to disks, of files and swap", [](const Row& row) { return MovedIn(row, "pgpgout"); }},
    {u"PagesPersec", uint32, rate, Need::events, "pgpgin and pgpgout",
        [](const Row& row) { return SumOf({MovedIn(row, "pgpgin"), MovedIn(row, "pgpgout")}); }},
    {u"PageWritesPersec", uint32, rate},
    {u"PercentCommittedBytesInUse", uint32, fraction, Need::memory | Need::limit, "Committed_AS in percent of CommitLimit; above 100 if more is promised",
        [](const Row& row) { return Divided(MemoryIn(row, "Committed_AS"), facts::PageSize()); },
        [](const Row& row) { return Divided(CommitLimitIn(row), facts::PageSize()); }},
    {u"PoolNonpagedAllocs", uint32},
    {u"PoolNonpagedBytes", uint64, value, Need::memory, "SUnreclaim: of the kernel, cannot be given up", [](const Row& row) { return MemoryIn(row, "SUnreclaim"); }},
    {u"PoolPagedAllocs", uint32},
    {u"PoolPagedBytes", uint64, value, Need::memory, "SReclaimable: of the kernel, can be given up",
        [](const Row& row) { return MemoryIn(row, "SReclaimable"); }},
    {u"PoolPagedResidentBytes", uint64, value, Need::memory, "as PoolPagedBytes", [](const Row& row) { return MemoryIn(row, "SReclaimable"); }},
    {u"StandbyCacheCoreBytes", uint64},
    {u"StandbyCacheNormalPriorityBytes", uint64},
    {u"StandbyCacheReserveBytes", uint64},
    {u"SystemCacheResidentBytes", uint64, value, Need::memory, "Cached and Buffers", [](const Row& row) { return FileCacheIn(row); }},
    {u"SystemCodeResidentBytes", uint64},
    {u"SystemCodeTotalBytes", uint64},
    {u"SystemDriverResidentBytes", uint64},
    {u"SystemDriverTotalBytes", uint64},
    {u"TransitionFaultsPersec", uint32, rate},
    {u"TransitionPagesRePurposedPersec", uint32, rate},
    {u"WriteCopiesPersec", uint32, rate},
};
// clang-format on

WmiStatus ReadMemory(const Gathering& gathering, PerfSampling& sampling) {
    constexpr std::uint64_t strictly = 2;
    std::optional<std::string> memory = "";
    std::optional<std::string> events = "";
    if (gathering.asksFor(Need::memory)) memory = platform::ReadSystemFile("/proc/meminfo");
    if (gathering.asksFor(Need::events)) events = platform::ReadSystemFile("/proc/vmstat");
    if (!memory) return FailedFile("/proc/meminfo", "The counters of memory", gathering);
    if (!events) return FailedFile("/proc/vmstat", "The counters of memory", gathering);
    Row row{std::move(*memory), std::move(*events)};
    if (gathering.asksFor(Need::limit))
        row.isStrict = facts::ReadSystemNumber("/proc/sys/vm/overcommit_memory") == strictly;
    sampling.Add({}, &row, TimeSinceStart());
    return wmi_status::ok;
}

constexpr PerfClass memoryClass{.name = u"PerfOS_Memory",
                                .meaning = "memory and paging",
                                .counters = counters,
                                .read = ReadMemory,
                                .isSingle = true};

const ClassFamily family(DeclarePerfClasses<memoryClass>);

}  // namespace

}  // namespace kv::wql
