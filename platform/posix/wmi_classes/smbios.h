// The tables of the System Management BIOS (DMTF DSP0134), as the kernel hands them over in
// /sys/firmware/dmi/tables/DMI. They are readable for the superuser only, and absent on many virtual machines.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace platform::wmi {

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

    /// The string whose number stands at an offset, without blanks at its ends; empty where there is none.
    std::string stringAt(std::size_t offset) const;
};

/// All whole structures of a table, in its order; stops at the first that is malformed. The result refers to the bytes.
std::vector<SmbiosStructure> ParseSmbios(std::string_view table);

}  // namespace platform::wmi
