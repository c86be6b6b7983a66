// Win32_LogicalDisk and Win32_Volume: the mounted disks. Win32_MappedLogicalDisk: those of them that are on other
// computers. The mount point takes the place of Windows' drive letter.
//
// FreeSpace is what ordinary users may use; Size and Capacity are that and what is used, so that the used share is that
// of df. The superuser's reserve is neither.
#include <algorithm>
#include <array>
#include <map>

#include "facts/network/host_names.h"
#include "facts/storage/swaps.h"
#include "facts/storage/volume_facts.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/extended_table.h"
#include "wql/classes/failures.h"
#include "wql/classes/storage/storage_sources.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        space = 1,
        kind = 2,
        label = 4,
        serial = 8,
        host = 16,
        health = 32,
        start = 64,
        swaps = 128,
    };
};

struct Row {
    facts::DiskSpace disk;
    facts::DriveType kind = facts::DriveType::fixed;
    std::optional<std::string> label;  // empty if it has no label, null if that is not known
    std::optional<std::uint32_t> serial;
    bool holdsBootFolder = false;
    bool needsCheck = false;
    std::optional<bool> isMountedAtStart;
    std::optional<bool> holdsSwap;
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
    return space->usableSize() / space->blockSize;
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

/// Whether this computer can limit what each user takes of a file system.
bool CanKeepQuotas(const Row& row) {
    constexpr std::string_view kinds[] = {"bcachefs", "btrfs",    "ext2",  "ext3",  "ext4", "f2fs", "gfs2", "jfs",
                                          "ocfs2",    "reiserfs", "tmpfs", "ubifs", "udf",  "xfs",  "zfs"};
    return std::find(std::begin(kinds), std::end(kinds), row.mount().fileSystem) != std::end(kinds);
}

/// Whether quotas are kept on it; absent for file systems that switch them by other means than mount options.
std::optional<bool> KeepsQuotas(const Row& row) {
    constexpr std::string_view byOtherMeans[] = {"bcachefs", "btrfs", "gfs2", "zfs"};
    const bool isKnown =
        std::find(std::begin(byOtherMeans), std::end(byOtherMeans), row.mount().fileSystem) == std::end(byOtherMeans);
    return isKnown ? std::optional(row.mount().keepsQuotas) : std::nullopt;
}

bool IsCompressedWhole(const Row& row) {
    return row.mount().fileSystem == "squashfs" || row.mount().fileSystem == "cramfs";
}

constexpr auto mountPointIn = [](const Row& row) { return row.mount().mountPoint; };
constexpr auto accessIn = [](const Row& row) { return row.mount().isReadOnly ? 1 : 3; };
constexpr auto blockSizeIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::blockSize); };
constexpr auto blocksIn = [](const Row& row) { return BlocksIn(row); };
constexpr auto sizeIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::usableSize); };
constexpr auto freeIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::available); };
constexpr auto longestNameIn = [](const Row& row) { return SpaceIn(row, &facts::FileSystemSpace::maxNameLength); };
constexpr auto kindIn = [](const Row& row) { return static_cast<std::uint32_t>(row.kind); };
constexpr auto fileSystemIn = [](const Row& row) { return row.mount().fileSystem; };
constexpr auto sourceIn = [](const Row& row) { return row.mount().source; };
constexpr auto noQuotasIn = [](const Row& row) {
    const std::optional<bool> keeps = KeepsQuotas(row);
    return keeps ? std::optional(!*keeps) : std::nullopt;
};
constexpr auto countingQuotasIn = [](const Row& row) { return KeepsQuotas(row) ? std::optional(false) : std::nullopt; };
constexpr auto serialTextIn = [](const Row& row) { return facts::SerialTextOf(row.serial); };
constexpr auto labelIn = [](const Row& row) { return row.label; };
constexpr auto hostIn = [](const Row& row) { return row.host; };
constexpr auto neverIn = [](const Row&) { return false; };

constexpr std::string_view sizeMeaning = "bytes, FreeSpace and what is used: Size minus FreeSpace is Used of df";
constexpr std::string_view blocksMeaning = "Size, or Capacity, in blocks of BlockSize";
constexpr std::string_view nameLengthMeaning = "bytes of a file's name, f_namemax of statvfs";
constexpr std::string_view serialMeaning = "the last 8 digits of the UUID, from /dev/disk/by-uuid";
constexpr std::string_view labelMeaning = "the label, from /dev/disk/by-label; empty if it has none";
constexpr std::string_view dirtyMeaning =
    "whether the kernel has met errors in it, errors_count of /sys/fs/ext4; FALSE for others";
constexpr std::string_view noQuotasMeaning =
    "whether its mount options keep no quotas; NULL for btrfs, zfs and the like";
constexpr std::string_view countingMeaning =
    "FALSE: quotas are counted before it is mounted; NULL for btrfs, zfs and the like";

// clang-format off
/// The properties that all classes have alike.
constexpr auto sharedProperties = std::to_array<PropertyInfo>({
    {u"Access", uint16, 0, "1 mounted read-only, 3 for reading and writing", accessIn},
    {u"Availability", uint16},
    {u"BlockSize", uint64, Need::space, "bytes, f_frsize of statvfs", blockSizeIn},
    {u"Caption", string, 0, "the mount point", mountPointIn},
    {u"Compressed", boolean, 0, "TRUE for images that are compressed as a whole",
        [](const Row& row) { return IsCompressedWhole(row); }},
    {u"ConfigManagerErrorCode", uint32, 0, "always 0, because it is mounted", [](const Row&) { return 0; }},
    {u"ConfigManagerUserConfig", boolean, 0, "always FALSE: Linux sets devices up itself", neverIn},
    {u"Description", string, Need::kind, "DriveType in words", [](const Row& row) { return DescriptionOf(row.kind); }},
    {u"DeviceID", string, 0, "the mount point", mountPointIn},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ErrorMethodology", string},
    {u"FileSystem", string, 0, "such as ext4", fileSystemIn},
    {u"FreeSpace", uint64, Need::space, "bytes that ordinary users may use, f_bavail of statvfs", freeIn},
    {u"InstallDate", datetime},
    {u"LastErrorCode", uint32},
    {u"Name", string, 0, "the mount point", mountPointIn},
    {u"NumberOfBlocks", uint64, Need::space, blocksMeaning, blocksIn},
    {u"PNPDeviceID", string},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"Purpose", string},
    {u"QuotasIncomplete", boolean, 0, countingMeaning, countingQuotasIn},
    {u"QuotasRebuilding", boolean, 0, countingMeaning, countingQuotasIn},
    {u"Status", string, 0, "always OK, because it is mounted", [](const Row&) { return u"OK"; }},
    {u"StatusInfo", uint16},
    {u"SupportsDiskQuotas", boolean, 0, "whether this computer can keep quotas on such a file system",
        [](const Row& row) { return CanKeepQuotas(row); }},
    {u"SupportsFileBasedCompression", boolean, 0, "whether the file system can compress single files",
        [](const Row& row) { return CompressesFiles(row); }},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", hostIn},
});

constexpr PropertyInfo driveType{u"DriveType", uint32, Need::kind,
    "2 removable, 3 fixed, 4 network or the host of this virtual machine, 5 read-only by nature, 6 memory", kindIn};

constexpr auto logicalDiskProperties = Extend(sharedProperties, {
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_LogicalDisk"; }},
    driveType,
    {u"MaximumComponentLength", uint32, Need::space, nameLengthMeaning, longestNameIn},
    {u"MediaType", uint32, Need::kind, "12 fixed, 11 removable or read-only by nature, 0 other",
        [](const Row& row) { return MediaTypeOf(row.kind); }},
    {u"ProviderName", string, Need::kind, "what is mounted, such as server:/path; only for network drives",
        [](const Row& row) { return row.kind == facts::DriveType::network ? CimValue(sourceIn(row)) : CimValue(); }},
    {u"QuotasDisabled", boolean, 0, noQuotasMeaning, noQuotasIn},
    {u"Size", uint64, Need::space, sizeMeaning, sizeIn},
    {u"VolumeDirty", boolean, Need::health, dirtyMeaning, [](const Row& row) { return row.needsCheck; }},
    {u"VolumeName", string, Need::label, labelMeaning, labelIn},
    {u"VolumeSerialNumber", string, Need::serial, serialMeaning, serialTextIn},
});

constexpr auto mappedDiskProperties = Extend(sharedProperties, {
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_MappedLogicalDisk"; }},
    {u"MaximumComponentLength", uint32, Need::space, nameLengthMeaning, longestNameIn},
    {u"ProviderName", string, 0, "what is mounted, such as server:/path", sourceIn},
    {u"QuotasDisabled", boolean, 0, noQuotasMeaning, noQuotasIn},
    {u"SessionID", string},
    {u"Size", uint64, Need::space, sizeMeaning, sizeIn},
    {u"VolumeName", string, Need::label, labelMeaning, labelIn},
    {u"VolumeSerialNumber", string, Need::serial, serialMeaning, serialTextIn},
});

constexpr auto volumeProperties = Extend(sharedProperties, {
    {u"Automount", boolean, Need::start, "whether it is the root, or /etc/fstab mounts it at the start",
        [](const Row& row) { return row.isMountedAtStart; }},
    {u"BootVolume", boolean, 0, "whether it is the root, where the operating system is",
        [](const Row& row) { return row.mount().mountPoint == "/"; }},
    {u"Capacity", uint64, Need::space, "bytes, FreeSpace and what is used: Capacity minus FreeSpace is Used of df", sizeIn},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_Volume"; }},
    {u"DirtyBitSet", boolean, Need::health, dirtyMeaning, [](const Row& row) { return row.needsCheck; }},
    {u"DriveLetter", string, 0, "the mount point", mountPointIn},
    driveType,
    {u"IndexingEnabled", boolean, 0, "always FALSE: no file system keeps an index of what is in files", neverIn},
    {u"Label", string, Need::label, labelMeaning, labelIn},
    {u"MaximumFileNameLength", uint32, Need::space, nameLengthMeaning, longestNameIn},
    {u"PageFilePresent", boolean, Need::swaps, "whether a swap file on it is in use, from /proc/swaps",
        [](const Row& row) { return row.holdsSwap; }},
    {u"QuotasEnabled", boolean, 0, "whether its mount options keep quotas; NULL for btrfs, zfs and the like",
        [](const Row& row) { return KeepsQuotas(row); }},
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
    bool needsCheck = false;
};

MountFacts ReadMountFacts(const Gathering& gathering, const facts::Mount& mount, const std::string& root) {
    MountFacts facts;
    constexpr std::uint32_t ofBlockDevice = Need::kind | Need::label | Need::serial | Need::health;
    if (gathering.asksFor(ofBlockDevice)) facts.blockDevice = facts::BlockDeviceOf(mount, root);
    if (gathering.asksFor(Need::kind)) facts.kind = facts::DriveTypeOf(mount, facts.blockDevice);
    if (gathering.asksFor(Need::health)) facts.needsCheck = facts::NeedsCheck(facts.blockDevice, root);
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
bool IsWanted(const Gathering& gathering, const std::string& root, const facts::Mount& mount, Selection& selection) {
    selection.all.push_back(mount);
    if (!CanMatch(gathering, mount)) return false;
    const MountFacts& facts = selection.factsOf[mount.id] = ReadMountFacts(gathering, mount, root);
    return Allows(gathering, u"DriveType", static_cast<std::int64_t>(facts.kind), IsNumber);
}

/// What the rows of one query share.
struct Names {
    std::u16string host;
    std::optional<facts::NamesByDevice> labels;
    std::optional<facts::NamesByDevice> uuids;
    std::optional<std::vector<facts::FstabEntry>> fstab;
    std::optional<std::vector<facts::Swap>> swaps;
};

Names ReadNames(const Gathering& gathering, const std::string& root) {
    Names names;
    if (gathering.asksFor(Need::host)) names.host = facts::HostName();
    if (gathering.asksFor(Need::label)) names.labels = facts::ReadDiskNames("by-label");
    if (gathering.asksFor(Need::serial)) names.uuids = facts::ReadDiskNames("by-uuid");
    if (gathering.asksFor(Need::start)) names.fstab = facts::ReadFstab(root);
    if (gathering.asksFor(Need::swaps)) names.swaps = facts::ReadSwaps(root);
    if (gathering.asksFor(Need::start) && !names.fstab)
        gathering.notice("Automount is NULL: /etc/fstab cannot be read");
    if (gathering.asksFor(Need::swaps) && !names.swaps)
        gathering.notice("PageFilePresent is NULL: /proc/swaps cannot be read");
    return names;
}

/// A device's name of one kind; empty if it has no such name, absent if that is not known.
std::optional<std::string> DiskName(const std::string& blockDevice, const std::optional<facts::NamesByDevice>& names) {
    if (!names || blockDevice.empty()) return std::nullopt;
    const auto found = names->find(blockDevice);
    return found != names->end() ? found->second : std::string();
}

std::optional<bool> IsMountedAtStart(const facts::Mount& mount, const Names& names) {
    if (mount.mountPoint == "/") return true;
    if (!names.fstab) return std::nullopt;
    return std::ranges::any_of(*names.fstab, [&](const facts::FstabEntry& entry) {
        return entry.isAutomatic && entry.mountPoint == mount.mountPoint;
    });
}

/// all: the disks among which a swap file is looked for.
std::optional<bool> HoldsSwap(const facts::Mount& mount, const Names& names, const std::vector<facts::Mount>& all) {
    if (!names.swaps) return std::nullopt;
    return std::ranges::any_of(*names.swaps, [&](const facts::Swap& swap) {
        const facts::Mount* holder = swap.isFile ? facts::DiskHolding(swap.path, all) : nullptr;
        return holder != nullptr && holder->id == mount.id;
    });
}

void FillRow(const MountFacts& facts, const Names& names, const std::vector<facts::Mount>& all, Row& row) {
    row.host = names.host;
    row.kind = facts.kind;
    row.needsCheck = facts.needsCheck;
    row.isMountedAtStart = IsMountedAtStart(row.mount(), names);
    row.holdsSwap = HoldsSwap(row.mount(), names, all);
    row.label = DiskName(facts.blockDevice, names.labels);
    row.serial = facts::SerialNumberOf(DiskName(facts.blockDevice, names.uuids).value_or(std::string()));
}

/// isOfClass: null for all disks.
WmiStatus GatherDisksThat(const Gathering& gathering, const std::string& root, bool (*isOfClass)(const facts::Mount&)) {
    const Names names = ReadNames(gathering, root);
    Selection selection;
    const auto isWanted = [&](const facts::Mount& mount) {
        const bool isOne = IsWanted(gathering, root, mount, selection);
        return isOne && (isOfClass == nullptr || isOfClass(mount));
    };
    std::optional<std::vector<facts::DiskSpace>> disks =
        facts::ReadDisks(gathering.asksFor(Need::space), gathering.notice, isWanted, root);
    if (!disks) return FailedFile(root + "/proc/self/mountinfo", "Disks", gathering);
    const facts::Mount* bootDisk = facts::DiskHolding("/boot", selection.all);
    for (facts::DiskSpace& disk : *disks) {
        Row row;
        row.disk = std::move(disk);
        row.holdsBootFolder = bootDisk != nullptr && bootDisk->id == row.mount().id;
        FillRow(selection.factsOf[row.mount().id], names, selection.all, row);
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherDisks(const Gathering& gathering) { return GatherDisksThat(gathering, {}, nullptr); }
WmiStatus GatherMappedDisks(const Gathering& gathering) { return GatherDisksThat(gathering, {}, facts::IsOnNetwork); }

constexpr ClassInfo classes[] = {
    {u"Win32_LogicalDisk", u"CIM_LogicalDisk", logicalDiskProperties, GatherDisks, u"DeviceID",
     "mounted file systems with size and free space"},
    {u"Win32_MappedLogicalDisk", u"CIM_LogicalDisk", mappedDiskProperties, GatherMappedDisks, u"DeviceID",
     "mounted file systems of other computers"},
    {u"Win32_Volume", u"CIM_StorageVolume", volumeProperties, GatherDisks, u"DeviceID",
     "mounted file systems as volumes: capacity, free space, block size"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherLogicalDisks(const Gathering& gathering, const std::string& root) {
    return GatherDisksThat(gathering, root, nullptr);
}

}  // namespace kv::wql
