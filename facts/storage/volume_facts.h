// What a mounted disk is to a user of Windows: its kind of drive, its label and its serial number.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "facts/storage/mounts.h"

namespace kv::facts {

/// Kinds of drives by their numbers in Windows.
enum class DriveType : std::uint32_t { removable = 2, fixed = 3, network = 4, compactDisc = 5, memory = 6 };

/// The kernel's name for the block device that holds a file system, such as "sda1" or "dm-0"; empty when there is no
/// such device. root: in place of that of this computer.
std::string BlockDeviceOf(const Mount& mount, const std::string& root = {});

/// The kind of drive, from the mount and its block device; the file system is not asked. A file system that is
/// read-only by nature, such as a mounted image, is a compact disc: a fixed disk that is always full would alarm those
/// who watch it.
DriveType DriveTypeOf(const Mount& mount, const std::string& blockDevice);

/// Which disks are space of this computer that no other disk in the list has too, in the order of the list. Not so:
/// network drives, memory, what is read-only by nature; images, which are files on another disk; what programs show of
/// other file systems; a device, or a pool of zfs, that came before; the layers of a container's root, when another
/// disk is as large and has as many files. blockDevices: of each disk.
std::vector<bool> HaveOwnSpace(const std::vector<DiskSpace>& disks, const std::vector<std::string>& blockDevices);

/// Whether the kernel has met errors in a file system that only a check will mend. Only ext4 tells; false for others.
bool NeedsCheck(const std::string& blockDevice, const std::string& root = {});

/// Names of one kind, such as labels, by the kernel's names for the block devices that have them.
using NamesByDevice = std::map<std::string, std::string>;

/// The names of a kind that is a folder below /dev/disk, such as "by-label", with escapes undone. Absent when the
/// system does not have /dev/disk; empty when it has no names of that kind.
std::optional<NamesByDevice> ReadDiskNames(const std::string& kind);

/// The name of a link below /dev/disk with its escapes, such as "\x20" for a blank, undone.
std::string PlainDiskName(std::string_view name);

/// The last 32 bits of a file system's UUID, which Windows shows for its own file systems: "ABCD-1234" for FAT, 16
/// digits for NTFS. Absent when the text has fewer than eight hexadecimal digits.
std::optional<std::uint32_t> SerialNumberOf(std::string_view uuid);

/// Such a number as Windows shows it, in eight hexadecimal digits; absent if the number is.
std::optional<std::string> SerialTextOf(std::optional<std::uint32_t> serial);

/// The disk whose file system holds a path; null when it is not among the disks. It points into the disks.
const Mount* DiskHolding(std::string_view path, const std::vector<Mount>& disks);

}  // namespace kv::facts
