#include "wql/classes/hardware/video_controllers.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/utsname.h>

#include "facts/hardware/devices.h"
#include "facts/hardware/video_cards.h"
#include "facts/network/host_names.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t { names = 1, host = 2, release = 4 };
};

struct Row {
    facts::VideoCard card;
    std::size_t number = 0;  // from 1
    facts::DeviceNames names;
    std::u16string host;
    std::string release;  // of the kernel
};

/// Maker and product, else the driver, else the numbers.
std::string NameOf(const Row& row) {
    const facts::DeviceNames& names = row.names;
    if (!names.vendor.empty() && !names.product.empty()) return names.vendor + ' ' + names.product;
    if (!row.card.driver.empty()) return row.card.driver;
    if (!row.card.vendor || !row.card.product) return row.card.name;
    return fmt::format("{:04x}:{:04x}", *row.card.vendor, *row.card.product);
}

/// Whether the kernel can show anything on it.
bool Works(const Row& row) { return !row.card.driver.empty() || row.card.isFirmwares; }

/// A driver that comes with the kernel has its version.
std::optional<std::string> DriverVersionOf(const Row& row) {
    if (row.card.driver.empty()) return std::nullopt;
    return row.card.moduleVersion.empty() ? row.release : row.card.moduleVersion;
}

std::optional<std::uint64_t> MemoryOf(const Row& row) {
    constexpr std::uint64_t most = 0xFFF00000;  // as Windows tells of all larger ones
    return row.card.memory ? std::optional(std::min(*row.card.memory, most)) : std::nullopt;
}

std::optional<std::uint64_t> ColorsOf(const Row& row) {
    constexpr std::uint64_t mostBits = 63;
    const std::optional<std::uint64_t> bits = row.card.bitsPerPixel;
    return bits && *bits <= mostBits ? std::optional(std::uint64_t{1} << *bits) : std::nullopt;
}

std::optional<std::uint32_t> WidthOf(const Row& row) {
    return row.card.mode ? std::optional(row.card.mode->width) : std::nullopt;
}

std::optional<std::uint32_t> HeightOf(const Row& row) {
    return row.card.mode ? std::optional(row.card.mode->height) : std::nullopt;
}

std::optional<std::uint16_t> ScanModeOf(const Row& row) {
    constexpr std::uint16_t interlaced = 3;
    constexpr std::uint16_t progressive = 4;
    if (!row.card.mode) return std::nullopt;
    return row.card.mode->isInterlaced ? interlaced : progressive;
}

std::optional<std::string> ModeDescriptionOf(const Row& row) {
    const std::optional<std::uint64_t> colors = ColorsOf(row);
    if (!row.card.mode || !colors) return std::nullopt;
    return fmt::format("{} x {} x {} colors", row.card.mode->width, row.card.mode->height, *colors);
}

std::uint16_t ArchitectureOf(const Row& row) {
    constexpr std::uint32_t vgaClass = 0x030000;
    constexpr std::uint32_t kindMask = 0xFFFF00;
    constexpr std::uint16_t other = 1;
    constexpr std::uint16_t vga = 5;
    return (row.card.pciClass & kindMask) == vgaClass ? vga : other;
}

/// 0 while a display is on: the console draws its characters itself.
CimValue CharacterCount(const Row& row) { return row.card.mode ? CimValue(0) : CimValue(); }

constexpr auto nameIn = [](const Row& row) { return NameOf(row); };
constexpr auto charactersIn = [](const Row& row) { return CharacterCount(row); };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"AcceleratorCapabilities", ArrayOf(uint16)},
    {u"AdapterCompatibility", string, Need::names, "the maker, from pci.ids", [](const Row& row) { return facts::KnownText(row.names.vendor); }},
    {u"AdapterDACType", string},
    {u"AdapterRAM", uint32, 0, "bytes of its own, if its driver tells; at most 4293918720, as on Windows", [](const Row& row) { return MemoryOf(row); }},
    {u"Availability", uint16, 0, "3 it can show something, 8 it has no driver", [](const Row& row) { return Works(row) ? 3 : 8; }},
    {u"CapabilityDescriptions", ArrayOf(string)},
    {u"Caption", string, Need::names, "as Name", nameIn},
    {u"ColorTableEntries", uint32},
    {u"ConfigManagerErrorCode", uint32, 0, "0; 28 without a driver, unless the firmware set it up", [](const Row& row) { return Works(row) ? 0 : 28; }},
    {u"ConfigManagerUserConfig", boolean, 0, "always FALSE: nobody sets up its resources", [](const Row&) { return false; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_VideoController"; }},
    {u"CurrentBitsPerPixel", uint32, 0, "bits, of the console", [](const Row& row) { return row.card.bitsPerPixel; }},
    {u"CurrentHorizontalResolution", uint32, 0, "pixels, the mode that its first display that is on prefers", [](const Row& row) { return WidthOf(row); }},
    {u"CurrentNumberOfColors", uint64, 0, "by CurrentBitsPerPixel", [](const Row& row) { return ColorsOf(row); }},
    {u"CurrentNumberOfColumns", uint32, 0, "0: no mode of characters; unknown while no display is on", charactersIn},
    {u"CurrentNumberOfRows", uint32, 0, "as CurrentNumberOfColumns", charactersIn},
    {u"CurrentRefreshRate", uint32},
    {u"CurrentScanMode", uint16, 0, "3 interlaced, 4 not", [](const Row& row) { return ScanModeOf(row); }},
    {u"CurrentVerticalResolution", uint32, 0, "as CurrentHorizontalResolution", [](const Row& row) { return HeightOf(row); }},
    {u"Description", string, Need::names, "as Name", nameIn},
    {u"DeviceID", string, 0, "VideoController1 and so on, in the order of the bus", [](const Row& row) { return fmt::format("VideoController{}", row.number); }},
    {u"DeviceSpecificPens", uint32},
    {u"DitherType", uint32},
    {u"DriverDate", datetime},
    {u"DriverVersion", string, Need::release, "of the driver's module, else of the kernel that it comes with", [](const Row& row) { return DriverVersionOf(row); }},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ICMIntent", uint32},
    {u"ICMMethod", uint32},
    {u"InfFilename", string},
    {u"InfSection", string},
    {u"InstallDate", datetime},
    {u"InstalledDisplayDrivers", string, 0, "the driver, such as i915", [](const Row& row) { return facts::KnownText(row.card.driver); }},
    {u"LastErrorCode", uint32},
    {u"MaxMemorySupported", uint32},
    {u"MaxNumberControlled", uint32},
    {u"MaxRefreshRate", uint32},
    {u"MinRefreshRate", uint32},
    {u"Monochrome", boolean, 0, "always FALSE", [](const Row&) { return false; }},
    {u"Name", string, Need::names, "maker and product by pci.ids, else the driver, else the numbers on the bus", nameIn},
    {u"NumberOfColorPlanes", uint16},
    {u"NumberOfVideoPages", uint32},
    {u"PNPDeviceID", string, 0, "the device's path below /sys/devices", [](const Row& row) { return facts::KnownText(facts::PlaceOfDevice(row.card.folder)); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"ProtocolSupported", uint16},
    {u"ReservedSystemPaletteEntries", uint32},
    {u"SpecificationVersion", uint32},
    {u"Status", string, 0, "OK, or Error as ConfigManagerErrorCode", [](const Row& row) { return Works(row) ? u"OK" : u"Error"; }},
    {u"StatusInfo", uint16},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"SystemPaletteEntries", uint32},
    {u"TimeOfLastReset", datetime},
    {u"VideoArchitecture", uint16, 0, "5 VGA, 1 other", [](const Row& row) { return ArchitectureOf(row); }},
    {u"VideoMemoryType", uint16, 0, "2: unknown", [](const Row&) { return 2; }},
    {u"VideoMode", uint16},
    {u"VideoModeDescription", string, 0, "resolution and colors in words", [](const Row& row) { return ModeDescriptionOf(row); }},
    {u"VideoProcessor", string, Need::names, "the product, from pci.ids", [](const Row& row) { return facts::KnownText(row.names.product); }},
};
// clang-format on

facts::DeviceNames NamesOf(const facts::VideoCard& card, std::string_view pciIds) {
    if (!card.vendor || !card.product) return {};
    facts::DeviceNames names = facts::NamesInPciIds(pciIds, *card.vendor, *card.product);
    if (!names.product.empty()) return names;
    return facts::NamesInUdev(platform::ReadSystemFile("/run/udev/data/+pci:" + card.name).value_or(std::string()));
}

std::string KernelRelease() {
    utsname names{};
    return uname(&names) == 0 ? names.release : "";
}

WmiStatus GatherOfThisComputer(const Gathering& gathering) {
    return GatherVideoControllers(gathering, {.root = "/sys", .readPciIds = facts::ReadPciIds});
}

constexpr ClassInfo classes[] = {
    {u"Win32_VideoController", u"CIM_PCVideoController", properties, GatherOfThisComputer, u"DeviceID",
     "graphics cards"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherVideoControllers(const Gathering& gathering, const VideoSources& sources) {
    facts::VideoCards found = facts::ReadVideoCards(sources.root);
    const bool needsNames = gathering.asksFor(Need::names) && !found.cards.empty();
    const std::string pciIds = needsNames ? sources.readPciIds() : "";
    Row row;
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    if (gathering.asksFor(Need::release)) row.release = KernelRelease();
    for (facts::VideoCard& card : found.cards) {
        ++row.number;
        row.card = std::move(card);
        row.names = needsNames ? NamesOf(row.card, pciIds) : facts::DeviceNames();
        if (!gathering.row(&row)) break;
    }
    if (!found.failure) return wmi_status::ok;
    gathering.notice(fmt::format("Reading the video cards below {} failed: {}", sources.root, found.failure.message()));
    return wmi_status::providerFailure;
}

}  // namespace kv::wql
