#include "facts/storage/disk_partitions.h"

#include <algorithm>
#include <filesystem>
#include <fmt/format.h>

#include "facts/hardware/devices.h"
#include "facts/storage/block_devices.h"
#include "facts/storage/drive_files.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view gpt = "gpt";
constexpr std::string_view dos = "dos";
constexpr std::string_view firmwarePartition = "c12a7328-f81f-11d2-ba4b-00a0c93ec93b";

struct TypeName {
    std::string_view type;
    std::string_view name;
};

constexpr TypeName gptTypes[] = {
    {firmwarePartition, "System"},
    {"ebd0a0a2-b9e5-4433-87c0-68b6b72699c7", "Basic Data"},
    {"e3c9e316-0b5c-4db8-817d-f92df00215ae", "Microsoft Reserved"},
    {"de94bba4-06d1-4d40-a16a-bfd50179d6ac", "Windows Recovery"},
    {"21686148-6449-6e6f-744e-656564454649", "BIOS Boot"},
    {"bc13c2ff-59e6-4262-a352-b275fd6f7172", "Linux Boot"},
    {"0fc63daf-8483-4772-8e79-3d69d8477de4", "Linux Filesystem"},
    {"4f68bce3-e8cd-4db1-96e7-fbcaf984b709", "Linux Root"},
    {"b921b045-1df0-41c3-af44-4c6f280d3fae", "Linux Root"},
    {"933ac7e1-2eb4-4f13-b844-0e14e2aef915", "Linux Home"},
    {"0657fd6d-a4ab-43c4-84e5-0933c84b4f4f", "Linux Swap"},
    {"e6d6d379-f507-44c2-a23c-238f2a3df928", "Linux LVM"},
    {"a19d880f-05fc-4d3b-a006-743f0f84911e", "Linux RAID"},
    {"ca7d7ccb-63ed-4c53-861c-1742536059cc", "Linux LUKS"},
};

constexpr TypeName dosTypes[] = {
    {"0x1", "12-bit FAT"},
    {"0x4", "16-bit FAT"},
    {"0x5", "Extended Partition"},
    {"0x6", "MS-DOS V4 Huge"},
    {"0x7", "Installable File System"},
    {"0xb", "Win95 FAT32"},
    {"0xc", "Win95 w/Extended Int 13"},
    {"0xe", "Win95 w/Extended Int 13"},
    {"0xf", "Extended w/Extended Int 13"},
    {"0x42", "Logical Disk Manager"},
    {"0x63", "UNIX"},
    {"0x82", "Linux Swap"},
    {"0x83", "Linux"},
    {"0x85", "Linux Extended"},
    {"0x8e", "Linux LVM"},
    {"0xef", "EFI System"},
    {"0xfd", "Linux RAID"},
};

template <std::size_t count>
std::optional<std::string> NameOfType(const TypeName (&types)[count], std::string_view type) {
    const auto* found = std::ranges::find(types, type, &TypeName::type);
    return found == std::end(types) ? std::nullopt : std::optional<std::string>(found->name);
}

struct Numbered {
    std::uint64_t number = 0;  // the kernel's, from 1
    std::string name;
};

/// The partitions in a disk's folder, which are named after the disk. failure: why the folder, or the rest of it,
/// cannot be read. That is not the case for a disk that has just been taken out: it has no partitions.
std::vector<Numbered> NumberedPartitions(const std::string& folder, const std::string& disk, std::error_code& failure) {
    std::vector<Numbered> found;
    for (fs::directory_iterator at(folder, failure), end; !failure && at != end; at.increment(failure)) {
        std::string name = at->path().filename().string();
        if (!name.starts_with(disk)) continue;
        const std::optional<std::uint64_t> number = ReadSystemNumber(at->path().string() + "/partition");
        if (number) found.push_back({*number, std::move(name)});
    }
    if (failure == std::errc::no_such_file_or_directory) failure.clear();
    std::ranges::sort(found, {}, &Numbered::number);
    return found;
}

std::error_code AddPartitions(std::vector<Partition>& partitions, const std::string& disk, std::uint32_t diskIndex,
                              const std::string& root) {
    constexpr std::uint64_t sectorSize = 512;  // the unit of these files on every disk
    const std::string folder = root + "/sys/block/" + disk;
    std::uint32_t index = 0;
    std::error_code failure;
    for (Numbered& numbered : NumberedPartitions(folder, disk, failure)) {
        Partition& partition = partitions.emplace_back();
        partition.folder = folder + '/' + numbered.name;
        partition.name = std::move(numbered.name);
        partition.disk = disk;
        partition.diskIndex = diskIndex;
        partition.index = index++;
        partition.start = ReadSystemNumber(partition.folder + "/start").value_or(0) * sectorSize;
        partition.size = ReadSystemNumber(partition.folder + "/size").value_or(0) * sectorSize;
    }
    return failure;
}

}  // namespace

std::optional<std::vector<Partition>> ListPartitions(const std::function<void(std::string)>& notice,
                                                     const std::string& root) {
    const std::optional<std::vector<std::string>> disks = ListPhysicalDisks(root);
    if (!disks) return std::nullopt;
    std::vector<Partition> partitions;
    std::uint32_t diskIndex = 0;
    for (const std::string& disk : *disks) {
        const std::error_code failure = AddPartitions(partitions, disk, diskIndex++, root);
        if (failure) notice(fmt::format("partitions of {} are missing: {}", disk, failure.message()));
    }
    return partitions;
}

std::optional<std::size_t> CountPartitions(const std::string& disk, const std::string& root) {
    std::error_code failure;
    const std::size_t count = NumberedPartitions(root + "/sys/block/" + disk, disk, failure).size();
    return failure ? std::nullopt : std::optional(count);
}

std::optional<bool> PartitionEntry::isBootable() const {
    constexpr std::uint64_t activeMark = 0x80;
    constexpr std::uint64_t bootedByBios = 4;
    if (scheme == dos) return (flags & activeMark) != 0;
    if (scheme == gpt) return type == firmwarePartition || (flags & bootedByBios) != 0;
    return std::nullopt;
}

std::optional<bool> PartitionEntry::isPrimary() const {
    constexpr std::string_view extended[] = {"0x5", "0xf", "0x85"};
    constexpr std::uint64_t lastPrimary = 4;
    if (scheme == gpt) return true;
    if (scheme != dos) return std::nullopt;
    return number <= lastPrimary && std::ranges::find(extended, type) == std::end(extended);
}

std::string PartitionEntry::typeName() const {
    constexpr const char* unknown = "Unknown";
    if (scheme == gpt) return "GPT: " + NameOfType(gptTypes, type).value_or(unknown);
    return (scheme == dos ? NameOfType(dosTypes, type) : std::nullopt).value_or(unknown);
}

PartitionEntry ParsePartitionEntry(std::string_view udevData) {
    PartitionEntry entry;
    entry.scheme = UdevFact(udevData, "ID_PART_ENTRY_SCHEME").value_or("");
    entry.type = UdevFact(udevData, "ID_PART_ENTRY_TYPE").value_or("");
    entry.flags = HexNumberOf(UdevFact(udevData, "ID_PART_ENTRY_FLAGS").value_or("")).value_or(0);
    entry.number = NumberOf(UdevFact(udevData, "ID_PART_ENTRY_NUMBER").value_or("")).value_or(0);
    return entry;
}

std::optional<std::uint32_t> ParseDiskSignature(std::string_view udevData) {
    if (UdevFact(udevData, "ID_PART_TABLE_TYPE") != dos) return std::nullopt;
    const std::optional<std::uint64_t> signature = HexNumberOf(UdevFact(udevData, "ID_PART_TABLE_UUID").value_or(""));
    return signature ? std::optional(static_cast<std::uint32_t>(*signature)) : std::nullopt;
}

}  // namespace kv::facts
