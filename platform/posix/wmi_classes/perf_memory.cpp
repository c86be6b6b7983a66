// PerfOS_Memory, of /proc/meminfo and /proc/vmstat.
#include "platform/posix/wmi/system_text.h"
#include "platform/posix/wmi_classes/families.h"
#include "platform/posix/wmi_classes/kernel_totals.h"
#include "platform/posix/wmi_classes/perf_class.h"
#include "platform/posix/wmi_classes/perf_texts.h"
#include "platform/posix/wmi_classes/process_files.h"

namespace platform::wmi {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { memory = 1, events = 2 };
};

struct Row {
    std::string memory;  // meminfo
    std::string events;  // vmstat
};

using Number = std::optional<std::uint64_t>;

constexpr std::uint64_t kilobyte = 1024;

Number Times(Number number, std::uint64_t factor) { return number ? Number(*number * factor) : std::nullopt; }
Number In(Number number, std::uint64_t unit) { return number ? Number(*number / unit) : std::nullopt; }

/// In bytes.
Number MemoryIn(const Row& row, std::string_view key) { return Times(MemoryFigure(row.memory, key), kilobyte); }

Number PagesIn(const Row& row, std::string_view key) { return In(MemoryIn(row, key), PageSize()); }

/// Pages that were moved between memory and disks, of an event that counts kilobytes.
Number MovedIn(const Row& row, std::string_view event) {
    return In(Times(NumberUnder(row.events, event), kilobyte), PageSize());
}

Number SumOf(std::initializer_list<Number> parts) {
    std::uint64_t sum = 0;
    for (const Number& part : parts) {
        if (!part) return std::nullopt;
        sum += *part;
    }
    return sum;
}

/// What the cache of files holds, with what programs share as files in memory.
Number FileCacheIn(const Row& row) { return SumOf({MemoryIn(row, "Cached"), MemoryIn(row, "Buffers")}); }

// clang-format off
constexpr CounterInfo counters[] = {
    {u"AvailableBytes", uint64, value, Need::memory, "MemAvailable", [](const Row& row) { return Times(AvailableMemory(row.memory), kilobyte); }},
    {u"AvailableKBytes", uint64, value, Need::memory, "MemAvailable", [](const Row& row) { return AvailableMemory(row.memory); }},
    {u"AvailableMBytes", uint64, value, Need::memory, "MemAvailable", [](const Row& row) { return In(AvailableMemory(row.memory), kilobyte); }},
    {u"CacheBytes", uint64, value, Need::memory, "Cached, Buffers and SReclaimable",
        [](const Row& row) { return SumOf({FileCacheIn(row), MemoryIn(row, "SReclaimable")}); }},
    {u"CacheBytesPeak", uint64},
    {u"CacheFaultsPersec", uint32, rate},
    {u"CommitLimit", uint64, value, Need::memory, "CommitLimit, which binds only where the kernel is set not to overcommit",
        [](const Row& row) { return MemoryIn(row, "CommitLimit"); }},
    {u"CommittedBytes", uint64, value, Need::memory, "Committed_AS", [](const Row& row) { return MemoryIn(row, "Committed_AS"); }},
    {u"DemandZeroFaultsPersec", uint32, rate},
    {u"FreeAndZeroPageListBytes", uint64, value, Need::memory, "MemFree", [](const Row& row) { return MemoryIn(row, "MemFree"); }},
    {u"FreeSystemPageTableEntries", uint32},
    {u"LongTermAverageStandbyCacheLifetimes", uint32},
    {u"ModifiedPageListBytes", uint64, value, Need::memory, "Dirty and Writeback: to be written to disk",
        [](const Row& row) { return SumOf({MemoryIn(row, "Dirty"), MemoryIn(row, "Writeback")}); }},
    {u"PageFaultsPersec", uint32, rate, Need::events, "pgfault, minor and major ones", [](const Row& row) { return NumberUnder(row.events, "pgfault"); }},
    {u"PageReadsPersec", uint32, rate, Need::events, "pgmajfault: faults that had to read", [](const Row& row) { return NumberUnder(row.events, "pgmajfault"); }},
    {u"PagesInputPersec", uint32, rate, Need::events, "pgpgin: read from disks, of files and swap", [](const Row& row) { return MovedIn(row, "pgpgin"); }},
    {u"PagesOutputPersec", uint32, rate, Need::events, "pgpgout: written to disks, of files and swap", [](const Row& row) { return MovedIn(row, "pgpgout"); }},
    {u"PagesPersec", uint32, rate, Need::events, "pgpgin and pgpgout",
        [](const Row& row) { return SumOf({MovedIn(row, "pgpgin"), MovedIn(row, "pgpgout")}); }},
    {u"PageWritesPersec", uint32, rate},
    {u"PercentCommittedBytesInUse", uint32, fraction, Need::memory, "Committed_AS of CommitLimit, in pages",
        [](const Row& row) { return PagesIn(row, "Committed_AS"); },
        [](const Row& row) { return PagesIn(row, "CommitLimit"); }},
    {u"PoolNonpagedAllocs", uint32},
    {u"PoolNonpagedBytes", uint64, value, Need::memory, "SUnreclaim: of the kernel, and stays", [](const Row& row) { return MemoryIn(row, "SUnreclaim"); }},
    {u"PoolPagedAllocs", uint32},
    {u"PoolPagedBytes", uint64, value, Need::memory, "SReclaimable: of the kernel, and can be given up",
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
    Row row;
    if (gathering.asksFor(Need::memory)) row.memory = ReadSystemFile("/proc/meminfo").value_or("");
    if (gathering.asksFor(Need::events)) row.events = ReadSystemFile("/proc/vmstat").value_or("");
    sampling.add({}, &row, TimeSinceStart());
    return wmi_status::ok;
}

constexpr PerfClass memoryClass{u"PerfOS_Memory", counters, ReadMemory, true};

}  // namespace

std::span<const ClassInfo> PerfMemoryClasses() { return DeclarePerfClasses<memoryClass>(); }

}  // namespace platform::wmi
