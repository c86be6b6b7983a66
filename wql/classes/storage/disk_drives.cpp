// Win32_DiskDrive: the hardware disks, from /sys/block.
#include <array>
#include <fmt/format.h>

#include "facts/hardware/devices.h"
#include "facts/network/host_names.h"
#include "facts/storage/block_devices.h"
#include "facts/storage/disk_partitions.h"
#include "facts/storage/drive_files.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/storage/drive_state.h"
#include "wql/classes/storage/storage_sources.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        size = 1,
        identity = 2,
        serial = 4,
        firmware = 8,
        partitions = 16,
        place = 32,
        media = 64,
        state = 128,
        host = 256,
        signature = 512,
    };
};

struct Row {
    std::string name;  // such as "sda"
    std::uint32_t index = 0;
    std::optional<std::uint64_t> size;        // bytes
    std::optional<std::uint64_t> sectorSize;  // bytes
    std::string vendor;
    std::string model;
    std::string serial;
    std::string firmware;
    std::optional<std::size_t> partitions;
    std::string place;                                 // its device's path below /sys/devices
    std::optional<std::array<std::uint32_t, 4>> scsi;  // host, channel, target, unit
    bool isRemovable = false;
    bool isReadOnly = false;
    bool works = true;
    std::optional<std::uint32_t> signature;
    std::u16string host;
};

std::string DevicePathOf(const Row& row) { return facts::PathOfBlockDevice(row.name); }

bool IsOnUsb(const Row& row) { return row.place.find("/usb") != row.place.npos; }

std::u16string_view InterfaceTypeOf(const Row& row) {
    if (IsOnUsb(row)) return u"USB";
    return row.place.find("/ata") != row.place.npos ? u"IDE" : u"SCSI";
}

std::u16string_view MediaTypeOf(const Row& row) {
    if (row.isRemovable) return u"Removable Media";
    return IsOnUsb(row) ? u"External hard disk media" : u"Fixed hard disk media";
}

std::optional<std::uint64_t> SectorsIn(const Row& row) {
    if (!row.size || row.sectorSize.value_or(0) == 0) return std::nullopt;
    return *row.size / *row.sectorSize;
}

std::optional<std::uint32_t> ScsiIn(const Row& row, std::size_t level) {
    if (!row.scsi) return std::nullopt;
    return (*row.scsi)[level];
}

constexpr auto devicePathIn = [](const Row& row) { return DevicePathOf(row); };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Availability", uint16},
    {u"BytesPerSector", uint32, Need::size, "of queue/logical_block_size", [](const Row& row) { return row.sectorSize; }},
    {u"Capabilities", ArrayOf(uint16), Need::media, capabilitiesMeaning, [](const Row& row) { return CapabilitiesOf(!row.isReadOnly, row.isRemovable); }},
    {u"CapabilityDescriptions", ArrayOf(string), Need::media, "Capabilities in words",
        [](const Row& row) { return CapabilityTextsOf(!row.isReadOnly, row.isRemovable); }},
    {u"Caption", string, Need::identity, "as Model, else as Name",
        [](const Row& row) { return row.model.empty() ? DevicePathOf(row) : row.model; }},
    {u"CompressionMethod", string},
    {u"ConfigManagerErrorCode", uint32, Need::state, errorCodeMeaning, [](const Row& row) { return ErrorCodeOf(row.works); }},
    {u"ConfigManagerUserConfig", boolean, 0, userConfigMeaning, [](const Row&) { return false; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_DiskDrive"; }},
    {u"DefaultBlockSize", uint64},
    {u"Description", string, 0, "what it is", [](const Row&) { return u"Disk drive"; }},
    {u"DeviceID", string, 0, "such as /dev/sda", devicePathIn},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ErrorMethodology", string},
    {u"FirmwareRevision", string, Need::firmware, "of the disk, if it tells", [](const Row& row) { return facts::KnownText(row.firmware); }},
    {u"Index", uint32, 0, "its place from 0, short names first", [](const Row& row) { return row.index; }},
    {u"InstallDate", datetime},
    {u"InterfaceType", string, Need::place, "USB, IDE for ATA, SCSI for all others", [](const Row& row) { return InterfaceTypeOf(row); }},
    {u"LastErrorCode", uint32},
    {u"Manufacturer", string, Need::identity, "of the disk, if it tells", [](const Row& row) { return facts::KnownText(row.vendor); }},
    {u"MaxBlockSize", uint64},
    {u"MaxMediaSize", uint64},
    {u"MediaLoaded", boolean, Need::size, "whether it has a size", [](const Row& row) { return row.size.value_or(0) != 0; }},
    {u"MediaType", string, Need::place | Need::media, "fixed, removable, or external: fixed on USB",
        [](const Row& row) { return MediaTypeOf(row); }},
    {u"MinBlockSize", uint64},
    {u"Model", string, Need::identity, "of the disk, if it tells; a virtual machine's often does not",
        [](const Row& row) { return facts::KnownText(row.model); }},
    {u"Name", string, 0, "such as /dev/sda", devicePathIn},
    {u"NeedsCleaning", boolean},
    {u"NumberOfMediaSupported", uint32},
    {u"Partitions", uint32, Need::partitions, "how many", [](const Row& row) { return row.partitions; }},
    {u"PNPDeviceID", string, Need::place, "the device's path below /sys/devices", [](const Row& row) { return facts::KnownText(row.place); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"SCSIBus", uint32, Need::place, "channel of SCSI and ATA disks", [](const Row& row) { return ScsiIn(row, 1); }},
    {u"SCSILogicalUnit", uint16, Need::place, "unit of SCSI and ATA disks", [](const Row& row) { return ScsiIn(row, 3); }},
    {u"SCSIPort", uint16, Need::place, "host of SCSI and ATA disks", [](const Row& row) { return ScsiIn(row, 0); }},
    {u"SCSITargetId", uint16, Need::place, "target of SCSI and ATA disks", [](const Row& row) { return ScsiIn(row, 2); }},
    {u"SectorsPerTrack", uint32},
    {u"SerialNumber", string, Need::serial, "of the disk, if it tells", [](const Row& row) { return facts::KnownText(row.serial); }},
    {u"Signature", uint32, Need::signature, "of an MBR partition table, from udev", [](const Row& row) { return row.signature; }},
    {u"Size", uint64, Need::size, "bytes", [](const Row& row) { return row.size; }},
    {u"Status", string, Need::state, "OK, or Error if its driver has given it up",
        [](const Row& row) { return StatusOf(row.works); }},
    {u"StatusInfo", uint16},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"TotalCylinders", uint64},
    {u"TotalHeads", uint32},
    {u"TotalSectors", uint64, Need::size, "Size in sectors of BytesPerSector", [](const Row& row) { return SectorsIn(row); }},
    {u"TotalTracks", uint64},
    {u"TracksPerCylinder", uint32},
};
// clang-format on

void FillRow(const Gathering& gathering, const std::string& root, Row& row) {
    constexpr std::uint64_t sizeUnit = 512;
    const std::string folder = root + "/sys/block/" + row.name;
    if (gathering.asksFor(Need::size)) {
        const std::optional<std::uint64_t> units = facts::ReadSystemNumber(folder + "/size");
        if (units) row.size = *units * sizeUnit;
        row.sectorSize = facts::ReadSystemNumber(folder + "/queue/logical_block_size");
    }
    if (gathering.asksFor(Need::identity)) {
        row.vendor = facts::VendorOfDrive(folder);
        row.model = facts::ModelOfDrive(folder);
    }
    if (gathering.asksFor(Need::serial)) row.serial = facts::SerialOfDrive(folder);
    if (gathering.asksFor(Need::firmware)) row.firmware = facts::FirmwareOfDrive(folder);
    if (gathering.asksFor(Need::partitions)) row.partitions = facts::CountPartitions(row.name, root);
    if (gathering.asksFor(Need::partitions) && !row.partitions)
        gathering.notice(fmt::format("Partitions is NULL: {} cannot be read", folder));
    if (gathering.asksFor(Need::place)) row.place = facts::PlaceOfDevice(folder + "/device");
    row.scsi = facts::ScsiAddressIn(row.place);
    if (gathering.asksFor(Need::media)) {
        row.isRemovable = facts::ReadSystemNumber(folder + "/removable").value_or(0) != 0;
        row.isReadOnly = facts::ReadSystemNumber(folder + "/ro").value_or(0) != 0;
    }
    if (gathering.asksFor(Need::state)) row.works = facts::IsDriveWorking(folder);
    if (gathering.asksFor(Need::signature)) {
        const std::string device = facts::ReadSystemLine(folder + "/dev").value_or("");
        row.signature = facts::ParseDiskSignature(facts::ReadUdevData(device, root));
    }
}

constexpr ClassInfo classes[] = {
    {u"Win32_DiskDrive", u"CIM_DiskDrive", properties,
     [](const Gathering& gathering) { return GatherDiskDrives(gathering, {}); }, u"DeviceID",
     "disks: model, serial number, size"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherDiskDrives(const Gathering& gathering, const std::string& root) {
    const std::optional<std::vector<std::string>> disks = facts::ListPhysicalDisks(root);
    if (!disks) return FailedFile(root + "/sys/block", "Disks", gathering);
    const std::u16string host = gathering.asksFor(Need::host) ? facts::HostName() : std::u16string();
    std::uint32_t index = 0;
    for (const std::string& name : *disks) {
        Row row;
        row.name = name;
        row.index = index++;
        row.host = host;
        FillRow(gathering, root, row);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

}  // namespace kv::wql
