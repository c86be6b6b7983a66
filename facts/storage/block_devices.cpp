#include "facts/storage/block_devices.h"

#include <algorithm>
#include <filesystem>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// Drives of other media, flash chips, and the small partitions of a memory card that the kernel takes for disks.
bool IsOfAnotherKind(std::string_view name) {
    constexpr std::string_view otherKinds[] = {"sr", "fd", "mtdblock"};
    const auto leads = [&](std::string_view kind) { return name.starts_with(kind); };
    const bool isPartOfCard = name.starts_with("mmcblk") && (name.find("boot") != name.npos || name.ends_with("rpmb"));
    return isPartOfCard || std::any_of(std::begin(otherKinds), std::end(otherKinds), leads);
}

/// Only disks made by a hardware driver refer to a device. If several paths lead to one disk, each path is a hidden
/// disk.
bool IsPhysicalDisk(const std::string& root, const std::string& name) {
    std::error_code failure;
    const std::string folder = root + "/sys/block/" + name;
    return !IsOfAnotherKind(name) && fs::exists(folder + "/device", failure) &&
           ReadSystemNumber(folder + "/hidden").value_or(0) == 0;
}

using IsOfKind = bool (*)(const std::string& root, const std::string& name);

std::optional<std::vector<std::string>> ListDevices(const std::string& root, IsOfKind isOfKind) {
    std::vector<std::string> names;
    std::error_code failure;
    for (fs::directory_iterator at(root + "/sys/block", failure), end; !failure && at != end; at.increment(failure)) {
        std::string name = at->path().filename().string();
        if (isOfKind(root, name)) names.push_back(std::move(name));
    }
    if (failure) return std::nullopt;
    std::ranges::sort(names, {}, [](const std::string& name) { return std::pair(name.size(), name); });
    return names;
}

/// Where the links to the devices are that a device is made of. A partition does not have this folder, but the device
/// that it is a part of may.
fs::path FolderOfParts(const std::string& device, const std::string& root) {
    std::error_code failure;
    const fs::path folder = root + "/sys/class/block/" + device;
    return folder / (fs::exists(folder / "partition", failure) ? "../slaves" : "slaves");
}

bool IsItselfOnUsb(const std::string& device) {
    std::error_code failure;
    return fs::read_symlink("/sys/class/block/" + device, failure).string().find("/usb") != std::string::npos;
}

}  // namespace

std::vector<DiskCounters> ParseDiskStats(std::string_view text) {
    std::vector<DiskCounters> disks;
    for (std::string_view line; TakeLine(text, line);) {
        DiskCounters disk;
        const std::optional<std::uint64_t> major = NumberOf(TakeField(line));
        const std::optional<std::uint64_t> minor = NumberOf(TakeField(line));
        disk.name = NameOfBlockDevice(TakeField(line));
        std::uint64_t readsMerged = 0;
        std::uint64_t writesMerged = 0;
        bool isWhole = major && minor;
        for (std::uint64_t* figure : {&disk.reads, &readsMerged, &disk.sectorsRead, &disk.readMilliseconds,
                                      &disk.writes, &writesMerged, &disk.sectorsWritten, &disk.writeMilliseconds,
                                      &disk.inFlight, &disk.busyMilliseconds, &disk.queueMilliseconds}) {
            const std::optional<std::uint64_t> number = NumberOf(TakeField(line));
            isWhole = isWhole && number;
            *figure = number.value_or(0);
        }
        if (!isWhole) continue;
        disk.major = static_cast<std::uint32_t>(*major);
        disk.minor = static_cast<std::uint32_t>(*minor);
        disks.push_back(std::move(disk));
    }
    return disks;
}

std::optional<std::vector<std::string>> ListPhysicalDisks(const std::string& root) {
    return ListDevices(root, IsPhysicalDisk);
}

std::optional<std::vector<std::string>> ListCdDrives(const std::string& root) {
    return ListDevices(root, [](const std::string&, const std::string& name) { return name.starts_with("sr"); });
}

std::vector<std::string> DevicesUnder(const std::string& device, const std::string& root) {
    std::vector<std::string> devices{device};
    for (std::size_t next = 0; next < devices.size(); ++next) {
        std::error_code failure;
        const fs::path parts = FolderOfParts(devices[next], root);
        for (fs::directory_iterator at(parts, failure), end; !failure && at != end; at.increment(failure)) {
            std::string name = at->path().filename().string();
            if (std::ranges::find(devices, name) == devices.end()) devices.push_back(std::move(name));
        }
    }
    return devices;
}

bool IsOnUsb(const std::string& device) { return std::ranges::any_of(DevicesUnder(device), IsItselfOnUsb); }

std::string PathOfBlockDevice(std::string name) {
    std::ranges::replace(name, '!', '/');
    return "/dev/" + name;
}

std::string NameOfBlockDevice(std::string_view path) {
    constexpr std::string_view folder = "/dev/";
    std::string name(path.substr(path.starts_with(folder) ? folder.size() : 0));
    std::ranges::replace(name, '/', '!');
    return name;
}

}  // namespace kv::facts
