// Partitions of the physical disks, from /sys/block, and what their partition tables say of them, from udev.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

struct Partition {
    std::string name;             // such as "sda1"
    std::string disk;             // such as "sda"
    std::uint32_t diskIndex = 0;  // of its disk among the physical disks, from 0
    std::uint32_t index = 0;      // on its disk, from 0 in the order of the kernel's numbers
    std::uint64_t start = 0;      // bytes
    std::uint64_t size = 0;       // bytes
    std::string folder;           // below /sys
};

/// In the order of disks and of their kernel's numbers; absent when /sys/block cannot be read. A disk whose folder
/// cannot be read has none here, and a notice names it.
std::optional<std::vector<Partition>> ListPartitions(const std::function<void(std::string)>& notice,
                                                     const std::string& root = {});

/// How many partitions a disk has; absent when its folder cannot be read.
std::optional<std::size_t> CountPartitions(const std::string& disk, const std::string& root = {});

/// What a partition table says of a partition. Kinds of tables are known by udev's names for them.
struct PartitionEntry {
    std::string scheme;       // "gpt", "dos" or another kind of table; empty if it is not known
    std::string type;         // a GUID in small letters, or for dos a number such as "0x83"
    std::uint64_t flags = 0;  // for dos the byte of the boot mark, for gpt the attributes
    std::uint64_t number = 0;

    /// Whether the computer's firmware looks here for what it boots; absent if the table is of another kind.
    std::optional<bool> isBootable() const;

    /// Neither a logical partition nor one that holds such; absent as above.
    std::optional<bool> isPrimary() const;

    /// In words such as "GPT: System" or "Installable File System"; "Unknown" for a type without a name here.
    std::string typeName() const;
};

/// From what udev has found out about the partition.
PartitionEntry ParsePartitionEntry(std::string_view udevData);

/// The signature in the partition table of a disk, from what udev has found out; absent for tables without one.
std::optional<std::uint32_t> ParseDiskSignature(std::string_view udevData);

}  // namespace kv::facts
