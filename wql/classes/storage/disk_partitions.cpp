// Win32_DiskPartition, and which disk and which mounts belong to a partition: Win32_DiskDriveToDiskPartition and
// Win32_LogicalDiskToPartition. Partitions of devices that are not hardware, such as images, are left out with their
// disks. A partition is called "Disk #0, Partition #1" as on Windows, by which tools find its disk; Caption has Linux's
// name.
#include "facts/storage/disk_partitions.h"

#include <algorithm>
#include <fmt/format.h>

#include "facts/hardware/devices.h"
#include "facts/network/host_names.h"
#include "facts/storage/block_devices.h"
#include "facts/storage/drive_files.h"
#include "facts/storage/volume_facts.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/storage/drive_state.h"
#include "wql/classes/storage/storage_sources.h"
#include "wql/object_path.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t { entry = 1, blockSize = 2, place = 4, state = 8, access = 16, host = 32 };
};

struct Row {
    facts::Partition partition;
    facts::PartitionEntry entry;
    std::optional<std::uint64_t> blockSize;  // bytes
    std::string place;                       // its path below /sys/devices
    bool works = true;                       // its disk
    bool isReadOnly = false;
    std::u16string host;
};

std::string PartitionIdOf(const facts::Partition& partition) {
    return fmt::format("Disk #{}, Partition #{}", partition.diskIndex, partition.index);
}

std::optional<std::uint64_t> BlocksIn(const Row& row) {
    if (row.blockSize.value_or(0) == 0) return std::nullopt;
    return row.partition.size / *row.blockSize;
}

constexpr auto idIn = [](const Row& row) { return PartitionIdOf(row.partition); };
constexpr auto typeIn = [](const Row& row) { return row.entry.typeName(); };
constexpr auto bootableIn = [](const Row& row) { return row.entry.isBootable(); };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Access", uint16, Need::access, "1 read-only, 3 for reading and writing", [](const Row& row) { return row.isReadOnly ? 1 : 3; }},
    {u"AdditionalAvailability", uint16},
    {u"Availability", uint16},
    {u"BlockSize", uint64, Need::blockSize, "bytes, of its disk's queue/logical_block_size", [](const Row& row) { return row.blockSize; }},
    {u"Bootable", boolean, Need::entry, "whether the firmware boots from it: marked so, or a system partition; from udev", bootableIn},
    {u"BootPartition", boolean, Need::entry, "as Bootable", bootableIn},
    {u"Caption", string, 0, "such as /dev/sda1", [](const Row& row) { return facts::PathOfBlockDevice(row.partition.name); }},
    {u"ConfigManagerErrorCode", uint32, Need::state, errorCodeMeaning, [](const Row& row) { return ErrorCodeOf(row.works); }},
    {u"ConfigManagerUserConfig", boolean, 0, userConfigMeaning, [](const Row&) { return false; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_DiskPartition"; }},
    {u"Description", string, Need::entry, "as Type", typeIn},
    {u"DeviceID", string, 0, "Disk #0, Partition #1, by DiskIndex and Index", idIn},
    {u"DiskIndex", uint32, 0, "Index of its Win32_DiskDrive", [](const Row& row) { return row.partition.diskIndex; }},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ErrorMethodology", string},
    {u"HiddenSectors", uint32},
    {u"IdentifyingDescriptions", ArrayOf(string)},
    {u"Index", uint32, 0, "on its disk, from 0 in the order of the kernel's numbers", [](const Row& row) { return row.partition.index; }},
    {u"InstallDate", datetime},
    {u"LastErrorCode", uint32},
    {u"MaxQuiesceTime", uint64},
    {u"Name", string, 0, "as DeviceID", idIn},
    {u"NumberOfBlocks", uint64, Need::blockSize, "Size in blocks of BlockSize", [](const Row& row) { return BlocksIn(row); }},
    {u"OtherIdentifyingInfo", uint64},
    {u"PNPDeviceID", string, Need::place, "its path below /sys/devices", [](const Row& row) { return facts::KnownText(row.place); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"PowerOnHours", uint64},
    {u"PrimaryPartition", boolean, Need::entry, "neither a logical partition of an MBR nor the one that holds them; from udev",
        [](const Row& row) { return row.entry.isPrimary(); }},
    {u"Purpose", string},
    {u"RewritePartition", boolean},
    {u"Size", uint64, 0, "bytes", [](const Row& row) { return row.partition.size; }},
    {u"StartingOffset", uint64, 0, "bytes, where it starts on its disk", [](const Row& row) { return row.partition.start; }},
    {u"Status", string, Need::state, "OK, or Error if its disk's driver has given it up", [](const Row& row) { return StatusOf(row.works); }},
    {u"StatusInfo", uint16},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"TotalPowerOnHours", uint64},
    {u"Type", string, Need::entry, "in words such as GPT: System, from udev; Unknown if it has none", typeIn},
};

/// An object of either association.
struct Link {
    std::u16string antecedent;
    std::u16string dependent;
    std::uint64_t start = 0;  // bytes
    std::uint64_t end = 0;
};

constexpr PropertyInfo driveToPartition[] = {
    {u"Antecedent", reference, 0, "the Win32_DiskDrive", [](const Link& link) { return link.antecedent; }},
    {u"Dependent", reference, 0, "the Win32_DiskPartition", [](const Link& link) { return link.dependent; }},
};

constexpr PropertyInfo logicalDiskToPartition[] = {
    {u"Antecedent", reference, 0, "the Win32_DiskPartition", [](const Link& link) { return link.antecedent; }},
    {u"Dependent", reference, 0, "the Win32_LogicalDisk", [](const Link& link) { return link.dependent; }},
    {u"EndingAddress", uint64, 0, "the partition's last byte on its disk", [](const Link& link) { return link.end; }},
    {u"StartingAddress", uint64, 0, "the partition's first byte on its disk", [](const Link& link) { return link.start; }},
};
// clang-format on

std::u16string PathOf(const facts::Partition& partition) {
    return ObjectPath(u"Win32_DiskPartition", {{u"DeviceID", PartitionIdOf(partition)}});
}

/// Of a partition to a mount on it, or on a device that is made of it.
Link LinkOf(const facts::Partition& partition, const facts::Mount& mount) {
    return {.antecedent = PathOf(partition),
            .dependent = ObjectPath(u"Win32_LogicalDisk", {{u"DeviceID", mount.mountPoint}}),
            .start = partition.start,
            .end = partition.start + std::max<std::uint64_t>(partition.size, 1) - 1};
}

WmiStatus FailedDisks(const std::string& root, const Gathering& gathering) {
    return FailedFile(root + "/sys/block", "Disks", gathering);
}

void FillRow(const Gathering& gathering, const std::string& root, Row& row) {
    const std::string disk = root + "/sys/block/" + row.partition.disk;
    const std::string& folder = row.partition.folder;
    if (gathering.asksFor(Need::entry)) {
        const std::string device = facts::ReadSystemLine(folder + "/dev").value_or("");
        row.entry = facts::ParsePartitionEntry(facts::ReadUdevData(device, root));
    }
    if (gathering.asksFor(Need::blockSize)) row.blockSize = facts::ReadSystemNumber(disk + "/queue/logical_block_size");
    if (gathering.asksFor(Need::place)) row.place = facts::PlaceOfDevice(folder);
    if (gathering.asksFor(Need::state)) row.works = facts::IsDriveWorking(disk);
    if (gathering.asksFor(Need::access)) row.isReadOnly = facts::ReadSystemNumber(folder + "/ro").value_or(0) != 0;
}

constexpr ClassInfo classes[] = {
    {u"Win32_DiskPartition", u"CIM_DiskPartition", properties,
     [](const Gathering& gathering) { return GatherDiskPartitions(gathering, {}); }, u"DeviceID",
     "partitions of the disks"},
    {u"Win32_DiskDriveToDiskPartition", u"CIM_MediaPresent", driveToPartition,
     [](const Gathering& gathering) { return GatherDrivesToPartitions(gathering, {}); }, u"Antecedent,Dependent",
     "which partition is on which disk"},
    {u"Win32_LogicalDiskToPartition", u"CIM_LogicalDiskBasedOnPartition", logicalDiskToPartition,
     [](const Gathering& gathering) { return GatherLogicalDisksToPartitions(gathering, {}); }, u"Antecedent,Dependent",
     "which mounted file system is on which partition"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherDiskPartitions(const Gathering& gathering, const std::string& root) {
    std::optional<std::vector<facts::Partition>> partitions = facts::ListPartitions(gathering.notice, root);
    if (!partitions) return FailedDisks(root, gathering);
    const std::u16string host = gathering.asksFor(Need::host) ? facts::HostName() : std::u16string();
    for (facts::Partition& partition : *partitions) {
        Row row;
        row.partition = std::move(partition);
        row.host = host;
        FillRow(gathering, root, row);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherDrivesToPartitions(const Gathering& gathering, const std::string& root) {
    const std::optional<std::vector<facts::Partition>> partitions = facts::ListPartitions(gathering.notice, root);
    if (!partitions) return FailedDisks(root, gathering);
    for (const facts::Partition& partition : *partitions) {
        Link link;
        link.antecedent = ObjectPath(u"Win32_DiskDrive", {{u"DeviceID", facts::PathOfBlockDevice(partition.disk)}});
        link.dependent = PathOf(partition);
        if (!gathering.row(&link)) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherLogicalDisksToPartitions(const Gathering& gathering, const std::string& root) {
    const std::optional<std::vector<facts::Partition>> partitions = facts::ListPartitions(gathering.notice, root);
    if (!partitions) return FailedDisks(root, gathering);
    const std::string mountInfo = root + "/proc/self/mountinfo";
    const std::optional<std::string> mounts = platform::ReadSystemFile(mountInfo);
    if (!mounts) return FailedFile(mountInfo, "Mounts", gathering);
    for (const facts::Mount& mount : facts::DisksAmong(facts::ParseMountInfo(*mounts))) {
        const std::vector<std::string> devices = facts::DevicesUnder(facts::BlockDeviceOf(mount, root), root);
        for (const facts::Partition& partition : *partitions) {
            if (std::ranges::find(devices, partition.name) == devices.end()) continue;
            const Link link = LinkOf(partition, mount);
            if (!gathering.row(&link)) return wmi_status::ok;
        }
    }
    return wmi_status::ok;
}

}  // namespace kv::wql
