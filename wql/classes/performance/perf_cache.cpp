// PerfOS_Cache: the page cache, from /proc/vmstat. The kernel counts neither reads that the cache served nor reads
// ahead.
#include "facts/processes/perf_texts.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Row {
    std::string events;  // vmstat
};

// clang-format off
constexpr CounterInfo counters[] = {
    {u"AsyncCopyReadsPersec", uint32, rate},
    {u"AsyncDataMapsPersec", uint32, rate},
    {u"AsyncFastReadsPersec", uint32, rate},
    {u"AsyncMDLReadsPersec", uint32, rate},
    {u"AsyncPinReadsPersec", uint32, rate},
    {u"CopyReadHitsPercent", uint32, fraction},
    {u"CopyReadsPersec", uint32, rate},
    {u"DataFlushesPersec", uint32, rate},
    {u"DataFlushPagesPersec", uint32, rate, 0, "pages written to disk, on request or lazily; nr_written of /proc/vmstat",
        [](const Row& row) { return facts::NumberUnder(row.events, "nr_written"); }},
    {u"DataMapHitsPercent", uint32, fraction},
    {u"DataMapPinsPersec", uint32, fraction},
    {u"DataMapsPersec", uint32, rate},
    {u"DirtyPages", uint64, value, 0, "pages to be written to disk, nr_dirty of /proc/vmstat", [](const Row& row) { return facts::NumberUnder(row.events, "nr_dirty"); }},
    {u"DirtyPageThreshold", uint64, value, 0, "dirty pages at which programs that write must wait, nr_dirty_threshold of /proc/vmstat",
        [](const Row& row) { return facts::NumberUnder(row.events, "nr_dirty_threshold"); }},
    {u"FastReadNotPossiblesPersec", uint32, rate},
    {u"FastReadResourceMissesPersec", uint32, rate},
    {u"FastReadsPersec", uint32, rate},
    {u"LazyWriteFlushesPersec", uint32, rate},
    {u"LazyWritePagesPersec", uint32, rate},
    {u"MDLReadHitsPercent", uint32, fraction},
    {u"MDLReadsPersec", uint32, rate},
    {u"PinReadHitsPercent", uint32, fraction},
    {u"PinReadsPersec", uint32, rate},
    {u"ReadAheadsPersec", uint32, rate},
    {u"SyncCopyReadsPersec", uint32, rate},
    {u"SyncDataMapsPersec", uint32, rate},
    {u"SyncFastReadsPersec", uint32, rate},
    {u"SyncMDLReadsPersec", uint32, rate},
    {u"SyncPinReadsPersec", uint32, rate},
};
// clang-format on

WmiStatus ReadCache(const Gathering& gathering, PerfSampling& sampling) {
    const std::optional<std::string> text = platform::ReadSystemFile("/proc/vmstat");
    if (!text) return FailedFile("/proc/vmstat", "The counters of the cache", gathering);
    const Row row{*text};
    sampling.Add({}, &row, TimeSinceStart());
    return wmi_status::ok;
}

constexpr PerfClass cache{.name = u"PerfOS_Cache",
                          .meaning = "pages that wait to be written",
                          .counters = counters,
                          .read = ReadCache,
                          .isSingle = true};

const ClassFamily family(DeclarePerfClasses<cache>);

}  // namespace

}  // namespace kv::wql
