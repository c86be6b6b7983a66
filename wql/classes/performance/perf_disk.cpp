// PerfDisk_LogicalDisk and PerfDisk_PhysicalDisk, from /proc/diskstats and the mounts' space.
//
// The kernel tells how long a disk was busy, so PercentDiskTime is that time and not the sum of all operations' times.
// For reads and writes only these sums are known, and they may exceed 100.
//
// _Total of the logical disks counts this computer's own disks, each once.
#include <algorithm>
#include <functional>
#include <unordered_map>

#include "facts/storage/block_devices.h"
#include "facts/storage/volume_facts.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

struct Need {
    enum Bits : std::uint32_t { io = 1, space = 2 };
};

struct Row {
    std::optional<facts::DiskCounters> io;  // null if not asked for, or the file system is not on a block device
    std::optional<facts::FileSystemSpace> space;
};

using Number = std::optional<std::uint64_t>;

/// At which the kernel's times of operations wrap: 32 bits of milliseconds.
constexpr std::uint64_t timePeriod = (std::uint64_t{1} << 32) * unitsPerMillisecond;

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
    return Io(row, [](const auto& io) { return io.readMilliseconds * unitsPerMillisecond; });
};
constexpr auto writeTimeIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.writeMilliseconds * unitsPerMillisecond; });
};
constexpr auto operationTimeIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return (io.readMilliseconds + io.writeMilliseconds) * unitsPerMillisecond; });
};
constexpr auto busyTimeIn = [](const Row& row) {
    return Io(row, [](const auto& io) { return io.busyMilliseconds * unitsPerMillisecond; });
};

constexpr std::uint64_t megabyte = std::uint64_t{1024} * 1024;

/// Absent for a file system without room, of which there is no share.
Number FreeBytesIn(const Row& row) {
    return row.space && row.space->usableSize() > 0 ? Number(row.space->available) : std::nullopt;
}

// clang-format off
constexpr CounterInfo spaceCounters[] = {
    {u"FreeMegabytes", uint32, value, Need::space, "MB that ordinary users may use, f_bavail of statvfs",
        [](const Row& row) { return row.space ? Number(row.space->available / megabyte) : std::nullopt; }},
    {u"PercentFreeSpace", uint32, freeShare, Need::space,
        "what ordinary users may use in percent of it and what is used, rounded down; what is left of 100 is Use% of df",
        [](const Row& row) { return FreeBytesIn(row); },
        [](const Row& row) { return row.space ? Number(row.space->usableSize()) : std::nullopt; }},
};

constexpr CounterInfo ioCounters[] = {
    {u"AvgDiskBytesPerRead", uint64, averageAmount, Need::io, "bytes", bytesReadIn, readsIn},
    {u"AvgDiskBytesPerTransfer", uint64, averageAmount, Need::io, "bytes", bytesIn, transfersIn},
    {u"AvgDiskBytesPerWrite", uint64, averageAmount, Need::io, "bytes", bytesWrittenIn, writesIn},
    {u"AvgDiskQueueLength", uint64, queueLength, Need::io, "reads and writes under way, the mean", operationTimeIn, nullptr, timePeriod},
    {u"AvgDiskReadQueueLength", uint64, queueLength, Need::io, "reads under way, the mean", readTimeIn, nullptr, timePeriod},
    {u"AvgDisksecPerRead", uint32, averageTime, Need::io, "seconds; the raw counter in 100 ns", readTimeIn, readsIn, timePeriod},
    {u"AvgDisksecPerTransfer", uint32, averageTime, Need::io, "seconds; the raw counter in 100 ns", operationTimeIn, transfersIn, timePeriod},
    {u"AvgDisksecPerWrite", uint32, averageTime, Need::io, "seconds; the raw counter in 100 ns", writeTimeIn, writesIn, timePeriod},
    {u"AvgDiskWriteQueueLength", uint64, queueLength, Need::io, "writes under way, the mean", writeTimeIn, nullptr, timePeriod},
    {u"CurrentDiskQueueLength", uint32, value, Need::io, "operations under way now",
        [](const Row& row) { return Io(row, [](const auto& io) { return io.inFlight; }); }},
    {u"DiskBytesPersec", uint64, rate, Need::io, "bytes", bytesIn},
    {u"DiskReadBytesPersec", uint64, rate, Need::io, "bytes", bytesReadIn},
    {u"DiskReadsPersec", uint32, rate, Need::io, "reads done", readsIn},
    {u"DiskTransfersPersec", uint32, rate, Need::io, "reads and writes done", transfersIn},
    {u"DiskWriteBytesPersec", uint64, rate, Need::io, "bytes", bytesWrittenIn},
    {u"DiskWritesPersec", uint32, rate, Need::io, "writes done", writesIn},
    {u"PercentDiskReadTime", uint64, percentOfOperations, Need::io, "time of all reads", readTimeIn, nullptr, timePeriod},
    {u"PercentDiskTime", uint64, percentOfTimestamp, Need::io, "time with any operation under way", busyTimeIn, nullptr, timePeriod},
    {u"PercentDiskWriteTime", uint64, percentOfOperations, Need::io, "time of all writes", writeTimeIn, nullptr, timePeriod},
    {u"PercentIdleTime", uint64, percentOfTimestampLeft, Need::io, "time with no operation under way", busyTimeIn, nullptr, timePeriod},
    {u"SplitIOPerSec", uint32, rate},
};
// clang-format on

constexpr auto allCounters = Joined(spaceCounters, ioCounters);

using CountersByName = std::unordered_map<std::string, facts::DiskCounters>;

/// Empty if not asked for; absent if they cannot be read.
std::optional<CountersByName> ReadDiskCounters(const Gathering& gathering) {
    CountersByName byName;
    if (!gathering.asksFor(Need::io)) return byName;
    const std::optional<std::string> text = platform::ReadSystemFile("/proc/diskstats");
    if (!text) return std::nullopt;
    for (facts::DiskCounters& disk : facts::ParseDiskStats(*text)) byName[disk.name] = disk;
    return byName;
}

std::optional<facts::DiskCounters> CountersOf(const CountersByName& byName, const std::string& name) {
    const auto found = byName.find(name);
    return found != byName.end() ? std::optional(found->second) : std::nullopt;
}

bool IsNamed(const std::vector<CimValue>& values, std::string_view name) {
    return std::any_of(values.begin(), values.end(), [name](const CimValue& value) {
        const auto* text = std::get_if<std::u16string>(&value.held);
        return text != nullptr && CompareNames(*text, platform::WideFromUtf8(name)) == 0;
    });
}

/// Asks mounts for their space before it reads counters, because a mount may keep the query waiting.
WmiStatus ReadLogicalDisks(const Gathering& gathering, PerfSampling& sampling) {
    const std::vector<CimValue>* names = gathering.valuesOf(u"Name");
    if (names != nullptr && !IsNamed(*names, "_Total")) {
        sampling.isAsked = [names](const std::string& key) { return IsNamed(*names, key); };
    }
    const auto isWanted = [&](const facts::Mount& mount) {
        return !sampling.isAsked || sampling.isAsked(mount.mountPoint);
    };
    const std::optional<std::vector<facts::DiskSpace>> disks =
        facts::ReadDisks(gathering.asksFor(Need::space), gathering.notice, isWanted);
    const std::optional<CountersByName> byName = ReadDiskCounters(gathering);
    if (!byName) return FailedFile("/proc/diskstats", "Disks", gathering);
    if (!disks) return FailedFile("/proc/self/mountinfo", "Disks", gathering);
    std::vector<std::string> blockDevices;
    for (const facts::DiskSpace& disk : *disks) blockDevices.push_back(facts::BlockDeviceOf(disk.mount));
    const std::vector<bool> areOwn = facts::HaveOwnSpace(*disks, blockDevices);
    const std::uint64_t now = TimeSinceStart();
    for (std::size_t at = 0; at < disks->size(); ++at) {
        const facts::DiskSpace& disk = (*disks)[at];
        const Row row{CountersOf(*byName, blockDevices[at]), disk.space};
        PerfObject object;
        object.name = disk.mount.mountPoint;
        object.key = disk.mount.mountPoint;
        object.generation = std::hash<std::string>()(disk.mount.device);
        object.isInTotal = areOwn[at];
        sampling.Add(std::move(object), &row, now);
    }
    return wmi_status::ok;
}

WmiStatus ReadPhysicalDisks(const Gathering& gathering, PerfSampling& sampling) {
    const std::optional<CountersByName> byName = ReadDiskCounters(gathering);
    const std::optional<std::vector<std::string>> disks = facts::ListPhysicalDisks();
    if (!byName) return FailedFile("/proc/diskstats", "Disks", gathering);
    if (!disks) return FailedFile("/sys/block", "Disks", gathering);
    const std::uint64_t now = TimeSinceStart();
    std::size_t index = 0;
    for (const std::string& name : *disks) {
        const Row row{CountersOf(*byName, name), {}};
        PerfObject object;
        object.name = std::to_string(index++) + ' ' + name;
        object.key = name;
        sampling.Add(std::move(object), &row, now);
    }
    return wmi_status::ok;
}

constexpr PerfClass logicalDisks{.name = u"PerfDisk_LogicalDisk",
                                 .meaning = "load and room of each mounted file system",
                                 .counters = allCounters,
                                 .read = ReadLogicalDisks,
                                 .hasTotal = true};
constexpr PerfClass physicalDisks{.name = u"PerfDisk_PhysicalDisk",
                                  .meaning = "load of each disk",
                                  .counters = ioCounters,
                                  .read = ReadPhysicalDisks,
                                  .hasTotal = true};

const ClassFamily family(DeclarePerfClasses<logicalDisks, physicalDisks>);

}  // namespace

}  // namespace kv::wql
