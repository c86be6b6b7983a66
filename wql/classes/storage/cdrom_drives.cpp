// Win32_CDROMDrive: drives for CDs and DVDs, from /sys/block and /proc/sys/dev/cdrom/info; what is in a drive, from
// udev.
#include <algorithm>
#include <array>

#include "facts/hardware/devices.h"
#include "facts/network/host_names.h"
#include "facts/storage/block_devices.h"
#include "facts/storage/cdrom_info.h"
#include "facts/storage/drive_files.h"
#include "facts/storage/volume_facts.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/storage/drive_state.h"
#include "wql/classes/storage/storage_sources.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t { host = 1, mountPoint = 2 };
};

struct Row {
    facts::CdDriveInfo info;
    bool hasInfo = false;
    std::string vendor;
    std::string model;
    std::string serial;
    std::string firmware;
    std::string place;                                 // its device's path below /sys/devices
    std::optional<std::array<std::uint32_t, 4>> scsi;  // host, channel, target, unit
    bool works = true;
    std::uint64_t size = 0;  // bytes, of the disc; 0 without one
    std::string label;       // of the disc
    std::string uuid;
    std::string mountPoint;  // empty if it is not mounted
    std::u16string host;
};

std::string DevicePathOf(const Row& row) { return "/dev/" + row.info.name; }

std::string NameOf(const Row& row) {
    if (row.model.empty()) return DevicePathOf(row);
    return row.vendor.empty() ? row.model : row.vendor + ' ' + row.model;
}

bool Writes(const Row& row) { return row.info.writesCd || row.info.writesDvd; }

std::u16string_view MediaTypeOf(const Row& row) {
    if (row.info.writesDvd) return u"DVD Writer";
    if (row.info.writesCd) return row.info.readsDvd ? u"DVD-ROM and CD Writer" : u"CD Writer";
    return row.info.readsDvd ? u"DVD-ROM" : u"CD-ROM";
}

std::optional<double> KilobytesPerSecond(const Row& row) {
    constexpr double unit = 176;  // of the kernel's figure, the speed of a CD with music
    if (row.info.speed == 0) return std::nullopt;
    return static_cast<double>(row.info.speed) * unit;
}

std::optional<std::uint32_t> ScsiIn(const Row& row, std::size_t level) {
    if (!row.scsi) return std::nullopt;
    return (*row.scsi)[level];
}

/// NULL for what only a disc has.
template <class Value>
CimValue OfDisc(const Row& row, const Value& value) {
    return row.size != 0 ? CimValue(value) : CimValue();
}

constexpr auto nameIn = [](const Row& row) { return NameOf(row); };
constexpr auto capabilitiesIn = [](const Row& row) { return CapabilitiesOf(Writes(row), true); };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Availability", uint16},
    {u"Capabilities", ArrayOf(uint16), 0, capabilitiesMeaning, capabilitiesIn},
    {u"CapabilityDescriptions", ArrayOf(string), 0, "Capabilities in words", [](const Row& row) { return CapabilityTextsOf(Writes(row), true); }},
    {u"Caption", string, 0, "vendor and model, else /dev/sr0", nameIn},
    {u"CompressionMethod", string},
    {u"ConfigManagerErrorCode", uint32, 0, errorCodeMeaning, [](const Row& row) { return ErrorCodeOf(row.works); }},
    {u"ConfigManagerUserConfig", boolean, 0, userConfigMeaning, [](const Row&) { return false; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_CDROMDrive"; }},
    {u"DefaultBlockSize", uint64},
    {u"Description", string, 0, "what it is", [](const Row&) { return u"CD-ROM Drive"; }},
    {u"DeviceID", string, 0, "such as /dev/sr0", [](const Row& row) { return DevicePathOf(row); }},
    {u"Drive", string, Need::mountPoint, "where its disc is mounted", [](const Row& row) { return facts::KnownText(row.mountPoint); }},
    {u"DriveIntegrity", boolean},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ErrorMethodology", string},
    {u"FileSystemFlags", uint16},
    {u"FileSystemFlagsEx", uint32},
    {u"Id", string, 0, "such as /dev/sr0", [](const Row& row) { return DevicePathOf(row); }},
    {u"InstallDate", datetime},
    {u"LastErrorCode", uint32},
    {u"Manufacturer", string, 0, "of the drive, if it tells", [](const Row& row) { return facts::KnownText(row.vendor); }},
    {u"MaxBlockSize", uint64},
    {u"MaximumComponentLength", uint32},
    {u"MaxMediaSize", uint64},
    {u"MediaLoaded", boolean, 0, "whether there is a disc in it, from udev, else from its size", [](const Row& row) { return row.size != 0; }},
    {u"MediaType", string, 0, "CD-ROM, DVD-ROM, CD Writer, DVD Writer, from /proc/sys/dev/cdrom/info; NULL without that file",
        [](const Row& row) { return row.hasInfo ? CimValue(MediaTypeOf(row)) : CimValue(); }},
    {u"MfrAssignedRevisionLevel", string, 0, "of its firmware", [](const Row& row) { return facts::KnownText(row.firmware); }},
    {u"MinBlockSize", uint64},
    {u"Name", string, 0, "vendor and model, else /dev/sr0", nameIn},
    {u"NeedsCleaning", boolean},
    {u"NumberOfMediaSupported", uint32, 0, "slots for discs, from /proc/sys/dev/cdrom/info",
        [](const Row& row) { return row.info.slots != 0 ? CimValue(row.info.slots) : CimValue(); }},
    {u"PNPDeviceID", string, 0, "the device's path below /sys/devices", [](const Row& row) { return facts::KnownText(row.place); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"RevisionLevel", string},
    {u"SCSIBus", uint32, 0, "channel of SCSI and ATA drives", [](const Row& row) { return ScsiIn(row, 1); }},
    {u"SCSILogicalUnit", uint16, 0, "unit of SCSI and ATA drives", [](const Row& row) { return ScsiIn(row, 3); }},
    {u"SCSIPort", uint16, 0, "host of SCSI and ATA drives", [](const Row& row) { return ScsiIn(row, 0); }},
    {u"SCSITargetId", uint16, 0, "target of SCSI and ATA drives", [](const Row& row) { return ScsiIn(row, 2); }},
    {u"SerialNumber", string, 0, "of the drive, if it tells", [](const Row& row) { return facts::KnownText(row.serial); }},
    {u"Size", uint64, 0, "bytes of its disc", [](const Row& row) { return OfDisc(row, row.size); }},
    {u"Status", string, 0, "OK, or Error if its driver has given it up", [](const Row& row) { return StatusOf(row.works); }},
    {u"StatusInfo", uint16},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"TransferRate", real64, 0, "KB a second, the fastest, drive speed of /proc/sys/dev/cdrom/info",
        [](const Row& row) { return KilobytesPerSecond(row); }},
    {u"VolumeName", string, 0, "the label of its disc, from udev", [](const Row& row) { return OfDisc(row, row.label); }},
    {u"VolumeSerialNumber", string, 0, "the last 8 digits of its disc's UUID, from udev",
        [](const Row& row) { return OfDisc(row, facts::SerialTextOf(facts::SerialNumberOf(row.uuid))); }},
};
// clang-format on

/// The size of the disc; 0 without one, for which the kernel gives a size of its own.
std::uint64_t DiscSize(const std::string& folder, const std::string& udevData) {
    constexpr std::uint64_t sectorSize = 512;
    constexpr std::uint64_t sectorsWithoutDisc = 0x1fffff;
    const std::uint64_t sectors = facts::ReadSystemNumber(folder + "/size").value_or(0);
    const bool isWatched = facts::UdevFact(udevData, "ID_CDROM").has_value();
    const bool hasDisc = isWatched ? facts::UdevFact(udevData, "ID_CDROM_MEDIA") == "1" : sectors != sectorsWithoutDisc;
    return hasDisc ? sectors * sectorSize : 0;
}

void FillRow(const std::string& root, Row& row) {
    const std::string folder = root + "/sys/block/" + row.info.name;
    row.vendor = facts::VendorOfDrive(folder);
    row.model = facts::ModelOfDrive(folder);
    row.serial = facts::SerialOfDrive(folder);
    row.firmware = facts::FirmwareOfDrive(folder);
    row.place = facts::PlaceOfDevice(folder + "/device");
    row.scsi = facts::ScsiAddressIn(row.place);
    row.works = facts::IsDriveWorking(folder);
    const std::string udevData = facts::ReadUdevData(facts::ReadSystemLine(folder + "/dev").value_or(""), root);
    row.size = DiscSize(folder, udevData);
    row.label = facts::PlainDiskName(facts::UdevFact(udevData, "ID_FS_LABEL_ENC").value_or(""));
    row.uuid = facts::UdevFact(udevData, "ID_FS_UUID").value_or("");
}

std::vector<facts::Mount> ReadMounts(const std::string& root) {
    return facts::ParseMountInfo(platform::ReadSystemFile(root + "/proc/self/mountinfo").value_or(std::string()));
}

std::string MountPointOf(const std::string& drive, const std::vector<facts::Mount>& mounts, const std::string& root) {
    const auto isOfDrive = [&](const facts::Mount& mount) { return facts::BlockDeviceOf(mount, root) == drive; };
    const auto found = std::ranges::find_if(mounts, isOfDrive);
    return found == mounts.end() ? std::string() : found->mountPoint;
}

constexpr ClassInfo classes[] = {
    {u"Win32_CDROMDrive", u"CIM_CDROMDrive", properties,
     [](const Gathering& gathering) { return GatherCdDrives(gathering, {}); }, u"DeviceID", "drives for CDs and DVDs"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherCdDrives(const Gathering& gathering, const std::string& root) {
    const std::optional<std::vector<std::string>> drives = facts::ListCdDrives(root);
    if (!drives) return FailedFile(root + "/sys/block", "CD drives", gathering);
    const std::string text = platform::ReadSystemFile(root + "/proc/sys/dev/cdrom/info").value_or(std::string());
    const std::vector<facts::CdDriveInfo> infos = facts::ParseCdromInfo(text);
    std::vector<facts::Mount> mounts;
    if (gathering.asksFor(Need::mountPoint)) mounts = facts::DisksAmong(ReadMounts(root));
    const std::u16string host = gathering.asksFor(Need::host) ? facts::HostName() : std::u16string();
    for (const std::string& name : *drives) {
        Row row;
        const auto info = std::ranges::find(infos, name, &facts::CdDriveInfo::name);
        row.hasInfo = info != infos.end();
        if (row.hasInfo) row.info = *info;
        row.info.name = name;
        row.host = host;
        row.mountPoint = MountPointOf(name, mounts, root);
        FillRow(root, row);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

}  // namespace kv::wql
