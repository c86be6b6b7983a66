// Win32_DiskDrive: the hardware disks, from /sys/block.
#include <algorithm>
#include <array>
#include <filesystem>

#include "facts/block_devices.h"
#include "facts/host_names.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;
namespace fs = std::filesystem;

struct Need {
    enum Bits : std::uint32_t {
        size = 1,
        identity = 2,
        serial = 4,
        firmware = 8,
        partitions = 16,
        place = 32,
        removable = 64,
        state = 128,
        host = 256,
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
    std::uint32_t partitions = 0;
    std::string place;                                 // its device's path below /sys/devices
    std::optional<std::array<std::uint32_t, 4>> scsi;  // host, channel, target, unit
    bool isRemovable = false;
    bool works = true;
    std::u16string host;
};

std::string DevicePathOf(const Row& row) { return "/dev/" + row.name; }

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
    {u"Capabilities", ArrayOf(uint16)},
    {u"CapabilityDescriptions", ArrayOf(string)},
    {u"Caption", string, Need::identity, "as Model, else as Name",
        [](const Row& row) { return row.model.empty() ? DevicePathOf(row) : row.model; }},
    {u"CompressionMethod", string},
    {u"ConfigManagerErrorCode", uint32},
    {u"ConfigManagerUserConfig", boolean},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_DiskDrive"; }},
    {u"DefaultBlockSize", uint64},
    {u"Description", string, 0, "what it is", [](const Row&) { return u"Disk drive"; }},
    {u"DeviceID", string, 0, "such as /dev/sda", devicePathIn},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ErrorMethodology", string},
    {u"FirmwareRevision", string, Need::firmware, "of the disk, if it tells", [](const Row& row) { return facts::KnownText(row.firmware); }},
    {u"Index", uint32, 0, "from 0, in the order of the names", [](const Row& row) { return row.index; }},
    {u"InstallDate", datetime},
    {u"InterfaceType", string, Need::place, "USB, IDE for ATA, SCSI for all others", [](const Row& row) { return InterfaceTypeOf(row); }},
    {u"LastErrorCode", uint32},
    {u"Manufacturer", string, Need::identity, "of the disk, if it tells", [](const Row& row) { return facts::KnownText(row.vendor); }},
    {u"MaxBlockSize", uint64},
    {u"MaxMediaSize", uint64},
    {u"MediaLoaded", boolean, Need::size, "whether it has a size", [](const Row& row) { return row.size.value_or(0) != 0; }},
    {u"MediaType", string, Need::place | Need::removable, "fixed, removable, or external: fixed on USB",
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
    {u"Signature", uint32},
    {u"Size", uint64, Need::size, "bytes", [](const Row& row) { return row.size; }},
    {u"Status", string, Need::state, "OK, or Error if its driver has given it up",
        [](const Row& row) { return row.works ? u"OK" : u"Error"; }},
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

/// The text of the first of these files that has one; empty if none has.
std::string FirstLineOf(const std::string& folder, std::initializer_list<const char*> files) {
    for (const char* file : files) {
        if (const std::optional<std::string> line = facts::ReadSystemLine(folder + file)) return *line;
    }
    return {};
}

/// Empty for what does not name a vendor: on some buses it is only a number, and for an ATA disk behind SCSI "ATA".
std::string VendorIn(const std::string& folder) {
    const std::string vendor = FirstLineOf(folder, {"/device/vendor"});
    return vendor.starts_with("0x") || vendor == "ATA" ? std::string() : vendor;
}

/// The serial number, from its file or else from the SCSI page for it, after the page's header.
std::string SerialIn(const std::string& folder) {
    constexpr std::size_t pageHeader = 4;
    std::string serial = FirstLineOf(folder, {"/serial", "/device/serial"});
    if (!serial.empty()) return serial;
    const std::string page = platform::ReadSystemFile(folder + "/device/vpd_pg80").value_or(std::string());
    return page.size() <= pageHeader ? std::string()
                                     : std::string(facts::Trimmed(std::string_view(page).substr(pageHeader)));
}

std::uint32_t CountPartitions(const std::string& folder, const std::string& disk) {
    std::uint32_t count = 0;
    std::error_code failure;
    for (fs::directory_iterator at(folder, failure), end; !failure && at != end; at.increment(failure)) {
        std::error_code unreadable;
        const bool isPart = at->path().filename().string().starts_with(disk);
        if (isPart && fs::exists(at->path() / "partition", unreadable)) ++count;
    }
    return count;
}

std::string PlaceOf(const std::string& folder) {
    constexpr std::string_view root = "/sys/devices/";
    std::error_code failure;
    const std::string path = fs::canonical(folder + "/device", failure).string();
    return path.starts_with(root) ? path.substr(root.size()) : std::string();
}

/// The four numbers of a SCSI device, "0:0:1:0", at the end of a path.
std::optional<std::array<std::uint32_t, 4>> ScsiAddressIn(std::string_view place) {
    std::array<std::uint32_t, 4> address{};
    std::string_view rest = place.substr(place.rfind('/') + 1);
    for (std::uint32_t& number : address) {
        const std::size_t end = std::min(rest.find(':'), rest.size());
        const std::optional<std::uint64_t> figure = facts::NumberOf(rest.substr(0, end));
        if (!figure) return std::nullopt;
        number = static_cast<std::uint32_t>(*figure);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return rest.empty() ? std::optional(address) : std::nullopt;
}

/// Whether the disk's driver still uses it. Drivers that do not tell a state count as working.
bool Works(const std::string& folder) {
    const std::string state = FirstLineOf(folder, {"/device/state"});
    return state.empty() || state == "running" || state == "live";
}

void FillRow(const Gathering& gathering, Row& row) {
    constexpr std::uint64_t sizeUnit = 512;
    const std::string folder = "/sys/block/" + row.name;
    if (gathering.asksFor(Need::size)) {
        const std::optional<std::uint64_t> units = facts::ReadSystemNumber(folder + "/size");
        if (units) row.size = *units * sizeUnit;
        row.sectorSize = facts::ReadSystemNumber(folder + "/queue/logical_block_size");
    }
    if (gathering.asksFor(Need::identity)) {
        row.vendor = VendorIn(folder);
        row.model = FirstLineOf(folder, {"/device/model", "/device/name"});
    }
    if (gathering.asksFor(Need::serial)) row.serial = SerialIn(folder);
    if (gathering.asksFor(Need::firmware)) {
        row.firmware = FirstLineOf(folder, {"/device/firmware_rev", "/device/rev", "/device/fwrev"});
    }
    if (gathering.asksFor(Need::partitions)) row.partitions = CountPartitions(folder, row.name);
    if (gathering.asksFor(Need::place)) row.place = PlaceOf(folder);
    row.scsi = ScsiAddressIn(row.place);
    if (gathering.asksFor(Need::removable))
        row.isRemovable = facts::ReadSystemNumber(folder + "/removable").value_or(0) != 0;
    if (gathering.asksFor(Need::state)) row.works = Works(folder);
}

WmiStatus GatherDisks(const Gathering& gathering) {
    const std::u16string host = gathering.asksFor(Need::host) ? facts::HostName() : std::u16string();
    std::uint32_t index = 0;
    for (std::string& name : facts::ListPhysicalDisks()) {
        Row row;
        row.name = std::move(name);
        row.index = index++;
        row.host = host;
        FillRow(gathering, row);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {{u"Win32_DiskDrive", u"CIM_DiskDrive", properties, GatherDisks, u"DeviceID"}};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
