// PerfOS_PagingFile: the swap devices and files in use. The kernel does not keep the most that has been in use.
#include "facts/storage/swaps.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

// clang-format off
constexpr CounterInfo counters[] = {
    {u"PercentUsage", uint32, fraction, 0, "Used in percent of Size, both KB of /proc/swaps",
        [](const facts::Swap& swap) { return swap.used; }, [](const facts::Swap& swap) { return swap.size; }},
    {u"PercentUsagePeak", uint32, fraction},
};
// clang-format on

WmiStatus ReadPagingFiles(const Gathering& gathering, PerfSampling& sampling) {
    const std::optional<std::vector<facts::Swap>> swaps = facts::ReadSwaps();
    if (!swaps) return FailedFile("/proc/swaps", "Swap devices and files", gathering);
    const std::uint64_t now = TimeSinceStart();
    for (const facts::Swap& swap : *swaps) {
        PerfObject object;
        object.name = swap.path;
        object.key = swap.path;
        sampling.Add(std::move(object), &swap, now);
    }
    return wmi_status::ok;
}

constexpr PerfClass pagingFiles{.name = u"PerfOS_PagingFile",
                                .meaning = "how much of each swap device or file is used",
                                .counters = counters,
                                .read = ReadPagingFiles,
                                .hasTotal = true};

const ClassFamily family(DeclarePerfClasses<pagingFiles>);

}  // namespace

}  // namespace kv::wql
