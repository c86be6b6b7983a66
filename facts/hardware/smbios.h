// The tables of the System Management BIOS (DMTF DSP0134), as the kernel gives them in /sys/firmware/dmi/tables/DMI.
// Only the superuser can read them, and many virtual machines do not have them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace kv::facts {

/// One structure: its formatted part, header included, and its strings.
struct SmbiosStructure {
    std::uint8_t type = 0;
    std::uint16_t handle = 0;
    std::string_view formatted;  // in the table's bytes
    std::vector<std::string_view> strings;

    /// The number at an offset of the formatted part; 0 if the part ends before the number does.
    std::uint8_t byteAt(std::size_t offset) const;
    std::uint16_t wordAt(std::size_t offset) const;
    std::uint32_t doubleWordAt(std::size_t offset) const;
    std::uint64_t quadWordAt(std::size_t offset) const;

    /// The string whose number is at an offset, without blanks at its ends; absent when there is no such string,
    /// or it is empty.
    std::optional<std::string> stringAt(std::size_t offset) const;
};

/// The structures of a table in its order, up to and including the one that marks its end, or up to the first that is
/// malformed. The result refers to the bytes.
std::vector<SmbiosStructure> ParseSmbios(std::string_view table);

/// Whether these are all structures of a table: false if one is malformed, which hides those behind it. Some old tables
/// lack the mark of their end.
bool IsWholeSmbios(std::string_view table);

/// The first structure of a type; an empty structure when the table does not have that type.
SmbiosStructure FirstOfType(const std::vector<SmbiosStructure>& structures, std::uint8_t type);

/// Absent for 0, by which many numbers of a structure mean unknown.
std::optional<std::uint32_t> KnownNumber(std::uint32_t number);

/// The number under which the maker of an enclosure (type 3) sells it; it follows the list of the enclosure's parts.
std::optional<std::string> ChassisStockNumberOf(const SmbiosStructure& enclosure);

/// A table as it was read.
struct SmbiosTable {
    std::string bytes;        // empty when there is no table, or it could not be read
    std::error_code failure;  // set when there is a table, and it could not be read
};

/// This computer's table, or another file in its form.
SmbiosTable ReadSmbiosTable(const std::string& path = "/sys/firmware/dmi/tables/DMI");

/// A text of the tables that the kernel gives as a separate file, such as "sys_vendor"; absent when there is no such
/// text, or it may not be read.
std::optional<std::string> ReadDmi(std::string_view name);

/// Gives a text of that kind.
using DmiTexts = std::function<std::optional<std::string>(std::string_view name)>;

/// Whether there is such a text, and this process lacks the right to read it.
bool IsForbiddenDmi(std::string_view name);

/// A text of the device tree, which other computers have instead of the tables, such as "model"; the first if there are
/// several, absent when there is none.
std::optional<std::string> ReadDeviceTree(std::string_view name);

}  // namespace kv::facts
