// The tables of the System Management BIOS (DMTF DSP0134), as the kernel hands them over in
// /sys/firmware/dmi/tables/DMI. They are readable for the superuser only, and absent on many virtual machines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// One structure: its formatted part, header included, and its strings.
struct SmbiosStructure {
    std::uint8_t type = 0;
    std::uint16_t handle = 0;
    std::string_view formatted;  // in the table's bytes
    std::vector<std::string_view> strings;

    /// A number at an offset of the formatted part; 0 where the part ends before it.
    std::uint8_t byteAt(std::size_t offset) const;
    std::uint16_t wordAt(std::size_t offset) const;
    std::uint32_t doubleWordAt(std::size_t offset) const;

    /// The string whose number stands at an offset, without blanks at its ends; absent when there is no such string,
    /// or it is empty.
    std::optional<std::string> stringAt(std::size_t offset) const;
};

/// All whole structures of a table, in its order, up to the one that marks its end; stops at the first that is
/// malformed. The result refers to the bytes.
std::vector<SmbiosStructure> ParseSmbios(std::string_view table);

/// The first structure of a type; an empty one when there is none.
SmbiosStructure FirstOfType(const std::vector<SmbiosStructure>& structures, std::uint8_t type);

/// Absent for 0, which means unknown in many numbers of a structure.
std::optional<std::uint32_t> KnownNumber(std::uint32_t number);

/// This computer's table; empty when there is none, or it may not be read.
std::string ReadSmbiosTable();

/// A text of the tables that the kernel hands out by itself, such as "sys_vendor"; absent when there is no such text,
/// or it may not be read.
std::optional<std::string> ReadDmi(std::string_view name);

/// A text of the device tree, which other computers have instead of the tables, such as "model"; of several the first.
std::optional<std::string> ReadDeviceTree(std::string_view name);

}  // namespace kv::facts
