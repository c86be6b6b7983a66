#include "wql/classes/hardware/firmware_classes.h"

#include "facts/hardware/computer_facts.h"
#include "facts/hardware/product.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/hardware/firmware_table.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        smbiosVersion = 1,
        firmware = 2,
        maker = 4,
        releases = 8,
        serial = 16,
        uuid = 32,
        stockNumber = 64,
        version = 128,
    };
};

struct ProductRow {
    std::optional<std::string> vendor;
    std::optional<std::string> model;
    std::optional<std::string> version;
    std::optional<std::string> serialNumber;
    std::optional<std::string> uuid;
    std::optional<std::string> stockNumber;
};

struct BiosRow {
    std::optional<std::string> vendor;
    std::optional<std::string> version;
    std::optional<std::string> date;  // mm/dd/yyyy
    std::optional<std::string> serialNumber;
    std::optional<facts::VersionPair> release;
    std::optional<facts::VersionPair> controllerRelease;
    std::optional<facts::VersionPair> smbiosVersion;
    facts::SmbiosStructure languages;  // this and the next are empty if the firmware does not have them
    facts::SmbiosStructure description;
};

std::optional<std::u16string> ReleaseDateOf(const BiosRow& row) {
    return row.date ? facts::FirmwareDate(*row.date) : std::nullopt;
}

std::optional<std::uint64_t> MajorOf(const std::optional<facts::VersionPair>& version) {
    return version ? std::optional(version->major) : std::nullopt;
}

std::optional<std::uint64_t> MinorOf(const std::optional<facts::VersionPair>& version) {
    return version ? std::optional(version->minor) : std::nullopt;
}

/// A part of a version; 255, as in the firmware's tables, if there is no such version.
std::uint64_t KnownOrUnknown(std::optional<std::uint64_t> part) {
    constexpr std::uint64_t unknown = 255;
    return part.value_or(unknown);
}

/// The list of the bits that are set, which stand for what the firmware can do; NULL if it does not tell.
CimValue CharacteristicsOf(const facts::SmbiosStructure& description) {
    constexpr int publicBits = 32;  // the upper half is the maker's
    std::vector<int> numbers;
    for (int bit = 0; bit < publicBits; ++bit) {
        if ((description.quadWordAt(0x0A) >> bit & 1) != 0) numbers.push_back(bit);
    }
    return ListOrNull(numbers);
}

CimValue LanguagesOf(const facts::SmbiosStructure& languages) { return ListOrNull(languages.strings); }

constexpr auto productCaption = [](const ProductRow&) { return u"Computer System Product"; };
constexpr auto biosVersion = [](const BiosRow& row) { return row.version; };

// clang-format off
constexpr PropertyInfo productProperties[] = {
    {u"Caption", string, 0, "the same for all computers", productCaption},
    {u"Description", string, 0, "the same for all computers", productCaption},
    {u"IdentifyingNumber", string, Need::serial, "serial number; only for the superuser", [](const ProductRow& row) { return row.serialNumber; }},
    {u"Name", string, 0, "model", [](const ProductRow& row) { return row.model; }},
    {u"SKUNumber", string, Need::stockNumber, "product_sku", [](const ProductRow& row) { return row.stockNumber; }},
    {u"UUID", string, Need::uuid, "only for the superuser", [](const ProductRow& row) { return row.uuid; }},
    {u"Vendor", string, 0, "sys_vendor, or the device tree's", [](const ProductRow& row) { return row.vendor; }},
    {u"Version", string, Need::version, "product_version", [](const ProductRow& row) { return row.version; }},
};

constexpr PropertyInfo biosProperties[] = {
    {u"BiosCharacteristics", ArrayOf(uint16), Need::firmware, "by the list of SMBIOS", [](const BiosRow& row) { return CharacteristicsOf(row.description); }},
    {u"BIOSVersion", ArrayOf(string), 0, "the one Version", biosVersion},
    {u"BuildNumber", string},
    {u"Caption", string, 0, "as Version", biosVersion},
    {u"CodeSet", string},
    {u"CurrentLanguage", string, Need::firmware, "of its screens", [](const BiosRow& row) { return row.languages.stringAt(0x15); }},
    {u"Description", string, 0, "as Version", biosVersion},
    {u"EmbeddedControllerMajorVersion", uint8, Need::releases, "of ec_firmware_release, 255 without such a controller", [](const BiosRow& row) { return KnownOrUnknown(MajorOf(row.controllerRelease)); }},
    {u"EmbeddedControllerMinorVersion", uint8, Need::releases, "of ec_firmware_release, 255 without such a controller", [](const BiosRow& row) { return KnownOrUnknown(MinorOf(row.controllerRelease)); }},
    {u"IdentificationCode", string},
    {u"InstallableLanguages", uint16, Need::firmware, "how many", [](const BiosRow& row) { return facts::KnownNumber(row.languages.byteAt(0x04)); }},
    {u"InstallDate", datetime},
    {u"LanguageEdition", string},
    {u"ListOfLanguages", ArrayOf(string), Need::firmware, "of its screens", [](const BiosRow& row) { return LanguagesOf(row.languages); }},
    {u"Manufacturer", string, Need::maker, "bios_vendor", [](const BiosRow& row) { return row.vendor; }},
    {u"Name", string, 0, "as Version", biosVersion},
    {u"OtherTargetOS", string},
    {u"PrimaryBIOS", boolean, 0, "the computer's own", [](const BiosRow&) { return true; }},
    {u"ReleaseDate", datetime, Need::maker, "bios_date", [](const BiosRow& row) { return ReleaseDateOf(row); }},
    {u"SerialNumber", string, Need::serial, "the computer's; only for the superuser", [](const BiosRow& row) { return row.serialNumber; }},
    {u"SMBIOSBIOSVersion", string, 0, "as Version", biosVersion},
    {u"SMBIOSMajorVersion", uint16, Need::smbiosVersion, "of smbios_entry_point", [](const BiosRow& row) { return MajorOf(row.smbiosVersion); }},
    {u"SMBIOSMinorVersion", uint16, Need::smbiosVersion, "of smbios_entry_point", [](const BiosRow& row) { return MinorOf(row.smbiosVersion); }},
    {u"SMBIOSPresent", boolean, 0, "not if there is a device tree instead", [](const BiosRow& row) { return row.version.has_value(); }},
    {u"SoftwareElementID", string, 0, "as Version", biosVersion},
    {u"SoftwareElementState", uint16, 0, "3: running", [](const BiosRow&) { return 3; }},
    {u"Status", string, 0, "it runs", [](const BiosRow&) { return u"OK"; }},
    {u"SystemBiosMajorVersion", uint8, Need::releases, "of bios_release, 255 unknown", [](const BiosRow& row) { return KnownOrUnknown(MajorOf(row.release)); }},
    {u"SystemBiosMinorVersion", uint8, Need::releases, "of bios_release, 255 unknown", [](const BiosRow& row) { return KnownOrUnknown(MinorOf(row.release)); }},
    {u"TargetOperatingSystem", uint16, 0, "0: unknown", [](const BiosRow&) { return 0; }},
    {u"Version", string, 0, "bios_version", biosVersion},
};
// clang-format on

std::optional<facts::VersionPair> VersionPairIn(const facts::DmiTexts& texts, std::string_view name) {
    const std::optional<std::string> text = texts(name);
    return text ? facts::VersionPairOf(*text) : std::nullopt;
}

WmiStatus GatherProduct(const Gathering& gathering) {
    ProductRow row;
    row.vendor = facts::ReadVendor();
    row.model = facts::ReadModel();
    const bool isNamed = row.vendor || row.model;
    if (!isNamed || gathering.asksFor(Need::serial)) row.serialNumber = facts::ReadSerialNumber();
    if (!isNamed && !row.serialNumber) return wmi_status::ok;
    if (gathering.asksFor(Need::version)) row.version = facts::ReadDmi("product_version");
    if (gathering.asksFor(Need::uuid)) row.uuid = facts::ReadUuid();
    if (gathering.asksFor(Need::uuid)) TellOfForbiddenText(gathering, "product_uuid");
    if (gathering.asksFor(Need::serial)) TellOfForbiddenText(gathering, "product_serial");
    if (gathering.asksFor(Need::stockNumber)) row.stockNumber = facts::ReadDmi("product_sku");
    gathering.row(&row);
    return wmi_status::ok;
}

void ReadBiosParts(const Gathering& gathering, const facts::DmiTexts& texts, BiosRow& row) {
    if (gathering.asksFor(Need::maker)) {
        row.vendor = texts("bios_vendor");
        row.date = texts("bios_date");
    }
    if (gathering.asksFor(Need::releases)) {
        row.release = VersionPairIn(texts, "bios_release");
        row.controllerRelease = VersionPairIn(texts, "ec_firmware_release");
    }
    if (gathering.asksFor(Need::smbiosVersion)) {
        row.smbiosVersion = facts::SmbiosVersionOf(
            platform::ReadSystemFile("/sys/firmware/dmi/tables/smbios_entry_point").value_or(""));
    }
}

WmiStatus GatherBiosHere(const Gathering& gathering) {
    return GatherBios(gathering, gathering.asksFor(Need::firmware) ? facts::ReadSmbiosTable() : facts::SmbiosTable(),
                      facts::ReadDmi);
}

constexpr ClassInfo classes[] = {
    {u"Win32_ComputerSystemProduct", u"CIM_Product", productProperties, GatherProduct,
     u"IdentifyingNumber,Name,Version", "the computer as a product: vendor, serial number, UUID"},
    {u"Win32_BIOS", u"CIM_BIOSElement", biosProperties, GatherBiosHere,
     u"Name,SoftwareElementID,SoftwareElementState,TargetOperatingSystem,Version",
     "the firmware: vendor, version, date"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherBios(const Gathering& gathering, const facts::SmbiosTable& table, const facts::DmiTexts& texts) {
    constexpr std::uint8_t descriptionType = 0;
    constexpr std::uint8_t languagesType = 13;
    BiosRow row;
    row.version = texts("bios_version");
    if (!row.version || gathering.asksFor(Need::serial)) row.serialNumber = facts::ReadSerialNumber();
    if (!row.version && !row.serialNumber) return wmi_status::ok;
    TellOfLostTable(gathering, table);
    const std::vector<facts::SmbiosStructure> structures = facts::ParseSmbios(table.bytes);
    row.languages = facts::FirstOfType(structures, languagesType);
    row.description = facts::FirstOfType(structures, descriptionType);
    if (gathering.asksFor(Need::serial)) TellOfForbiddenText(gathering, "product_serial");
    ReadBiosParts(gathering, texts, row);
    gathering.row(&row);
    return wmi_status::ok;
}

}  // namespace kv::wql
