// What the firmware's tables (SMBIOS) and the kernel's files tell of hardware: tables as bytes, and trees of files.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/utsname.h>

#include "facts/hardware/devices.h"
#include "facts/software/distribution.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/smbios_bytes.h"
#include "wql/classes/hardware/batteries.h"
#include "wql/classes/hardware/enclosure_and_boards.h"
#include "wql/classes/hardware/firmware_classes.h"
#include "wql/classes/hardware/physical_memory.h"
#include "wql/classes/hardware/processor.h"
#include "wql/classes/hardware/video_controllers.h"
#include "wql/classes/system/computer_system.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

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

struct WmiFrozenTree : FrozenFiles {
    void Link(const fs::path& name, const fs::path& target) const {
        fs::create_directories((work / name).parent_path());
        fs::create_directory_symlink(work / target, work / name);
    }

    /// Expects no objects without a folder, and a failure when a file is in its place.
    template <auto gather>
    static void ExpectAbsentOrUnreadable(const char16_t* className, const fs::path& place) {
        EXPECT_EQ(Outcome(Over<gather>(className, "DeviceID")), "00000000 0");
        Write(place, "not a folder");
        EXPECT_THAT(Outcome(Over<gather>(className, "DeviceID")),
                    testing::MatchesRegex("80041004 0 .*Not a directory.*"));
    }
};

struct WmiBatteries : WmiFrozenTree {};

// clang-format off
TEST_F(WmiBatteries, TellHowLongTheyLast) {
    constexpr const char* properties = "DeviceID Name BatteryStatus EstimatedChargeRemaining EstimatedRunTime "
        "TimeToFullCharge DesignCapacity FullChargeCapacity DesignVoltage Chemistry Status TimeOnBattery";
    constexpr const char* laptop = "type=Battery\nmodel_name=DELL 7XNTR\ntechnology=Li-poly\nvoltage_min_design=11400000\n"
        "energy_full_design=50000000\nenergy_full=40000000\nenergy_now=20000000\ncapacity=51\npresent=1\n";
    const struct {
        const char* title;
        std::string battery, mains;
        std::vector<std::string> objects;
    } rows[] = {
        {"discharged at 10 W", laptop + std::string("status=Discharging\npower_now=10000000"), "type=Mains\nonline=0",
         {"BAT0|DELL 7XNTR|1|51|120|NULL|50000|40000|11400|8|OK|NULL|"}},
        {"low", laptop + std::string("status=Discharging\ncapacity_level=Low\npower_now=0"), "type=Mains\nonline=0",
         {"BAT0|DELL 7XNTR|4|51|71582788|NULL|50000|40000|11400|8|OK|NULL|"}},
        {"critical, with its own estimate", laptop + std::string("status=Discharging\ncapacity_level=Critical\n"
         "time_to_empty_now=600"), "", {"BAT0|DELL 7XNTR|5|51|10|NULL|50000|40000|11400|8|OK|NULL|"}},
        {"charged at 10 W", laptop + std::string("status=Charging\npower_now=10000000\nhealth=Overheat"),
         "type=USB\nonline=1", {"BAT0|DELL 7XNTR|6|51|71582788|120|50000|40000|11400|8|Degraded|0|"}},
        {"charged and low, in ampere-hours, a current that counts down", "type=Battery\nstatus=Charging\ncharge_now=1000000\n"
         "charge_full=4000000\ncharge_full_design=5000000\nvoltage_now=10000000\ncurrent_now=-1500000\n"
         "capacity_level=Low\ntechnology=Li-ion\nhealth=Dead", "type=Mains\nonline=1",
         {"BAT0|BAT0|8|25|71582788|120|50000|40000|NULL|6|Error|0|"}},
        {"full", "type=Battery\nscope=System\nstatus=Full\ncapacity=100", "type=Mains\nonline=1",
         {"BAT0|BAT0|3|100|71582788|NULL|NULL|NULL|NULL|2|OK|0|"}},
        {"held at a limit", "type=Battery\nstatus=Unknown\ncapacity=80", "type=Mains\nonline=1",
         {"BAT0|BAT0|2|80|71582788|NULL|NULL|NULL|NULL|2|OK|0|"}},
        {"unknown", "type=Battery\nstatus=Unknown\ncapacity=much", "", {"BAT0|BAT0|10|NULL|71582788|NULL|NULL|NULL|NULL|2|OK|0|"}},
        {"a mouse's", "type=Battery\nscope=Device\nstatus=Discharging\ncapacity=5", "type=Mains\nonline=1", {}},
        {"an empty bay", "type=Battery\npresent=0\nstatus=Unknown", "", {}},
    };
    for (const auto& row : rows) {
        for (const char* name : {"BAT0", "AC"}) fs::remove_all(work / name);
        WriteAll("BAT0", row.battery);
        if (!row.mains.empty()) WriteAll("AC", row.mains);
        EXPECT_EQ(Over<GatherBatteries>(u"Win32_Battery", properties).objects, row.objects) << row.title;
    }
}
// clang-format on

TEST_F(WmiBatteries, AreAbsentOrCannotBeRead) {
    root += "/supplies";
    ExpectAbsentOrUnreadable<GatherBatteries>(u"Win32_Battery", root);
}

struct WmiVideo : WmiFrozenTree {
    /// Three devices of the bus, one of which is not a video card, and two cards elsewhere.
    void WriteTree() const {
        WriteAll("sys/devices",
                 "pci/0000:00:02.0/class=0x030000\npci/0000:00:02.0/vendor=0x8086\npci/0000:00:02.0/device=0x5917\n"
                 "pci/0000:00:02.0/boot_vga=1\npci/0000:00:02.0/graphics/fb0/bits_per_pixel=32\n"
                 "pci/0000:01:00.0/class=0x030200\npci/0000:01:00.0/vendor=0x1002\npci/0000:01:00.0/device=0xffff\n"
                 "pci/0000:01:00.0/mem_info_vram_total=8589934592\npci/0000:02:00.0/class=0x020000\n"
                 "pci/0000:02:00.0/vendor=0x8086\npci/0000:02:00.0/device=0x100e\n"
                 "platform/gpu.0/uevent=\nplatform/vkms/uevent=\n");
        WriteAll("sys",
                 "class/drm/card1-DP-1/enabled=disabled\nclass/drm/card1-HDMI-A-1/enabled=enabled\n"
                 "class/drm/version=drm 1.1.0\nmodule/vc4/version=1.2.3\nbus/platform/drivers/vc4/bind=\n");
        Write(work / "sys/class/drm/card1-HDMI-A-1/modes", "1920x1080i\n1280x720\n");
        for (const char* name : {"0000:00:02.0", "0000:01:00.0", "0000:02:00.0"})
            Link(fs::path("sys/bus/pci/devices") / name, fs::path("sys/devices/pci") / name);
        Link("sys/class/drm/card1/device", "sys/devices/pci/0000:00:02.0");
        Link("sys/devices/pci/0000:00:02.0/driver", "sys/bus/pci/drivers/i915");
        Link("sys/class/drm/card0/device", "sys/devices/platform/gpu.0");
        Link("sys/devices/platform/gpu.0/driver", "sys/bus/platform/drivers/vc4");
        Link("sys/bus/platform/drivers/vc4/module", "sys/module/vc4");
        Link("sys/class/drm/card2/device", "sys/devices/platform/vkms");
        Link("sys/devices/platform/vkms/driver", "sys/bus/platform/drivers/vkms");
    }
};

std::string FewNames() {
    return "# comment\n1002  Maker [short]\n\tfffe  Card\n\t\tffff ffff  of a subsystem\n"
           "8086  Intel Corporation\n\t5916  Other\n\t5917  UHD Graphics 620\n\t\t8086 5917  Board\n8087  Next\n"
           "C 03  Display controller\n\tffff  not a card\n";
}

WmiStatus GatherCards(const Gathering& gathering, const std::string& root) {
    return GatherVideoControllers(gathering, {root + "/sys", FewNames});
}

TEST_F(WmiVideo, ControllersAreThoseOfTheBusAndOtherCards) {
    constexpr const char* properties =
        "DeviceID Name AdapterCompatibility VideoProcessor InstalledDisplayDrivers DriverVersion "
        "ConfigManagerErrorCode "
        "Status AdapterRAM CurrentHorizontalResolution CurrentVerticalResolution CurrentScanMode CurrentBitsPerPixel "
        "VideoModeDescription VideoArchitecture CurrentNumberOfRows PNPDeviceID";
    WriteTree();
    utsname kernel{};
    ASSERT_EQ(uname(&kernel), 0);
    EXPECT_THAT(
        Over<GatherCards>(u"Win32_VideoController", properties).objects,
        ElementsAre(
            fmt::format("VideoController1|Intel Corporation UHD Graphics 620|Intel Corporation|UHD Graphics 620|"
                        "i915|{}|0|OK|NULL|1920|1080|3|32|1920 x 1080 x 4294967296 colors|5|0|pci/0000:00:02.0|",
                        kernel.release),
            "VideoController2|1002:ffff|NULL|NULL|NULL|NULL|28|Error|-1048576|NULL|NULL|NULL|NULL|NULL|1|NULL|pci/"
            "0000:01:00.0|",
            "VideoController3|vc4|NULL|NULL|vc4|1.2.3|0|OK|NULL|NULL|NULL|NULL|NULL|NULL|1|NULL|platform/gpu.0|"));
    root += "/other";
    ExpectAbsentOrUnreadable<GatherCards>(u"Win32_VideoController", root + "/sys/class/drm");
}

TEST_F(WmiVideo, NamesAreThoseOfThePciIds) {
    const std::string list = ReadPciIds();
    if (list.empty()) GTEST_SKIP() << "pci.ids is not installed";
    const DeviceNames names = NamesInPciIds(list, 0x8086, 0x5917);
    EXPECT_EQ(names.vendor + ": " + names.product, "Intel Corporation: UHD Graphics 620");
}

// clang-format off
std::string SocketStructure(std::uint32_t status) {
    return SmbiosStructureBytes(4, 0x30,
        {{0x04, 1, 1}, {0x06, 1, 0xFE}, {0x08, 4, 0x50657}, {0x0C, 4, 0xBFEBFBFF}, {0x10, 1, 2}, {0x11, 1, 0x8A},
         {0x12, 2, 100}, {0x16, 2, 2900}, {0x18, 1, status}, {0x19, 1, 0x35}, {0x20, 1, 3}, {0x26, 2, 0xFC},
         {0x28, 2, 0x1B3}},
        {"LGA3647-0", "Firmware's name", " 0123 "});
}

TEST(WmiProcessors, AreDescribedByFirmwareAndKernel) {
    constexpr const char* intel = "processor: {}\nvendor_id\t: GenuineIntel\ncpu family\t: 6\nmodel\t\t: 85\n"
        "model name\t: Xeon Gold 6226R\nstepping\t: 7\nphysical id\t: {}\nflags\t\t: fpu vmx lm ept\n\n";
    const auto block = [](int number, int package) { return fmt::format(fmt::runtime(intel), number, package); };
    const std::string xeons = block(0, 0) + block(1, 3) + block(2, 0) + block(3, 3);
    const std::string firmware = SocketStructure(0x41) + SocketStructure(0x00) + SocketStructure(0x44);
    constexpr const char* arm = "processor\t: 0\nFeatures\t: fp asimd\nCPU implementer\t: 0x41\nCPU architecture: 8\n"
        "CPU variant\t: 0x3\nCPU part\t: 0xd0c\nCPU revision\t: 1\n\nHardware\t: BCM2835\nSerial\t\t: 10\n";
    constexpr const char* identity = "DeviceID Name Manufacturer Description Architecture AddressWidth Level Revision "
        "Stepping Version Family SocketDesignation CpuStatus VMMonitorModeExtensions";
    constexpr const char* three = "processor: 0\n\nprocessor: 1\n\nprocessor: 2\n";
    constexpr const char* places = "NumberOfCores NumberOfLogicalProcessors";
    const struct {
        const char* title;
        std::string_view cpuInfo, firmware, machine;
        std::string_view files;  // lines of number/path=content
        const char* properties;
        std::vector<std::string> objects;
    } rows[] = {
        {"x86", xeons, firmware, "x86_64", "", identity,
         {"CPU0|Xeon Gold 6226R|GenuineIntel|Intel64 Family 6 Model 85 Stepping 7|9|64|6|21767|7|Model 85, Stepping 7|435|LGA3647-0|1|true|",
          "CPU1|Xeon Gold 6226R|GenuineIntel|Intel64 Family 6 Model 85 Stepping 7|9|64|6|21767|7|Model 85, Stepping 7|435|LGA3647-0|4|true|"}},
        {"from the firmware", xeons, firmware, "", "",
         "ProcessorId SerialNumber CurrentVoltage ExtClock MaxClockSpeed UpgradeMethod Characteristics",
         {"BFEBFBFF00050657|0123|10|100|2900|53|252|", "BFEBFBFF00050657|0123|10|100|2900|53|252|"}},
        {"shared and private caches, clocks", xeons, "", "",
         "0/topology/thread_siblings_list=0,2\n2/topology/thread_siblings_list=0,2\n"
         "0/cache/index0/level=1\n0/cache/index0/size=32K\n0/cache/index1/level=3\n0/cache/index1/size=32M\n"
         "2/cache/index0/level=3\n2/cache/index0/size=32M\n2/cache/index0/shared_cpu_list=0-2\n"
         "1/cache/index0/level=2\n1/cache/index0/size=512K\n3/cache/index0/level=2\n3/cache/index0/size=512K\n"
         "0/cpufreq/cpuinfo_max_freq=3900000\n0/cpufreq/base_frequency=2900000\n1/cpufreq/cpuinfo_max_freq=3900000\n"
         "1/cpufreq/scaling_cur_freq=800000\n3/cpufreq/scaling_cur_freq=1000000\n",
         "NumberOfCores NumberOfLogicalProcessors L2CacheSize L3CacheSize MaxClockSpeed CurrentClockSpeed",
         {"1|2|NULL|32768|2900|NULL|", "2|2|1024|0|3900|900|"}},
        {"ARM", arm, "", "aarch64", "", identity,
         {"CPU0|ARM part 0xd0c|ARM|ARMv8 (64-bit) Family 8 Model D0C Revision 301|12|64|8|769|NULL|NULL|2|CPU0|1|NULL|"}},
        {"what Windows always tells", arm, "", "", "",
         "ConfigManagerErrorCode ConfigManagerUserConfig L3CacheSize L3CacheSpeed PowerManagementSupported UpgradeMethod",
         {"0|false|0|0|false|2|"}},
        {"packages", three, "", "", "0/topology/physical_package_id=7\n1/topology/physical_package_id=5\n"
         "2/topology/physical_package_id=7\n", places, {"1|1|", "2|2|"}},
        {"a shared core", three, "", "",
         "0/topology/thread_siblings_list=0-1\n1/topology/thread_siblings_list=0-1\n", places, {"2|3|"}},
    };
    static ProcessorSources sources;
    for (const auto& row : rows) {
        const CpuFiles files = [&](std::uint32_t number, std::string_view name) {
            return AssignedValue(row.files, fmt::format("{}/{}", number, name));
        };
        sources = {row.cpuInfo, row.firmware, row.machine, files, {}, {}};
        const auto gather = [](const Gathering& gathering) { return GatherProcessors(gathering, sources); };
        EXPECT_EQ(GatheredTexts(u"Win32_Processor", row.properties, gather), row.objects) << row.title;
    }
}
// clang-format on

}  // namespace
}  // namespace kv::test
