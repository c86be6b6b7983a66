// What a mounted disk is to a user of Windows: its kind of drive, its label and its serial number.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "facts/mounts.h"

namespace kv::facts {

/// Kinds of drives by their numbers in Windows.
enum class DriveType : std::uint32_t { removable = 2, fixed = 3, network = 4, compactDisc = 5, memory = 6 };

/// The kernel's name of the block device a file system lies on, such as "sda1" or "dm-0"; empty when it lies on none.
std::string BlockDeviceOf(const Mount& mount);

/// The kind, by the mount and its block device, without a question to the file system. What is read-only by its nature,
/// such as an image mounted with all its files, is a compact disc: a fixed disk that is always full would alarm those
/// who watch it.
DriveType DriveTypeOf(const Mount& mount, const std::string& blockDevice);

/// Links of a folder below /dev/disk by the block devices to which they lead: names of the one kind, such as labels.
using NamesByDevice = std::map<std::string, std::string>;

/// Escapes undone. Absent when the system keeps no such names at all.
std::optional<NamesByDevice> ReadDiskNames(const std::string& kind);

/// A link's name with its escapes, "\x20" for a blank, undone.
std::string PlainDiskName(std::string_view name);

/// The last 32 bits of a file system's UUID, as Windows has them for its own file systems: "ABCD-1234" of FAT, 16
/// digits of NTFS. Absent when the text has fewer than eight hexadecimal digits.
std::optional<std::uint32_t> SerialNumberOf(std::string_view uuid);

/// The disk whose file system holds a path; null when it is not among the disks. It points into the disks.
const Mount* DiskHolding(std::string_view path, const std::vector<Mount>& disks);

}  // namespace kv::facts
