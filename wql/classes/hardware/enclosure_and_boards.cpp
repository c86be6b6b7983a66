#include "wql/classes/hardware/enclosure_and_boards.h"

#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/hardware/firmware_table.h"

namespace kv::wql {

namespace {

using enum CimType;

/// What both classes have, from the tables or from the kernel's texts.
struct Row {
    facts::SmbiosStructure structure;  // empty if only the texts are known
    std::size_t number = 0;            // in the firmware's order
    std::optional<std::string> manufacturer;
    std::optional<std::string> product;
    std::optional<std::string> version;
    std::optional<std::string> serialNumber;
    std::optional<std::string> assetTag;
    std::uint8_t chassisType = 0;            // 0: not known
    std::vector<std::string> switches = {};  // texts about jumpers and switches

    bool isDescribed() const { return !structure.formatted.empty(); }
};

std::optional<bool> HasFeature(const Row& row, unsigned bit) {
    return row.isDescribed() ? std::optional((row.structure.byteAt(0x09) >> bit & 1) != 0) : std::nullopt;
}

constexpr std::size_t chassisTypeAt = 0x05;
constexpr std::uint8_t lockBit = 0x80;  // of the type

std::optional<bool> HasLock(const Row& row) {
    return row.isDescribed() ? std::optional((row.structure.byteAt(chassisTypeAt) & lockBit) != 0) : std::nullopt;
}

/// In inches; the firmware counts units of a rack.
CimValue HeightOf(const Row& row) {
    constexpr double inchesPerUnit = 1.75;
    const std::uint8_t units = row.structure.byteAt(0x11);
    return units != 0 ? CimValue(units * inchesPerUnit) : CimValue();
}

/// The board's tag is not numbered on Windows; further boards get their number.
std::string BoardTagOf(const Row& row) {
    return row.number == 0 ? "Base Board" : "Base Board " + std::to_string(row.number);
}

constexpr auto enclosureCaption = [](const Row&) { return u"System Enclosure"; };
constexpr auto boardCaption = [](const Row&) { return u"Base Board"; };
constexpr auto manufacturerIn = [](const Row& row) { return row.manufacturer; };
constexpr auto versionIn = [](const Row& row) { return row.version; };
constexpr auto serialNumberIn = [](const Row& row) { return row.serialNumber; };

// clang-format off
constexpr PropertyInfo enclosureProperties[] = {
    {u"AudibleAlarm", boolean},
    {u"BreachDescription", string},
    {u"CableManagementStrategy", string},
    {u"Caption", string, 0, "the same for every enclosure", enclosureCaption},
    {u"ChassisTypes", ArrayOf(uint16), 0, "chassis_type: 3 desktop, 10 notebook, 23 in a rack, ...", [](const Row& row) { return facts::KnownNumber(row.chassisType); }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_SystemEnclosure"; }},
    {u"CurrentRequiredOrProduced", sint16},
    {u"Depth", real32},
    {u"Description", string, 0, "the same for every enclosure", enclosureCaption},
    {u"HeatGeneration", uint16},
    {u"Height", real32, 0, "inches, 1.75 for each unit of a rack", [](const Row& row) { return HeightOf(row); }},
    {u"HotSwappable", boolean},
    {u"InstallDate", datetime},
    {u"LockPresent", boolean, 0, "of SMBIOS", [](const Row& row) { return HasLock(row); }},
    {u"Manufacturer", string, 0, "chassis_vendor", manufacturerIn},
    {u"Model", string},
    {u"Name", string, 0, "the same for every enclosure", enclosureCaption},
    {u"NumberOfPowerCords", uint16, 0, "of SMBIOS", [](const Row& row) { return facts::KnownNumber(row.structure.byteAt(0x12)); }},
    {u"OtherIdentifyingInfo", string},
    {u"PartNumber", string},
    {u"PoweredOn", boolean},
    {u"Removable", boolean},
    {u"Replaceable", boolean},
    {u"SecurityBreach", uint16},
    {u"SecurityStatus", uint16, 0, "3 none, 4 and 5 external interface locked out and enabled, 2 unknown", [](const Row& row) { return facts::KnownNumber(row.structure.byteAt(0x0C)).value_or(2); }},
    {u"SerialNumber", string, 0, "chassis_serial; only for the superuser", serialNumberIn},
    {u"ServiceDescriptions", ArrayOf(string)},
    {u"ServicePhilosophy", ArrayOf(uint16)},
    {u"SKU", string, 0, "of SMBIOS", [](const Row& row) { return facts::ChassisStockNumberOf(row.structure); }},
    {u"SMBIOSAssetTag", string, 0, "chassis_asset_tag", [](const Row& row) { return row.assetTag; }},
    {u"Status", string},
    {u"Tag", string, 0, "the enclosure's number in the firmware's order", [](const Row& row) { return "System Enclosure " + std::to_string(row.number); }},
    {u"TypeDescriptions", ArrayOf(string)},
    {u"Version", string, 0, "chassis_version", versionIn},
    {u"VisibleAlarm", boolean},
    {u"Weight", real32},
    {u"Width", real32},
};

constexpr PropertyInfo boardProperties[] = {
    {u"Caption", string, 0, "the same for every board", boardCaption},
    {u"ConfigOptions", ArrayOf(string), 0, "the firmware's texts about jumpers and switches, of the first board", [](const Row& row) { return ListOrNull(row.switches); }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_BaseBoard"; }},
    {u"Depth", real32},
    {u"Description", string, 0, "the same for every board", boardCaption},
    {u"Height", real32},
    {u"HostingBoard", boolean, 0, "of SMBIOS", [](const Row& row) { return HasFeature(row, 0); }},
    {u"HotSwappable", boolean, 0, "of SMBIOS", [](const Row& row) { return HasFeature(row, 4); }},
    {u"InstallDate", datetime},
    {u"Manufacturer", string, 0, "board_vendor", manufacturerIn},
    {u"Model", string},
    {u"Name", string, 0, "the same for every board", boardCaption},
    {u"OtherIdentifyingInfo", string},
    {u"PartNumber", string},
    {u"PoweredOn", boolean, 0, "it runs", [](const Row&) { return true; }},
    {u"Product", string, 0, "board_name", [](const Row& row) { return row.product; }},
    {u"Removable", boolean, 0, "of SMBIOS", [](const Row& row) { return HasFeature(row, 2); }},
    {u"Replaceable", boolean, 0, "of SMBIOS", [](const Row& row) { return HasFeature(row, 3); }},
    {u"RequirementsDescription", string},
    {u"RequiresDaughterBoard", boolean, 0, "of SMBIOS", [](const Row& row) { return HasFeature(row, 1); }},
    {u"SerialNumber", string, 0, "board_serial; only for the superuser", serialNumberIn},
    {u"SKU", string},
    {u"SlotLayout", string},
    {u"SpecialRequirements", boolean},
    {u"Status", string, 0, "it runs", [](const Row&) { return u"OK"; }},
    {u"Tag", string, 0, "\"Base Board\", with a number for every further board", [](const Row& row) { return BoardTagOf(row); }},
    {u"Version", string, 0, "board_version", versionIn},
    {u"Weight", real32},
    {u"Width", real32},
};
// clang-format on

/// Where one class finds its texts.
struct Places {
    std::uint8_t type;
    const char* textPrefix;
    std::size_t manufacturer, product, version, serialNumber, assetTag;  // in the structure; 0: it has no such text
};

constexpr Places enclosurePlaces = {3, "chassis_", 0x04, 0, 0x06, 0x07, 0x08};
constexpr Places boardPlaces = {2, "board_", 0x04, 0x05, 0x06, 0x07, 0x08};

Row RowOfStructure(const facts::SmbiosStructure& structure, const Places& places) {
    Row row;
    row.structure = structure;
    row.manufacturer = structure.stringAt(places.manufacturer);
    if (places.product != 0) row.product = structure.stringAt(places.product);
    row.version = structure.stringAt(places.version);
    row.serialNumber = structure.stringAt(places.serialNumber);
    row.assetTag = structure.stringAt(places.assetTag);
    row.chassisType = structure.byteAt(chassisTypeAt) & static_cast<std::uint8_t>(~lockBit);
    return row;
}

/// Absent if the kernel has none of the texts.
std::optional<Row> RowOfTexts(const facts::DmiTexts& texts, const Places& places) {
    const auto text = [&](const char* name) { return texts(std::string(places.textPrefix) + name); };
    Row row;
    row.manufacturer = text("vendor");
    row.product = text("name");
    row.version = text("version");
    row.serialNumber = text("serial");
    row.assetTag = text("asset_tag");
    row.chassisType = static_cast<std::uint8_t>(facts::NumberOf(text("type").value_or("")).value_or(0));
    const bool isKnown = row.manufacturer || row.product || row.version || row.assetTag || row.chassisType != 0;
    return isKnown ? std::optional(std::move(row)) : std::nullopt;
}

std::vector<Row> RowsOf(const std::vector<facts::SmbiosStructure>& structures, const facts::DmiTexts& texts,
                        const Places& places) {
    std::vector<Row> rows;
    for (const facts::SmbiosStructure& structure : structures) {
        if (structure.type == places.type) rows.push_back(RowOfStructure(structure, places));
    }
    if (!rows.empty()) return rows;
    if (std::optional<Row> row = RowOfTexts(texts, places)) rows.push_back(std::move(*row));
    return rows;
}

WmiStatus Gather(const Gathering& gathering, const facts::SmbiosTable& table, const facts::DmiTexts& texts,
                 const Places& places) {
    constexpr std::uint8_t switchesType = 12;
    const std::vector<facts::SmbiosStructure> structures = facts::ParseSmbios(table.bytes);
    std::vector<Row> rows = RowsOf(structures, texts, places);
    if (rows.empty()) return StatusOfTable(gathering, table);
    TellOfLostTable(gathering, table);
    for (std::size_t at = 0; at < rows.size(); ++at) {
        rows[at].number = at;
        if (at == 0) {
            for (const std::string_view text : facts::FirstOfType(structures, switchesType).strings)
                rows[at].switches.emplace_back(text);
        }
        if (!gathering.row(&rows[at])) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherEnclosuresHere(const Gathering& gathering) {
    return GatherEnclosures(gathering, facts::ReadSmbiosTable(), facts::ReadDmi);
}

WmiStatus GatherBaseBoardsHere(const Gathering& gathering) {
    return GatherBaseBoards(gathering, facts::ReadSmbiosTable(), facts::ReadDmi);
}

constexpr ClassInfo classes[] = {
    {u"Win32_SystemEnclosure", u"CIM_Chassis", enclosureProperties, GatherEnclosuresHere, u"Tag",
     "the case: maker, kind, serial number"},
    {u"Win32_BaseBoard", u"CIM_Card", boardProperties, GatherBaseBoardsHere, u"Tag",
     "main boards: maker, product, serial number"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherEnclosures(const Gathering& gathering, const facts::SmbiosTable& table, const facts::DmiTexts& texts) {
    return Gather(gathering, table, texts, enclosurePlaces);
}

WmiStatus GatherBaseBoards(const Gathering& gathering, const facts::SmbiosTable& table, const facts::DmiTexts& texts) {
    return Gather(gathering, table, texts, boardPlaces);
}

}  // namespace kv::wql
