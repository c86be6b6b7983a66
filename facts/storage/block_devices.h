// Block devices, from /proc/diskstats and /sys/block.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// One line of /proc/diskstats, counted since the system's start. A sector is 512 bytes on every device.
struct DiskCounters {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::string name;  // such as "sda" or "sda1", as in /sys
    std::uint64_t reads = 0;
    std::uint64_t sectorsRead = 0;
    std::uint64_t readMilliseconds = 0;
    std::uint64_t writes = 0;
    std::uint64_t sectorsWritten = 0;
    std::uint64_t writeMilliseconds = 0;
    std::uint64_t inFlight = 0;  // now
    std::uint64_t busyMilliseconds = 0;
    std::uint64_t queueMilliseconds = 0;  // the sum of the operations' times
};

/// Malformed lines are left out.
std::vector<DiskCounters> ParseDiskStats(std::string_view text);

/// Names of the disks that are hardware (real or a virtual machine's), by length and then by letters, so that sdb comes
/// before sdaa. Partitions, loop devices, memory disks, devices made of others and drives of other media (CDs,
/// floppies) are left out. Absent when /sys/block, below the root if one is given, cannot be read.
std::optional<std::vector<std::string>> ListPhysicalDisks(const std::string& root = {});

/// Names of the drives for CDs and DVDs, in the same order; absent as above.
std::optional<std::vector<std::string>> ListCdDrives(const std::string& root = {});

/// A device, such as "dm-0", and those that it is made of at any depth, such as "md0" and "sda1"; each once. A
/// partition of a device that is made of others is made of these.
std::vector<std::string> DevicesUnder(const std::string& device, const std::string& root = {});

/// Whether a block device, such as "sda1", or one that it is made of, is connected by USB.
bool IsOnUsb(const std::string& device);

/// The path of a device by its name in /sys, where '!' stands for a slash: "/dev/cciss/c0d0" for "cciss!c0d0".
std::string PathOfBlockDevice(std::string name);

/// The name in /sys of the device at a path in /dev that is not a link.
std::string NameOfBlockDevice(std::string_view path);

}  // namespace kv::facts
