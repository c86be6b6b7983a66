// PerfDisk_LogicalDisk and PerfDisk_PhysicalDisk, of /proc/diskstats and the mounts' space.
//
// The time a disk is busy is known as such, so that PercentDiskTime is that and not, as elsewhere, the time of all
// operations added up. Of reading and of writing alone only those sums are known.
#include <algorithm>
#include <unordered_map>

#include "platform/posix/wmi/class_tree.h"
#include "platform/posix/wmi/system_text.h"
#include "platform/posix/wmi_classes/block_devices.h"
#include "platform/posix/wmi_classes/families.h"
#include "platform/posix/wmi_classes/perf_class.h"
#include "platform/posix/wmi_classes/volume_facts.h"

namespace platform::wmi {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { io = 1, space = 2 };
};

struct Row {
    std::optional<DiskCounters> io;  // none: not asked for, or the file system lies on no block device
    std::optional<FileSystemSpace> space;
    std::uint64_t time = 0;  // of the reading, since the system's start, in units of 100 ns
};

using Number = std::optional<std::uint64_t>;

constexpr std::uint64_t unitsOfMillisecond = 10'000;
constexpr std::uint64_t sectorSize = 512;

template <class Figure>
Number Io(const Row& row, Figure figure) {
    if (!row.io) return std::nullopt;
    return figure(*row.io);
}

constexpr auto readsIn = [](const Row& row) { return Io(row, [](const auto& io) { return io.reads; }); };
constexpr auto writesIn = [](const Row& row) { return Io(row, [](const auto& io) { return io.writes; }); };
constexpr auto transfersIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.reads + io.writes; });
};
constexpr auto bytesReadIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.sectorsRead * sectorSize; });
};
constexpr auto bytesWrittenIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.sectorsWritten * sectorSize; });
};
constexpr auto bytesIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return (io.sectorsRead + io.sectorsWritten) * sectorSize; });
};
constexpr auto readTimeIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.readMilliseconds * unitsOfMillisecond; });
};
constexpr auto writeTimeIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.writeMilliseconds * unitsOfMillisecond; });
};
constexpr auto operationTimeIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return (io.readMilliseconds + io.writeMilliseconds) * unitsOfMillisecond; });
};
constexpr auto busyTimeIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.busyMilliseconds * unitsOfMillisecond; });
};
constexpr auto idleTimeIn = [](const Row& row) {
    return Io(row,
              [&](const auto& io) { return row.time - std::min(row.time, io.busyMilliseconds * unitsOfMillisecond); });
};

/// A number of bytes in the smallest unit in which the whole fits into the 32 bits of a raw counter.
Number Scaled(std::uint64_t bytes, std::uint64_t whole) {
    constexpr std::uint64_t step = 1024;
    for (; whole > UINT32_MAX; whole /= step) bytes /= step;
    return bytes;
}

Number FreeSpaceIn(const Row& row) {
    return row.space ? Scaled(row.space->available, row.space->usableSize()) : std::nullopt;
}
Number WholeSpaceIn(const Row& row) {
    return row.space ? Scaled(row.space->usableSize(), row.space->usableSize()) : std::nullopt;
}
Number FreeMegabytesIn(const Row& row) {
    constexpr std::uint64_t megabyte = std::uint64_t{1024} * 1024;
    return row.space ? Number(row.space->available / megabyte) : std::nullopt;
}

// clang-format off
constexpr CounterInfo counters[] = {
    {u"FreeMegabytes", uint32, value, Need::space, "MB that ordinary users may use", [](const Row& row) { return FreeMegabytesIn(row); }},
    {u"PercentFreeSpace", uint32, fraction, Need::space, "what ordinary users may use, of that and what is used",
        [](const Row& row) { return FreeSpaceIn(row); }, [](const Row& row) { return WholeSpaceIn(row); }},

    {u"AvgDiskBytesPerRead", uint64, averageAmount, Need::io, "bytes", bytesReadIn, readsIn},
    {u"AvgDiskBytesPerTransfer", uint64, averageAmount, Need::io, "bytes", bytesIn, transfersIn},
    {u"AvgDiskBytesPerWrite", uint64, averageAmount, Need::io, "bytes", bytesWrittenIn, writesIn},
    {u"AvgDiskQueueLength", uint64, queueLength, Need::io, "reads and writes under way, the mean", operationTimeIn},
    {u"AvgDiskReadQueueLength", uint64, queueLength, Need::io, "reads under way, the mean", readTimeIn},
    {u"AvgDisksecPerRead", uint32, averageTime, Need::io, "seconds; the raw counter in 100 ns", readTimeIn, readsIn},
    {u"AvgDisksecPerTransfer", uint32, averageTime, Need::io, "seconds; the raw counter in 100 ns", operationTimeIn, transfersIn},
    {u"AvgDisksecPerWrite", uint32, averageTime, Need::io, "seconds; the raw counter in 100 ns", writeTimeIn, writesIn},
    {u"AvgDiskWriteQueueLength", uint64, queueLength, Need::io, "writes under way, the mean", writeTimeIn},
    {u"CurrentDiskQueueLength", uint32, value, Need::io, "operations under way now",
        [](const Row& row) { return Io(row, [](const auto& io) { return io.inFlight; }); }},
    {u"DiskBytesPersec", uint64, rate, Need::io, "bytes", bytesIn},
    {u"DiskReadBytesPersec", uint64, rate, Need::io, "bytes", bytesReadIn},
    {u"DiskReadsPersec", uint32, rate, Need::io, "reads done", readsIn},
    {u"DiskTransfersPersec", uint32, rate, Need::io, "reads and writes done", transfersIn},
    {u"DiskWriteBytesPersec", uint64, rate, Need::io, "bytes", bytesWrittenIn},
    {u"DiskWritesPersec", uint32, rate, Need::io, "writes done", writesIn},
    {u"PercentDiskReadTime", uint64, percentOfTimestamp, Need::io, "time of all reads", readTimeIn},
    {u"PercentDiskTime", uint64, percentOfTimestamp, Need::io, "time with any operation under way", busyTimeIn},
    {u"PercentDiskWriteTime", uint64, percentOfTimestamp, Need::io, "time of all writes", writeTimeIn},
    {u"PercentIdleTime", uint64, percentOfTimestamp, Need::io, "time with no operation under way", idleTimeIn},
    {u"SplitIOPerSec", uint32, rate},
};
// clang-format on

constexpr std::size_t spaceCounters = 2;

using CountersByName = std::unordered_map<std::string, DiskCounters>;

CountersByName ReadDiskCounters(const Gathering& gathering) {
    CountersByName byName;
    if (!gathering.asksFor(Need::io)) return byName;
    for (DiskCounters& disk : ParseDiskStats(ReadSystemFile("/proc/diskstats").value_or(""))) {
        byName[disk.name] = disk;
    }
    return byName;
}

std::optional<DiskCounters> CountersOf(const CountersByName& byName, const std::string& name) {
    const auto found = byName.find(name);
    return found != byName.end() ? std::optional(found->second) : std::nullopt;
}

bool IsNamed(const std::vector<CimValue>& values, std::string_view name) {
    return std::any_of(values.begin(), values.end(), [name](const CimValue& value) {
        const auto* text = std::get_if<std::u16string>(&value.held);
        return text != nullptr && CompareNames(*text, WideFromUtf8(name)) == 0;
    });
}

/// Mounts are asked for their space before the counters are read, as some may keep the query waiting.
WmiStatus ReadLogicalDisks(const Gathering& gathering, PerfSampling& sampling) {
    const std::vector<CimValue>* names = gathering.valuesOf(u"Name");
    sampling.isWhole = names == nullptr || IsNamed(*names, "_Total");
    const auto isWanted = [&](const Mount& mount) { return sampling.isWhole || IsNamed(*names, mount.mountPoint); };
    const std::vector<DiskSpace> disks = ReadDisks(gathering.asksFor(Need::space), gathering.notice, isWanted);
    const CountersByName byName = ReadDiskCounters(gathering);
    Row row;
    row.time = TimeSinceStart();
    for (const DiskSpace& disk : disks) {
        if (!byName.empty()) row.io = CountersOf(byName, BlockDeviceOf(disk.mount));
        row.space = disk.space;
        PerfRow object;
        object.name = disk.mount.mountPoint;
        object.key = disk.mount.device + ' ' + disk.mount.mountPoint;
        sampling.add(std::move(object), &row, row.time);
    }
    return wmi_status::ok;
}

WmiStatus ReadPhysicalDisks(const Gathering& gathering, PerfSampling& sampling) {
    const CountersByName byName = ReadDiskCounters(gathering);
    Row row;
    row.time = TimeSinceStart();
    std::size_t index = 0;
    for (const std::string& name : ListPhysicalDisks()) {
        row.io = CountersOf(byName, name);
        PerfRow object;
        object.name = std::to_string(index++) + ' ' + name;
        object.key = name;
        sampling.add(std::move(object), &row, row.time);
    }
    return wmi_status::ok;
}

constexpr PerfClass logicalDisks{u"PerfDisk_LogicalDisk", counters, ReadLogicalDisks, false, true};
constexpr PerfClass physicalDisks{u"PerfDisk_PhysicalDisk", std::span(counters).subspan(spaceCounters),
                                  ReadPhysicalDisks, false, true};

}  // namespace

std::span<const ClassInfo> PerfDiskClasses() { return DeclarePerfClasses<logicalDisks, physicalDisks>(); }

}  // namespace platform::wmi
