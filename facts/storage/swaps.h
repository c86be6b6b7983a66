// Where the system puts pages out of memory: the swap devices and files in use, from /proc/swaps, and those that
// /etc/fstab (fstab(5)) sets up.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// One line of /proc/swaps.
struct Swap {
    std::string path;  // such as "/dev/sda2" or "/swapfile"
    bool isFile = false;
    std::uint64_t size = 0;  // KB, without the page that describes it
    std::uint64_t used = 0;  // KB
};

/// Escapes are undone, and the mark of a deleted file is taken off. Malformed lines are left out.
std::vector<Swap> ParseSwaps(std::string_view text);

/// Of this computer, or of the files below another root. Empty on a kernel without swapping; absent when the file is
/// there and cannot be read.
std::optional<std::vector<Swap>> ReadSwaps(const std::string& root = {});

/// One line of /etc/fstab.
struct FstabEntry {
    std::string source;      // as written, such as "UUID=..." or "/dev/sda1"
    std::string mountPoint;  // without slashes at the end; "none" for swaps
    std::string fileSystem;
    bool isAutomatic = true;  // mounted at the start
};

/// Escapes are undone; comments and lines without all of the first three fields are left out.
std::vector<FstabEntry> ParseFstab(std::string_view text);

/// As ReadSwaps: empty without the file.
std::optional<std::vector<FstabEntry>> ReadFstab(const std::string& root = {});

/// The path that the kernel uses for a source: a tag such as UUID=, and links, resolved by the links in /dev. The
/// source as written if there is no such device.
std::string DevicePathOf(const std::string& source, const std::string& root = {});

/// The bytes of a block device or of a file; absent when there is neither.
std::optional<std::uint64_t> SizeOfDeviceOrFile(const std::string& path, const std::string& root = {});

}  // namespace kv::facts
