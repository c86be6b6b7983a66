#include "facts/storage/volume_facts.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <filesystem>
#include <fmt/format.h>
#include <set>

#include "facts/storage/block_devices.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

bool IsReadOnlyByNature(std::string_view fileSystem) {
    constexpr std::string_view kinds[] = {"cramfs", "erofs", "iso9660", "romfs", "squashfs", "udf"};
    return std::find(std::begin(kinds), std::end(kinds), fileSystem) != std::end(kinds);
}

/// Only the disk's folder has the answer; a partition's folder is inside of it.
bool IsRemovable(const std::string& blockDevice) {
    const std::string folder = "/sys/class/block/" + blockDevice;
    std::optional<std::uint64_t> removable = ReadSystemNumber(folder + "/removable");
    if (!removable) removable = ReadSystemNumber(folder + "/../removable");
    return removable.value_or(0) != 0;
}

/// What shares its free space.
std::string SpaceIdentity(const Mount& mount) {
    return mount.fileSystem == "zfs" ? "zfs " + mount.source.substr(0, mount.source.find('/')) : mount.device;
}

bool IsOwnByItself(const Mount& mount, const std::string& blockDevice) {
    const DriveType kind = DriveTypeOf(mount, blockDevice);
    const bool isView = mount.fileSystem.starts_with("fuse") && blockDevice.empty();
    return (kind == DriveType::fixed || kind == DriveType::removable) && !blockDevice.starts_with("loop") && !isView;
}

bool HasSameSpace(const DiskSpace& left, const DiskSpace& right) {
    return left.space && right.space && left.space->size == right.space->size &&
           left.space->files == right.space->files;
}

bool IsHexDigit(char letter) { return std::isxdigit(static_cast<unsigned char>(letter)) != 0; }

}  // namespace

DriveType DriveTypeOf(const Mount& mount, const std::string& blockDevice) {
    if (IsOnNetwork(mount)) return DriveType::network;
    if (mount.fileSystem == "tmpfs") return DriveType::memory;
    if (IsReadOnlyByNature(mount.fileSystem)) return DriveType::compactDisc;
    return !blockDevice.empty() && IsRemovable(blockDevice) ? DriveType::removable : DriveType::fixed;
}

std::string BlockDeviceOf(const Mount& mount, const std::string& root) {
    std::error_code failure;
    const fs::path byNumber = fs::read_symlink(root + "/sys/dev/block/" + mount.device, failure);
    if (!failure) return byNumber.filename().string();
    if (!mount.source.starts_with("/dev/")) return {};
    // A file system over several devices has no number.
    const std::string bySource = fs::canonical(root + mount.source, failure).string();
    return failure ? std::string() : NameOfBlockDevice(std::string_view(bySource).substr(root.size()));
}

std::vector<bool> HaveOwnSpace(const std::vector<DiskSpace>& disks, const std::vector<std::string>& blockDevices) {
    std::vector<bool> own(disks.size());
    std::set<std::string> seen;
    for (std::size_t at = 0; at < disks.size(); ++at) {
        const Mount& mount = disks[at].mount;
        own[at] = IsOwnByItself(mount, blockDevices[at]) && seen.insert(SpaceIdentity(mount)).second;
    }
    for (std::size_t at = 0; at < disks.size(); ++at) {
        if (disks[at].mount.fileSystem != "overlay") continue;
        for (std::size_t other = 0; other < disks.size(); ++other) {
            if (other != at && own[other] && HasSameSpace(disks[at], disks[other])) own[at] = false;
        }
    }
    return own;
}

bool NeedsCheck(const std::string& blockDevice, const std::string& root) {
    return ReadSystemNumber(root + "/sys/fs/ext4/" + blockDevice + "/errors_count").value_or(0) != 0;
}

std::optional<NamesByDevice> ReadDiskNames(const std::string& kind) {
    std::error_code failure;
    if (!fs::exists("/dev/disk", failure)) return std::nullopt;
    NamesByDevice names;
    for (fs::directory_iterator at("/dev/disk/" + kind, failure), end; !failure && at != end; at.increment(failure)) {
        std::error_code unreadable;
        const fs::path target = fs::read_symlink(at->path(), unreadable);
        if (unreadable) continue;
        const fs::path device = (at->path().parent_path() / target).lexically_normal();
        names[NameOfBlockDevice(device.string())] = PlainDiskName(at->path().filename().string());
    }
    return names;
}

std::string PlainDiskName(std::string_view name) {
    constexpr int hexadecimal = 16;
    constexpr std::size_t escapeLength = 4;
    std::string plain;
    while (!name.empty()) {
        unsigned char byte = 0;
        const std::string_view digits = name.starts_with("\\x") ? name.substr(2, 2) : std::string_view();
        const auto [end, bad] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, hexadecimal);
        const bool isEscape = bad == std::errc() && digits.size() == 2 && end == digits.data() + 2;
        plain += isEscape ? static_cast<char>(byte) : name[0];
        name.remove_prefix(isEscape ? escapeLength : 1);
    }
    return plain;
}

std::optional<std::uint32_t> SerialNumberOf(std::string_view uuid) {
    constexpr std::size_t digitsOfSerial = 8;
    std::string digits;
    std::copy_if(uuid.begin(), uuid.end(), std::back_inserter(digits), IsHexDigit);
    if (digits.size() < digitsOfSerial) return std::nullopt;
    return static_cast<std::uint32_t>(*HexNumberOf(digits.substr(digits.size() - digitsOfSerial)));
}

std::optional<std::string> SerialTextOf(std::optional<std::uint32_t> serial) {
    return serial ? std::optional(fmt::format("{:08X}", *serial)) : std::nullopt;
}

const Mount* DiskHolding(std::string_view path, const std::vector<Mount>& disks) {
    const Mount* holder = nullptr;
    for (const Mount& disk : disks) {
        const bool holds = disk.mountPoint == path || IsBelow(path, disk.mountPoint);
        if (holds && (holder == nullptr || disk.mountPoint.size() > holder->mountPoint.size())) holder = &disk;
    }
    return holder;
}

}  // namespace kv::facts
