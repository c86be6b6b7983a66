// The classes that the firmware's tables (SMBIOS) feed: tables as bytes, which dmidecode reads, too.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "facts/software/distribution.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/shell.h"
#include "tests/support/linux/smbios_bytes.h"
#include "tests/support/test_folder.h"
#include "wql/classes/hardware/enclosure_and_boards.h"
#include "wql/classes/hardware/firmware_classes.h"
#include "wql/classes/hardware/physical_memory.h"
#include "wql/classes/system/computer_system.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;
using testing::ElementsAre;
using testing::HasSubstr;

// clang-format off
std::string Bytes() {
    const auto structure = SmbiosStructureBytes;
    return structure(0, 0x18, {{0x04, 1, 1}, {0x05, 1, 2}, {0x0A, 8, 0x100'0000'0890}}, {"vendor", "1.5.0"}) +
           structure(2, 0x0F, {{0x04, 1, 1}, {0x05, 1, 2}, {0x06, 1, 3}, {0x07, 1, 4}, {0x09, 1, 0x09}, {0x0D, 1, 0x0A}},
                     {"Maker", "0X8DXD", "A00", "B-1"}) +
           structure(2, 0x08, {{0x04, 1, 1}}, {"Maker of the riser"}) +
           structure(3, 0x1C,
                     {{0x04, 1, 1}, {0x05, 1, 0x97}, {0x06, 1, 2}, {0x07, 1, 3}, {0x08, 1, 4}, {0x09, 1, 3}, {0x0C, 1, 3},
                      {0x11, 1, 2}, {0x12, 1, 2}, {0x13, 1, 2}, {0x14, 1, 3}, {0x1B, 1, 5}},
                     {"Maker", "V2", "C-1", "Asset 7", "SKU-9"}) +
           structure(11, 5, {{0x04, 1, 2}}, {"one", "two"}) +
           structure(12, 5, {{0x04, 1, 1}}, {"NVRAM_CLR: Clear user settable NVRAM areas"}) +
           structure(13, 0x16, {{0x04, 1, 2}, {0x15, 1, 2}}, {"en|US|iso8859-1", "fr|FR|iso8859-1"}) +
           structure(16, 0x17, {{0x04, 1, 3}, {0x05, 1, 3}, {0x06, 1, 6}, {0x07, 4, 0x4000000}, {0x0D, 2, 4}}, {}) +
           structure(16, 0x17, {{0x04, 1, 0xA1}, {0x05, 1, 4}, {0x06, 1, 3}, {0x07, 4, 0x80000000}, {0x0D, 2, 2},
                                {0x0F, 8, 0x60000000000}}, {}) +
           structure(17, 0x5C,
               {{0x08, 2, 72}, {0x0A, 2, 64}, {0x0C, 2, 0x7FFF}, {0x0E, 1, 9}, {0x10, 1, 1}, {0x11, 1, 2},
                {0x12, 1, 0x22}, {0x13, 2, 0x2080}, {0x15, 2, 0xFFFF}, {0x17, 1, 3}, {0x18, 1, 4}, {0x1A, 1, 5},
                {0x1B, 1, 2}, {0x1C, 4, 0x8000}, {0x20, 2, 4800}, {0x22, 2, 1100}, {0x26, 2, 1100}, {0x54, 4, 70000}},
               {"DIMM_A1", "Bank 0", "Maker", "00AB", "PART-1  "}) +
           structure(17, 0x22, {{0x10, 1, 1}}, {"empty socket"}) +
           structure(17, 0x15, {{0x0A, 2, 0xFFFF}, {0x0C, 2, 0x8200}, {0x0E, 1, 3}, {0x12, 1, 3}, {0x10, 1, 9}}, {}) +
           structure(17, 0x28, {{0x0C, 2, 4096}, {0x0E, 1, 0x0F}, {0x12, 1, 0x14}, {0x15, 2, 667}}, {}) +
           structure(17, 0x1B, {{0x0C, 2, 0xFFFF}, {0x0E, 1, 0x20}, {0x12, 1, 0x1A}}, {}) +
           structure(23, 0x0D, {{0x04, 1, 0x2B}, {0x05, 2, 3}, {0x07, 2, 0xFFFF}}, {}) +
           structure(24, 5, {{0x04, 1, 0x9C}}, {}) +
           structure(32, 0x0B, {}, {}) + structure(127, 4, {}, {});
}

SmbiosTable Table() { return {Bytes(), {}}; }
SmbiosTable ForbiddenTable() { return {{}, std::make_error_code(std::errc::permission_denied)}; }

/// What everybody may read.
std::optional<std::string> Texts(std::string_view name) {
    return AssignedValue("bios_version=1.5.0\nbios_release=1.5\nchassis_vendor=Maker\nchassis_type=30\n"
                         "chassis_asset_tag=Asset 7\nboard_name=0X8DXD\n", name);
}
std::optional<std::string> NoTexts(std::string_view) { return std::nullopt; }

constexpr const char* enclosure = "Tag Manufacturer SerialNumber SMBIOSAssetTag Version SKU ChassisTypes LockPresent "
                                  "SecurityStatus NumberOfPowerCords Height";
constexpr const char* board = "Tag Manufacturer Product Version SerialNumber HostingBoard RequiresDaughterBoard Removable "
                              "Replaceable HotSwappable PoweredOn Status ConfigOptions";
constexpr const char* memory = "Tag Capacity DeviceLocator BankLabel Manufacturer SerialNumber PartNumber FormFactor "
    "MemoryType SMBIOSMemoryType TypeDetail Speed ConfiguredClockSpeed ConfiguredVoltage MaxVoltage DataWidth TotalWidth "
    "Attributes";
constexpr const char* memoryArray = "Tag Location Use MemoryErrorCorrection MemoryDevices MaxCapacity MaxCapacityEx";
constexpr const char* system = "ResetCapability ResetCount ResetLimit BootOptionOnLimit BootOptionOnWatchDog BootStatus "
    "OEMStringArray PowerOnPasswordStatus KeyboardPasswordStatus AdminPasswordStatus FrontPanelResetStatus "
    "ChassisBootupState ChassisSKUNumber PauseAfterReset PowerState AutomaticManagedPagefile InfraredSupported";
constexpr const char* bios = "SMBIOSBIOSVersion BIOSVersion SystemBiosMajorVersion SystemBiosMinorVersion "
    "EmbeddedControllerMajorVersion BiosCharacteristics CurrentLanguage InstallableLanguages ListOfLanguages PrimaryBIOS "
    "SoftwareElementState TargetOperatingSystem Status";

TEST(WmiFirmware, TellsOfTheComputersParts) {
    EXPECT_THAT(GatheredTexts(u"Win32_SystemEnclosure", enclosure, [](const Gathering& to) { return GatherEnclosures(to, Table(), NoTexts); }),
        ElementsAre("System Enclosure 0|Maker|C-1|Asset 7|V2|SKU-9|[23]|true|3|2|3.5|"));
    EXPECT_THAT(GatheredTexts(u"Win32_BaseBoard", board, [](const Gathering& to) { return GatherBaseBoards(to, Table(), NoTexts); }),
        ElementsAre("Base Board|Maker|0X8DXD|A00|B-1|true|false|false|true|false|true|OK|[NVRAM_CLR: Clear user settable NVRAM areas]|",
                    "Base Board 1|Maker of the riser|NULL|NULL|NULL|false|false|false|false|false|true|OK|NULL|"));
    EXPECT_THAT(GatheredTexts(u"Win32_PhysicalMemory", memory, [](const Gathering& to) { return GatherMemoryDevices(to, Table()); }),
        ElementsAre("Physical Memory 0|34359738368|DIMM_A1|Bank 0|Maker|00AB|PART-1|8|0|34|8320|70000|4800|1100|0|64|72|2|",
                    "Physical Memory 1|524288|NULL|NULL|NULL|NULL|NULL|7|2|3|0|0|0|0|0|NULL|NULL|0|",
                    "Physical Memory 2|4294967296|NULL|NULL|NULL|NULL|NULL|24|22|20|0|667|0|0|0|NULL|NULL|0|",
                    "Physical Memory 3|NULL|NULL|NULL|NULL|NULL|NULL|1|26|26|0|0|0|0|0|NULL|NULL|0|"));
    EXPECT_THAT(GatheredTexts(u"Win32_PhysicalMemoryArray", memoryArray, [](const Gathering& to) { return GatherMemoryArrays(to, Table()); }),
        ElementsAre("Physical Memory Array 0|3|3|6|4|67108864|67108864|",
                    "Physical Memory Array 1|12|4|3|2|0|6442450944|"));
    EXPECT_THAT(GatheredTexts(u"Win32_ComputerSystem", system, [](const Gathering& to) { return GatherComputerSystem(to, Table()); }),
        ElementsAre("4|3|-1|1|1|[0]|[one, two]|2|1|3|0|3|SKU-9|-1|1|false|false|"));
    EXPECT_THAT(GatheredTexts(u"Win32_BIOS", bios, [](const Gathering& to) { return GatherBios(to, Table(), Texts); }),
        ElementsAre("1.5.0|[1.5.0]|1|5|255|[4, 7, 11]|fr|FR|iso8859-1|2|[en|US|iso8859-1, fr|FR|iso8859-1]|true|3|0|OK|"));
}

TEST(WmiFirmware, SaysWhatTheAgentMayNotRead) {
    constexpr platform::WmiStatus denied = wmi_status::accessDenied;
    const struct {
        const char16_t* className;
        const char* properties;
        GatherRoutine gather;
        platform::WmiStatus status;
        std::vector<std::string> objects;
    } rows[] = {
        {u"Win32_PhysicalMemory", "Tag", [](const Gathering& to) { return GatherMemoryDevices(to, ForbiddenTable()); }, denied, {}},
        {u"Win32_PhysicalMemoryArray", "Tag", [](const Gathering& to) { return GatherMemoryArrays(to, ForbiddenTable()); }, denied, {}},
        {u"Win32_SystemEnclosure", enclosure, [](const Gathering& to) { return GatherEnclosures(to, ForbiddenTable(), Texts); }, 0,
         {"System Enclosure 0|Maker|NULL|Asset 7|NULL|NULL|[30]|NULL|2|NULL|NULL|"}},
        {u"Win32_SystemEnclosure", "Tag", [](const Gathering& to) { return GatherEnclosures(to, ForbiddenTable(), NoTexts); }, denied, {}},
        {u"Win32_BaseBoard", board, [](const Gathering& to) { return GatherBaseBoards(to, ForbiddenTable(), Texts); }, 0,
         {"Base Board|NULL|0X8DXD|NULL|NULL|NULL|NULL|NULL|NULL|NULL|true|OK|NULL|"}},
        {u"Win32_ComputerSystem", "ResetCount AdminPasswordStatus", [](const Gathering& to) { return GatherComputerSystem(to, ForbiddenTable()); }, 0,
         {"-1|3|"}},
        {u"Win32_BIOS", "CurrentLanguage Version", [](const Gathering& to) { return GatherBios(to, ForbiddenTable(), Texts); }, 0,
         {"NULL|1.5.0|"}},
    };
    for (const auto& row : rows) {
        const std::string name = platform::Utf8FromWide(row.className);
        const Gathered gathered = GatherTexts(row.className, row.properties, row.gather);
        EXPECT_EQ(gathered.status, row.status) << name;
        EXPECT_EQ(gathered.objects, row.objects) << name;
        EXPECT_THAT(gathered.notices, ElementsAre(HasSubstr("Permission denied"))) << name;
    }
    const SmbiosTable damaged{SmbiosStructureBytes(17, 0x15, {{0x0C, 2, 512}}, {}) + std::string("\x11\x02\0\0", 4) + Bytes(), {}};
    static const SmbiosTable* broken = nullptr;  // for gathers, which are plain routines
    broken = &damaged;
    const Gathered part = GatherTexts(u"Win32_PhysicalMemory", "Tag", [](const Gathering& to) { return GatherMemoryDevices(to, *broken); });
    EXPECT_THAT(part.objects, ElementsAre("Physical Memory 0|"));
    EXPECT_EQ(part.status, 0U);
    const Gathered nothing = GatherTexts(u"Win32_PhysicalMemoryArray", "Tag", [](const Gathering& to) { return GatherMemoryArrays(to, *broken); });
    EXPECT_EQ(nothing.status, wmi_status::providerFailure);
    const Gathered rest = GatherTexts(u"Win32_BaseBoard", "Tag", [](const Gathering& to) { return GatherBaseBoards(to, *broken, Texts); });
    for (const Gathered* of : {&part, &nothing, &rest}) EXPECT_THAT(of->notices, ElementsAre(HasSubstr("malformed")));
    const Gathered absent = GatherTexts(u"Win32_BaseBoard", "Tag",
                                        [](const Gathering& to) { return GatherBaseBoards(to, {}, NoTexts); });
    EXPECT_EQ(std::tuple(absent.status, absent.objects.size(), absent.notices.size()), std::tuple(0U, 0U, 0U));
}
// clang-format on

using SmbiosFile = TestFolder;

TEST_F(SmbiosFile, IsReadOrMissingOrUnreadable) {
    Write(folder / "DMI", Bytes());
    EXPECT_EQ(ReadSmbiosTable(folder / "DMI").bytes, Bytes());
    EXPECT_FALSE(ReadSmbiosTable(folder / "none").failure);
    EXPECT_EQ(ReadSmbiosTable(folder).failure, std::errc::is_a_directory);
}

/// A dump as dmidecode writes and reads it: the entry point of SMBIOS 3, then the table.
std::string Dump() {
    std::string entry("_SM3_\0\x18\x03\x04\0\x01\0", 12);
    const std::uint32_t length = static_cast<std::uint32_t>(Bytes().size());
    for (int at = 0; at < 4; ++at) entry += static_cast<char>(length >> (8 * at));
    constexpr char tableAt = 32;
    entry += tableAt;
    entry.resize(24);
    char sum = 0;
    for (const char byte : entry) sum = static_cast<char>(sum + byte);
    entry[5] = static_cast<char>(-sum);
    entry.resize(tableAt);
    return entry + Bytes();
}

TEST_F(SmbiosFile, MeansToDmidecodeWhatTheClassesTell) {
    if (RunShell("command -v dmidecode").exitCode != 0) GTEST_SKIP() << "dmidecode is not installed";
    Write(folder / "dump", Dump());
    const std::tuple<int, const char*, const char*> rows[] = {
        // of each structure of a type the words for a field
        {3, "Type", "Rack Mount Chassis"},
        {3, "Lock", "Present"},
        {3, "Security Status", "None"},
        {3, "Height", "2 U"},
        {3, "SKU Number", "SKU-9"},
        {2, "Product Name", "0X8DXD\nNot Specified"},
        {16, "Location", "System Board Or Motherboard\nPC-98/C24 Add-on Card"},
        {16, "Use", "System Memory\nVideo Memory"},
        {16, "Error Correction Type", "Multi-bit ECC\nNone"},
        {16, "Maximum Capacity", "64 GB\n6 TB"},
        {16, "Number Of Devices", "4\n2"},
        {17, "Size", "32 GB\nNo Module Installed\n512 kB\n4 GB\nUnknown"},
        {17, "Form Factor", "DIMM\n<OUT OF SPEC>\nSIMM\nFB-DIMM\n<OUT OF SPEC>"},
        {17, "Type", "DDR5\n<OUT OF SPEC>\nDRAM\nDDR2 FB-DIMM\nDDR4"},
        {17, "Speed", "70000 MT/s\n667 MT/s\nUnknown"},
        {23, "Boot Option On Limit", "Operating System"},
        {24, "Power-On Password Status", "Not Implemented"},
        {24, "Administrator Password Status", "Unknown"},
    };
    for (const auto& [type, field, words] : rows) {
        const ShellOutcome outcome = RunShell(
            fmt::format("dmidecode --from-dump {}/dump -qt {} | sed -n 's/^\t{}: //p'", folder.string(), type, field));
        EXPECT_EQ(outcome.output, words) << type << " " << field;
    }
}

}  // namespace
}  // namespace kv::test
