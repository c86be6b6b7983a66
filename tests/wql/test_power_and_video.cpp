// Batteries and video controllers: trees of files as the kernel shows them, and lspci's names.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/utsname.h>

#include "facts/hardware/devices.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/shell.h"
#include "wql/classes/hardware/batteries.h"
#include "wql/classes/hardware/video_controllers.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;
using testing::ElementsAre;
using testing::HasSubstr;
namespace fs = std::filesystem;

struct WmiFrozenTree : FrozenFiles {
    /// files: lines of path=content, below a folder.
    void WriteAll(const fs::path& below, std::string_view files) const {
        for (std::string_view line; TakeLine(files, line);) {
            const std::size_t equals = line.find('=');
            Write(work / below / line.substr(0, equals), std::string(line.substr(equals + 1)) + "\n");
        }
    }

    void Link(const fs::path& name, const fs::path& target) const {
        fs::create_directories((work / name).parent_path());
        fs::create_directory_symlink(work / target, work / name);
    }

    /// Expects no objects without a folder, and a failure when a file is in its place.
    template <auto gather>
    static void ExpectAbsentOrUnreadable(const char16_t* className, const fs::path& place) {
        const Gathered absent = Over<gather>(className, "DeviceID");
        EXPECT_EQ(std::pair(absent.status, absent.objects.size()), std::pair(wmi_status::ok, std::size_t{0}));
        Write(place, "not a folder");
        const Gathered unreadable = Over<gather>(className, "DeviceID");
        EXPECT_EQ(unreadable.status, wmi_status::providerFailure);
        EXPECT_THAT(unreadable.notices, ElementsAre(HasSubstr("Not a directory")));
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
        WriteAll("sys/devices/pci/0000:00:02.0",
                 "class=0x030000\nvendor=0x8086\ndevice=0x5917\nboot_vga=1\ngraphics/fb0/bits_per_pixel=32\n");
        WriteAll("sys/devices/pci/0000:01:00.0",
                 "class=0x030200\nvendor=0x1002\ndevice=0xffff\nmem_info_vram_total=8589934592\n");
        WriteAll("sys/devices/pci/0000:02:00.0", "class=0x020000\nvendor=0x8086\ndevice=0x100e\n");
        for (const char* name : {"0000:00:02.0", "0000:01:00.0", "0000:02:00.0"})
            Link(fs::path("sys/bus/pci/devices") / name, fs::path("sys/devices/pci") / name);
        Link("sys/class/drm/card1/device", "sys/devices/pci/0000:00:02.0");
        WriteAll("sys/class/drm", "card1-DP-1/enabled=disabled\ncard1-HDMI-A-1/enabled=enabled\nversion=drm 1.1.0\n");
        Write(work / "sys/class/drm/card1-HDMI-A-1/modes", "1920x1080i\n1280x720\n");
        Link("sys/devices/pci/0000:00:02.0/driver", "sys/bus/pci/drivers/i915");
        WriteAll("sys/devices/platform/gpu.0", "uevent=\n");
        Link("sys/class/drm/card0/device", "sys/devices/platform/gpu.0");
        Link("sys/devices/platform/gpu.0/driver", "sys/bus/platform/drivers/vc4");
        WriteAll("sys/module/vc4", "version=1.2.3\n");
        WriteAll("sys/bus/platform/drivers/vc4", "bind=\n");
        Link("sys/bus/platform/drivers/vc4/module", "sys/module/vc4");
        WriteAll("sys/devices/platform/vkms", "uevent=\n");
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

TEST_F(WmiVideo, NamesAreThoseOfLspci) {
    if (RunShell("command -v lspci").exitCode != 0) GTEST_SKIP() << "lspci is not installed";
    const std::string list = ReadPciIds();
    for (const auto& [vendor, product] :
         {std::pair{0x8086, 0x5917}, {0x10DE, 0x1F82}, {0x1002, 0x73BF}, {0x1AF4, 0x1050}}) {
        constexpr const char* zeros = " 00 00 00 00 00 00 00 00 00 00 00 00";
        const std::string dump = fmt::format(
            "00:02.0 a device\n00: {:02x} {:02x} {:02x} {:02x}{}\n10: 00 00 00 00{}\n20: 00 00 00 00{}\n"
            "30: 00 00 00 00{}\n",
            vendor & 0xFF, vendor >> 8, product & 0xFF, product >> 8, zeros, zeros, zeros, zeros);
        Write(work / "dump", dump);
        const DeviceNames names =
            NamesInPciIds(list, static_cast<std::uint16_t>(vendor), static_cast<std::uint16_t>(product));
        EXPECT_EQ(fmt::format("Vendor:\t{}\nDevice:\t{}", names.vendor, names.product),
                  RunShell("lspci -vmm -F " + (work / "dump").string() + " | grep -E '^(Vendor|Device):'").output);
    }
}

}  // namespace
}  // namespace kv::test
