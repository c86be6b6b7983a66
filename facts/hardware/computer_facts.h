// What kind of computer this is, from texts of the kernel and the firmware.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// "Fail-safe boot" when the kernel's command line asks for a rescue shell, else "Normal boot".
std::u16string_view BootupStateOf(std::string_view commandLine);

/// PCSystemType for the firmware's number of a kind of chassis: 1 desktop, 2 mobile, 4 server, 0 anything else.
std::uint16_t SystemTypeOfChassis(std::uint64_t chassis);

/// PCSystemTypeEx: as above, but 8 for a tablet.
std::uint16_t ExtendedSystemTypeOfChassis(std::uint64_t chassis);

/// Whether the vendor and the model, as the firmware names them, are those of a virtual machine.
bool IsVirtualMachine(std::string_view vendor, std::string_view model);

/// A firmware's date, such as "03/29/2023", in DMTF's form; absent when the text is not such a date.
std::optional<std::u16string> FirmwareDate(std::string_view text);

struct VersionPair {
    std::uint64_t major = 0;
    std::uint64_t minor = 0;
};

/// The two numbers in a text such as "5.13"; absent when the text has another form.
std::optional<VersionPair> VersionPairOf(std::string_view text);

/// The version of SMBIOS that an entry point (the kernel's smbios_entry_point) declares; absent when the bytes are not
/// an entry point.
std::optional<VersionPair> SmbiosVersionOf(std::string_view entryPoint);

}  // namespace kv::facts
