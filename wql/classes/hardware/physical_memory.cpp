#include "wql/classes/hardware/physical_memory.h"

#include <iterator>
#include <utility>

#include "wql/class_tree.h"
#include "wql/classes/hardware/firmware_table.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Row {
    facts::SmbiosStructure device;
    std::uint32_t number = 0;  // among the devices, empty sockets not counted
};

/// A width in bits; 0xFFFF means unknown.
std::optional<std::uint32_t> WidthAt(const Row& row, std::size_t offset) {
    constexpr std::uint16_t unknown = 0xFFFF;
    const std::uint16_t bits = row.device.wordAt(offset);
    return facts::KnownNumber(bits == unknown ? 0 : bits);
}

/// The bytes of a device; absent if the firmware does not know, 0 for an empty socket.
std::optional<std::uint64_t> CapacityOf(const facts::SmbiosStructure& device) {
    constexpr std::size_t sizeOffset = 0x0C;
    constexpr std::size_t extendedOffset = 0x1C;
    constexpr std::uint16_t unknown = 0xFFFF;
    constexpr std::uint16_t seeExtended = 0x7FFF;
    constexpr std::uint16_t inKilobytes = 0x8000;
    constexpr std::uint64_t kilobyte = 1024;
    const std::uint16_t size = device.wordAt(sizeOffset);
    if (size == unknown) return std::nullopt;
    if (size == seeExtended) return (device.doubleWordAt(extendedOffset) & 0x7FFFFFFF) * kilobyte * kilobyte;
    if ((size & inKilobytes) != 0) return (size - inKilobytes) * kilobyte;
    return size * kilobyte * kilobyte;
}

/// Megatransfers a second, 0 if unknown. A number that does not fit into a word is at another offset.
std::uint32_t SpeedAt(const Row& row, std::size_t offset, std::size_t extendedOffset) {
    constexpr std::uint16_t seeExtended = 0xFFFF;
    const std::uint16_t speed = row.device.wordAt(offset);
    return speed == seeExtended ? row.device.doubleWordAt(extendedOffset) & 0x7FFFFFFF : speed;
}

/// A form factor in the numbers of CIM_Chip.
std::uint16_t FormFactorOf(std::uint8_t smbios) {
    constexpr std::uint8_t numbers[] = {
        0, 1, 0, 7, 2,  1,  3,  4,   // other, unknown, SIMM, SIP, chip, DIP, ZIP
        6, 8, 9, 1, 11, 12, 13, 24,  // proprietary, DIMM, TSOP, row of chips, RIMM, SODIMM, SRIMM, FB-DIMM
    };
    return smbios < std::size(numbers) ? numbers[smbios] : 1;
}

/// A memory type in the numbers of CIM_PhysicalMemory, which end at DDR4; 0 is unknown.
std::uint16_t MemoryTypeOf(std::uint8_t smbios) {
    constexpr std::uint8_t numbers[] = {
        0,  1,  0,  2,  6,  7,  8,
        9,  10, 11, 12, 13, 14, 15,  // other, unknown, DRAM, EDRAM, VRAM, SRAM, RAM, ..., CDRAM
        16, 17, 18, 19, 20, 21, 22,
        0,  0,  0,  24, 25, 26,  // 3DRAM, SDRAM, SGRAM, RDRAM, DDR, DDR2, ..., DDR3, FBD2, DDR4
    };
    return smbios < std::size(numbers) ? numbers[smbios] : 0;
}

// clang-format off
constexpr PropertyInfo deviceProperties[] = {
    {u"Attributes", uint32, 0, "ranks, 0 unknown", [](const Row& row) { return row.device.byteAt(0x1B) & 0x0F; }},
    {u"BankLabel", string, 0, "bank locator", [](const Row& row) { return row.device.stringAt(0x11); }},
    {u"Capacity", uint64, 0, "bytes", [](const Row& row) { return CapacityOf(row.device); }},
    {u"Caption", string, 0, "the same for every device", [](const Row&) { return u"Physical Memory"; }},
    {u"ConfiguredClockSpeed", uint32, 0, "MT/s, 0 unknown", [](const Row& row) { return SpeedAt(row, 0x20, 0x58); }},
    {u"ConfiguredVoltage", uint32, 0, "mV, 0 unknown", [](const Row& row) { return row.device.wordAt(0x26); }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_PhysicalMemory"; }},
    {u"DataWidth", uint16, 0, "bits", [](const Row& row) { return WidthAt(row, 0x0A); }},
    {u"Description", string, 0, "the same for every device", [](const Row&) { return u"Physical Memory"; }},
    {u"DeviceLocator", string, 0, "the socket's label", [](const Row& row) { return row.device.stringAt(0x10); }},
    {u"FormFactor", uint16, 0, "8 DIMM, 12 SODIMM, 24 FB-DIMM, ...", [](const Row& row) { return FormFactorOf(row.device.byteAt(0x0E)); }},
    {u"HotSwappable", boolean},
    {u"InstallDate", datetime},
    {u"InterleaveDataDepth", uint16},
    {u"InterleavePosition", uint32},
    {u"Manufacturer", string, 0, "of the device", [](const Row& row) { return row.device.stringAt(0x17); }},
    {u"MaxVoltage", uint32, 0, "mV, 0 unknown", [](const Row& row) { return row.device.wordAt(0x24); }},
    {u"MemoryType", uint16, 0, "24 DDR3, 26 DDR4, ...", [](const Row& row) { return MemoryTypeOf(row.device.byteAt(0x12)); }},
    {u"MinVoltage", uint32, 0, "mV, 0 unknown", [](const Row& row) { return row.device.wordAt(0x22); }},
    {u"Model", string},
    {u"Name", string, 0, "the same for every device", [](const Row&) { return u"Physical Memory"; }},
    {u"OtherIdentifyingInfo", string},
    {u"PartNumber", string, 0, "of the manufacturer", [](const Row& row) { return row.device.stringAt(0x1A); }},
    {u"PositionInRow", uint32},
    {u"PoweredOn", boolean},
    {u"Removable", boolean},
    {u"Replaceable", boolean},
    {u"SerialNumber", string, 0, "of the device", [](const Row& row) { return row.device.stringAt(0x18); }},
    {u"SKU", string},
    {u"SMBIOSMemoryType", uint32, 0, "26 DDR4, 34 DDR5, ...", [](const Row& row) { return row.device.byteAt(0x12); }},
    {u"Speed", uint32, 0, "MT/s, the most that the device is made for, 0 unknown", [](const Row& row) { return SpeedAt(row, 0x15, 0x54); }},
    {u"Status", string},
    {u"Tag", string, 0, "the device's number, empty sockets not counted", [](const Row& row) { return "Physical Memory " + std::to_string(row.number); }},
    {u"TotalWidth", uint16, 0, "bits, including those for error correction", [](const Row& row) { return WidthAt(row, 0x08); }},
    {u"TypeDetail", uint16, 0, "bits of SMBIOS", [](const Row& row) { return row.device.wordAt(0x13); }},
    {u"Version", string},
};
// clang-format on

struct ArrayRow {
    facts::SmbiosStructure array;
    std::uint32_t number = 0;
};

/// The kilobytes that fit into all sockets; 0 if the firmware does not know.
std::uint64_t MaxCapacityOf(const facts::SmbiosStructure& array) {
    constexpr std::uint32_t seeExtended = 0x80000000;
    constexpr std::uint64_t kilobyte = 1024;
    const std::uint32_t kilobytes = array.doubleWordAt(0x07);
    return kilobytes == seeExtended ? array.quadWordAt(0x0F) / kilobyte : kilobytes;
}

std::uint32_t ShortMaxCapacityOf(const facts::SmbiosStructure& array) {
    const std::uint64_t kilobytes = MaxCapacityOf(array);
    return std::in_range<std::uint32_t>(kilobytes) ? static_cast<std::uint32_t>(kilobytes) : 0;
}

/// A location in the numbers of Win32_PhysicalMemoryArray, which go on where those of SMBIOS make a leap.
std::uint8_t LocationOf(std::uint8_t smbios) {
    constexpr std::uint8_t firstLate = 0xA0;  // card of a PC-98
    constexpr std::uint8_t lastLate = 0xA3;
    constexpr std::uint8_t numberOfFirstLate = 11;
    constexpr std::uint8_t lastEarly = 10;
    constexpr std::uint8_t other = 1;
    if (smbios >= firstLate && smbios <= lastLate) return smbios - firstLate + numberOfFirstLate;
    return smbios <= lastEarly ? smbios : other;
}

constexpr auto arrayCaption = [](const ArrayRow&) { return u"Physical Memory Array"; };

// clang-format off
constexpr PropertyInfo arrayProperties[] = {
    {u"Caption", string, 0, "the same for every array", arrayCaption},
    {u"CreationClassName", string, 0, "this class", [](const ArrayRow&) { return u"Win32_PhysicalMemoryArray"; }},
    {u"Depth", real32},
    {u"Description", string, 0, "the same for every array", arrayCaption},
    {u"Height", real32},
    {u"HotSwappable", boolean},
    {u"InstallDate", datetime},
    {u"Location", uint16, 0, "3 the main board, ...", [](const ArrayRow& row) { return LocationOf(row.array.byteAt(0x04)); }},
    {u"Manufacturer", string},
    {u"MaxCapacity", uint32, 0, "KB that fit into its sockets; 0 unknown, or too large for the type", [](const ArrayRow& row) { return ShortMaxCapacityOf(row.array); }},
    {u"MaxCapacityEx", uint64, 0, "KB that fit into its sockets, 0 unknown", [](const ArrayRow& row) { return MaxCapacityOf(row.array); }},
    {u"MemoryDevices", uint16, 0, "sockets, the empty ones too", [](const ArrayRow& row) { return row.array.wordAt(0x0D); }},
    {u"MemoryErrorCorrection", uint16, 0, "3 none, 4 parity, 5 single-bit, 6 multi-bit, 7 CRC", [](const ArrayRow& row) { return row.array.byteAt(0x06); }},
    {u"Model", string},
    {u"Name", string, 0, "the same for every array", arrayCaption},
    {u"OtherIdentifyingInfo", string},
    {u"PartNumber", string},
    {u"PoweredOn", boolean},
    {u"Removable", boolean},
    {u"Replaceable", boolean},
    {u"SerialNumber", string},
    {u"SKU", string},
    {u"Status", string},
    {u"Tag", string, 0, "the array's number in the firmware's order", [](const ArrayRow& row) { return "Physical Memory Array " + std::to_string(row.number); }},
    {u"Use", uint16, 0, "3 system memory, 4 video, 5 flash, 6 non-volatile, 7 cache", [](const ArrayRow& row) { return row.array.byteAt(0x05); }},
    {u"Version", string},
    {u"Weight", real32},
    {u"Width", real32},
};
// clang-format on

WmiStatus GatherDevicesHere(const Gathering& gathering) {
    return GatherMemoryDevices(gathering, facts::ReadSmbiosTable());
}

WmiStatus GatherArraysHere(const Gathering& gathering) {
    return GatherMemoryArrays(gathering, facts::ReadSmbiosTable());
}

constexpr ClassInfo classes[] = {
    {u"Win32_PhysicalMemory", u"CIM_PhysicalMemory", deviceProperties, GatherDevicesHere, u"Tag",
     "memory modules; only for the superuser"},
    {u"Win32_PhysicalMemoryArray", u"CIM_PhysicalPackage", arrayProperties, GatherArraysHere, u"Tag",
     "groups of memory sockets; only for the superuser"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherMemoryDevices(const Gathering& gathering, const facts::SmbiosTable& table) {
    constexpr std::uint8_t memoryDevice = 17;
    Row row;
    for (facts::SmbiosStructure& structure : facts::ParseSmbios(table.bytes)) {
        if (structure.type != memoryDevice || CapacityOf(structure) == 0) continue;
        row.device = std::move(structure);
        if (!gathering.row(&row)) return wmi_status::ok;
        ++row.number;
    }
    if (row.number == 0) return StatusOfTable(gathering, table);
    TellOfLostTable(gathering, table);
    return wmi_status::ok;
}

WmiStatus GatherMemoryArrays(const Gathering& gathering, const facts::SmbiosTable& table) {
    constexpr std::uint8_t memoryArray = 16;
    ArrayRow row;
    for (facts::SmbiosStructure& structure : facts::ParseSmbios(table.bytes)) {
        if (structure.type != memoryArray) continue;
        row.array = std::move(structure);
        if (!gathering.row(&row)) return wmi_status::ok;
        ++row.number;
    }
    if (row.number == 0) return StatusOfTable(gathering, table);
    TellOfLostTable(gathering, table);
    return wmi_status::ok;
}

}  // namespace kv::wql
