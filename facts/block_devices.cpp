#include "facts/block_devices.h"

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
    std::sort(names.begin(), names.end());
    return names;
}

/// maxDepth: of devices made of others, so that broken links do not lead in circles.
bool IsOnUsb(const std::string& device, int maxDepth) {
    std::error_code failure;
    const fs::path folder = fs::canonical("/sys/class/block/" + device, failure);
    if (failure) return false;
    if (folder.string().find("/usb") != std::string::npos) return true;
    for (fs::directory_iterator at(folder / "slaves", failure), end; !failure && at != end; at.increment(failure)) {
        if (maxDepth > 0 && IsOnUsb(at->path().filename().string(), maxDepth - 1)) return true;
    }
    return false;
}

}  // namespace

std::vector<DiskCounters> ParseDiskStats(std::string_view text) {
    std::vector<DiskCounters> disks;
    for (std::string_view line; TakeLine(text, line);) {
        DiskCounters disk;
        const std::optional<std::uint64_t> major = NumberOf(TakeField(line));
        const std::optional<std::uint64_t> minor = NumberOf(TakeField(line));
        disk.name = TakeField(line);
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

bool IsOnUsb(const std::string& device) {
    constexpr int maxDepth = 8;  // an encrypted volume of a RAID of partitions has four
    return IsOnUsb(device, maxDepth);
}

}  // namespace kv::facts
