// Win32_LogicalDisk and Win32_Volume: the mounted disks. The mount point takes the place of Windows' drive letter.
//
// Size and Capacity are those of the whole file system; FreeSpace is what ordinary users may use. The superuser's
// reserve is neither free nor used by files.
#include <algorithm>
#include <array>
#include <map>

#include "facts/host_names.h"
#include "facts/system_text.h"
#include "facts/volume_facts.h"
#include "wql/class_tree.h"
#include "wql/classes/extended_table.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t { space = 1, kind = 2, label = 4, serial = 8, host = 16 };
};

struct Row {
    facts::DiskSpace disk;
    facts::DriveType kind = facts::DriveType::fixed;
    std::optional<std::string> label;  // empty if it has no label, null if that is not known
    std::optional<std::uint32_t> serial;
    bool holdsBootFolder = false;
    std::u16string host;

    const facts::Mount& mount() const { return disk.mount; }
};

template <class Number>
std::optional<std::uint64_t> SpaceIn(const Row& row, Number number) {
    if (!row.disk.space) return std::nullopt;
    return std::invoke(number, *row.disk.space);
}

std::optional<std::uint64_t> BlocksIn(const Row& row) {
    const std::optional<facts::FileSystemSpace>& space = row.disk.space;
    if (!space || space->blockSize == 0) return std::nullopt;
    return space->size / space->blockSize;
}

std::u16string_view DescriptionOf(facts::DriveType kind) {
    switch (kind) {
        case facts::DriveType::removable:
            return u"Removable Disk";
        case facts::DriveType::network:
            return u"Network Connection";
        case facts::DriveType::compactDisc:
            return u"CD-ROM Disc";
        case facts::DriveType::memory:
            return u"RAM Disk";
        default:
            return u"Local Fixed Disk";
    }
}

/// The kind of medium by its number in Windows.
std::uint32_t MediaTypeOf(facts::DriveType kind) {
    constexpr std::uint32_t unknown = 0;
    constexpr std::uint32_t removable = 11;
    constexpr std::uint32_t fixed = 12;
    if (kind == facts::DriveType::fixed) return fixed;
    return kind == facts::DriveType::removable || kind == facts::DriveType::compactDisc ? removable : unknown;
}

bool CompressesFiles(const Row& row) {
    constexpr std::string_view kinds[] = {"bcachefs", "btrfs", "f2fs", "ntfs", "ntfs3"};
    return std::find(std::begin(kinds), std::end(kinds), row.mount().fileSystem) != std::end(kinds);
}

bool IsCompressedWhole(const Row& row) {
    return row.mount().fileSystem == "squashfs" || row.mount().fileSystem == "cramfs";
}

constexpr auto mountPointIn = [](const Row& row) { return row.mount().mountPoint; };
constexpr auto accessIn = [](const Row& row) { return row.mount().isReadOnly ? 1 : 3; };
constexpr auto blockSizeIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::blockSize); };
constexpr auto blocksIn = [](const Row& row) { return BlocksIn(row); };
constexpr auto sizeIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::size); };
constexpr auto freeIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::available); };
constexpr auto longestNameIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::maxNameLength); };
constexpr auto kindIn = [](const Row& row) { return static_cast<std::uint32_t>(row.kind); };
constexpr auto fileSystemIn = [](const Row& row) { return row.mount().fileSystem; };
constexpr auto labelIn = [](const Row& row) { return row.label; };
constexpr auto hostIn = [](const Row& row) { return row.host; };

// clang-format off
/// The properties that both classes have alike.
constexpr auto sharedProperties = std::to_array<PropertyInfo>({
    {u"Access", uint16, 0, "1 mounted read-only, 3 for reading and writing", accessIn},
    {u"Availability", uint16},
    {u"BlockSize", uint64, Need::space, "bytes, f_frsize of statvfs", blockSizeIn},
    {u"Caption", string, 0, "the mount point", mountPointIn},
    {u"Compressed", boolean, 0, "TRUE for images that are compressed as a whole",
        [](const Row& row) { return IsCompressedWhole(row); }},
    {u"ConfigManagerErrorCode", uint32},
    {u"ConfigManagerUserConfig", boolean},
    {u"Description", string, Need::kind, "DriveType in words", [](const Row& row) { return DescriptionOf(row.kind); }},
    {u"DeviceID", string, 0, "the mount point", mountPointIn},
    {u"DriveType", uint32, Need::kind, "2 removable, 3 fixed, 4 network or the host of this virtual machine, 5 read-only by nature, 6 memory",
        kindIn},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ErrorMethodology", string},
    {u"FileSystem", string, 0, "such as ext4", fileSystemIn},
    {u"FreeSpace", uint64, Need::space, "bytes that ordinary users may use, f_bavail of statvfs", freeIn},
    {u"InstallDate", datetime},
    {u"LastErrorCode", uint32},
    {u"Name", string, 0, "the mount point", mountPointIn},
    {u"PNPDeviceID", string},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"Purpose", string},
    {u"QuotasIncomplete", boolean},
    {u"QuotasRebuilding", boolean},
    {u"Status", string, 0, "always OK, because it is mounted", [](const Row&) { return u"OK"; }},
    {u"StatusInfo", uint16},
    {u"SupportsDiskQuotas", boolean},
    {u"SupportsFileBasedCompression", boolean, 0, "whether the file system can compress single files",
        [](const Row& row) { return CompressesFiles(row); }},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", hostIn},
});

constexpr auto logicalDiskProperties = Extend(sharedProperties, {
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_LogicalDisk"; }},
    {u"MaximumComponentLength", uint32, Need::space, "bytes of a file's name, f_namemax of statvfs", longestNameIn},
    {u"MediaType", uint32, Need::kind, "12 fixed, 11 removable or read-only by nature, 0 other",
        [](const Row& row) { return MediaTypeOf(row.kind); }},
    {u"NumberOfBlocks", uint64, Need::space, "Size in blocks of BlockSize", blocksIn},
    {u"ProviderName", string, Need::kind, "what is mounted, such as server:/path; only for network drives",
        [](const Row& row) { return row.kind == facts::DriveType::network ? CimValue(row.mount().source) : CimValue(); }},
    {u"QuotasDisabled", boolean},
    {u"Size", uint64, Need::space, "bytes, including the superuser's reserve, f_blocks of statvfs", sizeIn},
    {u"VolumeDirty", boolean},
    {u"VolumeName", string, Need::label, "the label, from /dev/disk/by-label; empty if it has none", labelIn},
    {u"VolumeSerialNumber", string, Need::serial, "the last 8 digits of the UUID, from /dev/disk/by-uuid",
        [](const Row& row) { return facts::SerialTextOf(row.serial); }},
});

constexpr auto volumeProperties = Extend(sharedProperties, {
    {u"Automount", boolean},
    {u"BootVolume", boolean, 0, "whether it is the root, where the operating system is",
        [](const Row& row) { return row.mount().mountPoint == "/"; }},
    {u"Capacity", uint64, Need::space, "bytes, including the superuser's reserve, f_blocks of statvfs", sizeIn},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_Volume"; }},
    {u"DirtyBitSet", boolean},
    {u"DriveLetter", string, 0, "the mount point", mountPointIn},
    {u"IndexingEnabled", boolean},
    {u"Label", string, Need::label, "from /dev/disk/by-label; empty if it has none", labelIn},
    {u"MaximumFileNameLength", uint32, Need::space, "bytes, f_namemax of statvfs", longestNameIn},
    {u"NumberOfBlocks", uint64, Need::space, "Capacity in blocks of BlockSize", blocksIn},
    {u"PageFilePresent", boolean},
    {u"QuotasEnabled", boolean},
    {u"SerialNumber", uint32, Need::serial, "the last 32 bits of the UUID, from /dev/disk/by-uuid",
        [](const Row& row) { return row.serial; }},
    {u"SystemVolume", boolean, 0, "whether it holds /boot, from which the kernel is loaded",
        [](const Row& row) { return row.holdsBootFolder; }},
});
// clang-format on

/// Whether WHERE lets a property have a value, as it does if it does not restrict the property.
template <class Value>
bool Allows(const Gathering& gathering, std::u16string_view property, const Value& value,
            bool (*matches)(const CimValue&, const Value&)) {
    const std::vector<CimValue>* values = gathering.valuesOf(property);
    return values == nullptr ||
           std::any_of(values->begin(), values->end(), [&](const CimValue& wanted) { return matches(wanted, value); });
}

bool IsText(const CimValue& wanted, const std::u16string& value) {
    const auto* text = std::get_if<std::u16string>(&wanted.held);
    return text == nullptr || CompareNames(*text, value) == 0;
}

bool IsNumber(const CimValue& wanted, const std::int64_t& value) {
    const auto* number = std::get_if<std::int64_t>(&wanted.held);
    return number == nullptr || *number == value;
}

/// What is known about a mount without asking its file system.
struct MountFacts {
    std::string blockDevice;
    facts::DriveType kind = facts::DriveType::fixed;
};

MountFacts ReadMountFacts(const Gathering& gathering, const facts::Mount& mount) {
    MountFacts facts;
    if (gathering.asksFor(Need::kind | Need::label | Need::serial)) facts.blockDevice = facts::BlockDeviceOf(mount);
    if (gathering.asksFor(Need::kind)) facts.kind = facts::DriveTypeOf(mount, facts.blockDevice);
    return facts;
}

bool CanMatch(const Gathering& gathering, const facts::Mount& mount) {
    constexpr std::u16string_view names[] = {u"Caption", u"DeviceID", u"DriveLetter", u"Name"};
    const std::u16string mountPoint = platform::WideFromUtf8(mount.mountPoint);
    const bool hasName = std::all_of(std::begin(names), std::end(names), [&](std::u16string_view property) {
        return Allows(gathering, property, mountPoint, IsText);
    });
    return hasName && Allows(gathering, u"FileSystem", platform::WideFromUtf8(mount.fileSystem), IsText);
}

/// The disks that one query looked at, and facts about those that it wants.
struct Selection {
    std::vector<facts::Mount> all;
    std::map<int, MountFacts> factsOf;  // the wanted disks, by the mount's id
};

/// Whether a disk can match, by what is known without asking its file system, so that a mount that does not answer
/// costs no time in a query for others.
bool IsWanted(const Gathering& gathering, const facts::Mount& mount, Selection& selection) {
    selection.all.push_back(mount);
    if (!CanMatch(gathering, mount)) return false;
    const MountFacts& facts = selection.factsOf[mount.id] = ReadMountFacts(gathering, mount);
    return Allows(gathering, u"DriveType", static_cast<std::int64_t>(facts.kind), IsNumber);
}

/// What the rows of one query share.
struct Names {
    std::u16string host;
    std::optional<facts::NamesByDevice> labels;
    std::optional<facts::NamesByDevice> uuids;
};

Names ReadNames(const Gathering& gathering) {
    Names names;
    if (gathering.asksFor(Need::host)) names.host = facts::HostName();
    if (gathering.asksFor(Need::label)) names.labels = facts::ReadDiskNames("by-label");
    if (gathering.asksFor(Need::serial)) names.uuids = facts::ReadDiskNames("by-uuid");
    return names;
}

/// A device's name of one kind; empty if it has no such name, absent if that is not known.
std::optional<std::string> DiskName(const std::string& blockDevice, const std::optional<facts::NamesByDevice>& names) {
    if (!names || blockDevice.empty()) return std::nullopt;
    const auto found = names->find(blockDevice);
    return found != names->end() ? found->second : std::string();
}

void FillRow(const MountFacts& facts, const Names& names, Row& row) {
    row.host = names.host;
    row.kind = facts.kind;
    row.label = DiskName(facts.blockDevice, names.labels);
    row.serial = facts::SerialNumberOf(DiskName(facts.blockDevice, names.uuids).value_or(std::string()));
}

WmiStatus GatherDisks(const Gathering& gathering) {
    const Names names = ReadNames(gathering);
    Selection selection;
    const auto isWanted = [&](const facts::Mount& mount) { return IsWanted(gathering, mount, selection); };
    std::vector<facts::DiskSpace> disks = facts::ReadDisks(gathering.asksFor(Need::space), gathering.notice, isWanted);
    if (disks.empty() && !platform::ReadSystemFile("/proc/self/mountinfo")) return wmi_status::providerFailure;
    const facts::Mount* bootDisk = facts::DiskHolding("/boot", selection.all);
    for (facts::DiskSpace& disk : disks) {
        Row row;
        row.disk = std::move(disk);
        row.holdsBootFolder = bootDisk != nullptr && bootDisk->id == row.mount().id;
        FillRow(selection.factsOf[row.mount().id], names, row);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_LogicalDisk", u"CIM_LogicalDisk", logicalDiskProperties, GatherDisks, u"DeviceID"},
    {u"Win32_Volume", u"CIM_StorageVolume", volumeProperties, GatherDisks, u"DeviceID"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
