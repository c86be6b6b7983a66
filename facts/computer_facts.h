// What the computer is, from texts of the kernel and the firmware.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// "Normal boot", or "Fail-safe boot" when the kernel's command line asked for a rescue shell.
std::u16string_view BootupStateOf(std::string_view commandLine);

/// PCSystemType of a kind of chassis, by its number in the firmware: 1 desktop, 2 mobile, 4 server, 0 anything else.
std::uint16_t SystemTypeOfChassis(std::uint64_t chassis);

/// Whether maker and model, as the firmware names them, are those of a virtual machine.
bool IsVirtualMachine(std::string_view vendor, std::string_view model);

/// A date of the firmware, such as "03/29/2023", as DMTF writes it; absent when the text is not such a date.
std::optional<std::u16string> FirmwareDate(std::string_view text);

/// Major and minor number of a text such as "5.13".
struct VersionPair {
    std::uint64_t major = 0;
    std::uint64_t minor = 0;
};

std::optional<VersionPair> VersionPairOf(std::string_view text);

/// The version of SMBIOS that an entry point, the kernel's smbios_entry_point, declares.
std::optional<VersionPair> SmbiosVersionOf(std::string_view entryPoint);

}  // namespace kv::facts
