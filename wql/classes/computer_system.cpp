// Win32_ComputerSystem: the computer as a whole.
#include <unistd.h>

#include "facts/computer_facts.h"
#include "facts/cpu_info.h"
#include "facts/distribution.h"
#include "facts/host_names.h"
#include "facts/kernel_totals.h"
#include "facts/local_time.h"
#include "facts/processor_identity.h"
#include "facts/product.h"
#include "facts/sessions.h"
#include "facts/smbios.h"
#include "facts/system_text.h"
#include "platform/utf.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        host = 1,
        domain = 2,
        membership = 4,
        vendor = 8,
        chassis = 16,
        firmware = 32,
        processors = 64,
        hypervisor = 128,
        memory = 256,
        machine = 512,
        commandLine = 1024,
        sessions = 2048,
        time = 4096,
        role = 8192,
        model = 16384,
        family = 32768,
        stockNumber = 65536,
    };
};

struct Row {
    std::u16string host;
    std::string domain;  // may be empty
    bool isMember = false;
    bool isWorkstation = false;
    std::optional<std::string> vendor;
    std::optional<std::string> model;
    std::optional<std::string> family;
    std::optional<std::string> stockNumber;
    std::uint64_t chassis = 0;
    facts::SmbiosStructure system;  // this and the next two are empty if the firmware does not have them
    facts::SmbiosStructure enclosure;
    facts::SmbiosStructure security;
    std::size_t processors = 0;
    std::size_t sockets = 0;
    bool hasHypervisor = false;
    std::optional<std::uint64_t> memory;  // KB
    std::string machine;
    std::string commandLine;
    std::optional<std::string> user;
    facts::CalendarTime time;
};

/// Two bits of the firmware's settings for passwords and buttons, 3 if unknown; absent if it has no such settings.
std::optional<std::uint8_t> SettingAt(const Row& row, unsigned shift) {
    constexpr std::uint8_t twoBits = 3;
    if (row.security.formatted.empty()) return std::nullopt;
    return static_cast<std::uint8_t>(row.security.byteAt(0x04) >> shift & twoBits);
}

/// The text whose number follows the list of the enclosure's parts.
std::optional<std::string> ChassisStockNumberOf(const Row& row) {
    const std::size_t partsLength = std::size_t{row.enclosure.byteAt(0x13)} * row.enclosure.byteAt(0x14);
    return row.enclosure.stringAt(0x15 + partsLength);
}

std::uint16_t DomainRoleOf(const Row& row) {
    constexpr std::uint16_t server = 2;
    return static_cast<std::uint16_t>((row.isWorkstation ? 0 : server) + (row.isMember ? 1 : 0));
}

std::optional<std::u16string> UserNameOf(const Row& row) {
    return row.user ? std::optional(row.host + u"\\" + platform::WideFromUtf8(*row.user)) : std::nullopt;
}

std::optional<std::uint64_t> BytesOf(std::optional<std::uint64_t> kilobytes) {
    constexpr std::uint64_t kilobyte = 1024;
    return kilobytes ? std::optional(*kilobytes * kilobyte) : std::nullopt;
}

constexpr auto hostIn = [](const Row& row) { return row.host; };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"AdminPasswordStatus", uint16, Need::firmware, "0 disabled, 1 enabled, 2 absent, 3 unknown", [](const Row& row) { return SettingAt(row, 2); }},
    {u"AutomaticManagedPagefile", boolean},
    {u"AutomaticResetBootOption", boolean},
    {u"AutomaticResetCapability", boolean},
    {u"BootOptionOnLimit", uint16},
    {u"BootOptionOnWatchDog", uint16},
    {u"BootROMSupported", boolean},
    {u"BootStatus", ArrayOf(uint16)},
    {u"BootupState", string, Need::commandLine, "by the kernel's command line", [](const Row& row) { return facts::BootupStateOf(row.commandLine); }},
    {u"Caption", string, Need::host, "as Name", hostIn},
    {u"ChassisBootupState", uint16, Need::firmware, "3 safe, 4 warning, 5 critical", [](const Row& row) { return facts::KnownNumber(row.enclosure.byteAt(0x09)); }},
    {u"ChassisSKUNumber", string, Need::firmware, "of the enclosure", [](const Row& row) { return ChassisStockNumberOf(row); }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"CurrentTimeZone", sint16, Need::time, "minutes east of UTC, daylight saving included", [](const Row& row) { return row.time.minutesEast; }},
    {u"DaylightInEffect", boolean, Need::time, "now", [](const Row& row) { return row.time.parts.tm_isdst > 0; }},
    {u"Description", string, Need::machine, "as SystemType", [](const Row& row) { return facts::SystemTypeOf(row.machine); }},
    {u"DNSHostName", string, Need::host, "as Name", hostIn},
    {u"Domain", string, Need::domain, "of the host name, else of /etc/hosts", [](const Row& row) { return facts::KnownText(row.domain); }},
    {u"DomainRole", uint16, Need::role | Need::membership, "0 workstation, 2 server; 1 more in a domain", [](const Row& row) { return DomainRoleOf(row); }},
    {u"EnableDaylightSavingsTime", boolean, 0, "always TRUE: the time zone decides", [](const Row&) { return true; }},
    {u"FrontPanelResetStatus", uint16, Need::firmware, "as AdminPasswordStatus", [](const Row& row) { return SettingAt(row, 0); }},
    {u"HypervisorPresent", boolean, Need::hypervisor, "this is a virtual machine", [](const Row& row) { return row.hasHypervisor; }},
    {u"InfraredSupported", boolean},
    {u"InitialLoadInfo", ArrayOf(string)},
    {u"InstallDate", datetime},
    {u"KeyboardPasswordStatus", uint16, Need::firmware, "as AdminPasswordStatus", [](const Row& row) { return SettingAt(row, 4); }},
    {u"LastLoadInfo", string},
    {u"Manufacturer", string, Need::vendor, "sys_vendor, or the device tree's", [](const Row& row) { return row.vendor; }},
    {u"Model", string, Need::model, "product_name, or the device tree's", [](const Row& row) { return row.model; }},
    {u"Name", string, Need::host, "host name without its domain", hostIn},
    {u"NameFormat", string},
    {u"NetworkServerModeEnabled", boolean},
    {u"NumberOfLogicalProcessors", uint32, Need::processors, "online", [](const Row& row) { return row.processors; }},
    {u"NumberOfProcessors", uint32, Need::processors, "sockets", [](const Row& row) { return row.sockets; }},
    {u"OEMLogoBitmap", ArrayOf(uint8)},
    {u"OEMStringArray", ArrayOf(string)},
    {u"PartOfDomain", boolean, Need::membership, "it has a key in a realm", [](const Row& row) { return row.isMember; }},
    {u"PauseAfterReset", sint64},
    {u"PCSystemType", uint16, Need::chassis, "1 desktop, 2 mobile, 4 server, 0 unknown", [](const Row& row) { return facts::SystemTypeOfChassis(row.chassis); }},
    {u"PCSystemTypeEx", uint16, Need::chassis, "as PCSystemType", [](const Row& row) { return facts::SystemTypeOfChassis(row.chassis); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"PowerOnPasswordStatus", uint16, Need::firmware, "as AdminPasswordStatus", [](const Row& row) { return SettingAt(row, 6); }},
    {u"PowerState", uint16},
    {u"PowerSupplyState", uint16, Need::firmware, "as ChassisBootupState", [](const Row& row) { return facts::KnownNumber(row.enclosure.byteAt(0x0A)); }},
    {u"PrimaryOwnerContact", string},
    {u"PrimaryOwnerName", string},
    {u"ResetCapability", uint16},
    {u"ResetCount", sint16},
    {u"ResetLimit", sint16},
    {u"Roles", ArrayOf(string)},
    {u"Status", string, 0, "it runs", [](const Row&) { return u"OK"; }},
    {u"SupportContactDescription", ArrayOf(string)},
    {u"SystemFamily", string, Need::family, "product_family", [](const Row& row) { return row.family; }},
    {u"SystemSKUNumber", string, Need::stockNumber, "product_sku", [](const Row& row) { return row.stockNumber; }},
    {u"SystemStartupDelay", uint16},
    {u"SystemStartupOptions", ArrayOf(string)},
    {u"SystemStartupSetting", uint8},
    {u"SystemType", string, Need::machine, "such as x64-based PC", [](const Row& row) { return facts::SystemTypeOf(row.machine); }},
    {u"ThermalState", uint16, Need::firmware, "as ChassisBootupState", [](const Row& row) { return facts::KnownNumber(row.enclosure.byteAt(0x0B)); }},
    {u"TotalPhysicalMemory", uint64, Need::memory, "bytes, MemTotal", [](const Row& row) { return BytesOf(row.memory); }},
    {u"UserName", string, Need::sessions | Need::host, "computer\\user at the console", [](const Row& row) { return UserNameOf(row); }},
    {u"WakeUpType", uint16, Need::firmware, "6 the power button, ...", [](const Row& row) { return facts::KnownNumber(row.system.byteAt(0x18)); }},
    {u"Workgroup", string},
};
// clang-format on

/// Whether the processor says that it is virtual, or the kernel that it runs as a guest. The firmware's name decides
/// only if the processors do not say.
bool HasHypervisor(const std::vector<facts::CpuBlock>& processors) {
    const std::optional<bool> flag = processors.empty() ? std::nullopt : processors.front().hasFlag("hypervisor");
    if (flag.value_or(false)) return true;
    if (access("/sys/hypervisor/type", F_OK) == 0 || access("/proc/device-tree/hypervisor", F_OK) == 0) return true;
    return !flag && facts::IsVirtualMachine(facts::ReadDmi("sys_vendor").value_or(""),
                                            facts::ReadDmi("product_name").value_or(""));
}

void ReadProcessorParts(const Gathering& gathering, Row& row) {
    if (!gathering.asksFor(Need::processors | Need::hypervisor)) return;
    const std::string text = facts::ReadCpuInfo();
    const std::vector<facts::CpuBlock> processors = facts::ParseCpuInfo(text);
    row.processors = processors.size();
    if (gathering.asksFor(Need::processors)) row.sockets = facts::SocketsOf(processors, facts::ReadCpuFile).size();
    if (gathering.asksFor(Need::hypervisor)) row.hasHypervisor = HasHypervisor(processors);
}

/// The parts refer to the table, which must outlive the row.
void ReadFirmwareParts(std::string_view table, Row& row) {
    constexpr std::uint8_t systemType = 1;
    constexpr std::uint8_t enclosureType = 3;
    constexpr std::uint8_t securityType = 24;
    const std::vector<facts::SmbiosStructure> structures = facts::ParseSmbios(table);
    row.system = facts::FirstOfType(structures, systemType);
    row.enclosure = facts::FirstOfType(structures, enclosureType);
    row.security = facts::FirstOfType(structures, securityType);
}

void ReadNames(const Gathering& gathering, Row& row) {
    constexpr const char* domainKeys = "/etc/krb5.keytab";  // written when the computer joins a domain
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    if (gathering.asksFor(Need::domain)) row.domain = facts::DomainName();
    if (gathering.asksFor(Need::membership)) row.isMember = access(domainKeys, F_OK) == 0;
    if (gathering.asksFor(Need::role)) row.isWorkstation = facts::IsWorkstation();
    if (gathering.asksFor(Need::machine)) row.machine = facts::MachineName();
}

void ReadMakersNames(const Gathering& gathering, Row& row) {
    if (gathering.asksFor(Need::vendor)) row.vendor = facts::ReadVendor();
    if (gathering.asksFor(Need::model)) row.model = facts::ReadModel();
    if (gathering.asksFor(Need::family)) row.family = facts::ReadDmi("product_family");
    if (gathering.asksFor(Need::stockNumber)) row.stockNumber = facts::ReadDmi("product_sku");
    if (gathering.asksFor(Need::chassis))
        row.chassis = facts::NumberOf(facts::ReadDmi("chassis_type").value_or("")).value_or(0);
}

void ReadRunningParts(const Gathering& gathering, Row& row) {
    if (gathering.asksFor(Need::commandLine)) row.commandLine = platform::ReadSystemFile("/proc/cmdline").value_or("");
    if (gathering.asksFor(Need::time)) row.time = facts::LocalTimeOf(facts::MicrosecondsNow());
    if (gathering.asksFor(Need::sessions))
        row.user = facts::ConsoleUserOf(facts::ReadSessions().value_or(std::vector<facts::Session>()));
    if (gathering.asksFor(Need::memory)) {
        row.memory = facts::MemoryFigure(platform::ReadSystemFile("/proc/meminfo").value_or(""), "MemTotal");
    }
}

WmiStatus GatherComputerSystem(const Gathering& gathering) {
    const std::string table = gathering.asksFor(Need::firmware) ? facts::ReadSmbiosTable() : "";
    Row row;
    ReadFirmwareParts(table, row);
    ReadProcessorParts(gathering, row);
    ReadNames(gathering, row);
    ReadMakersNames(gathering, row);
    ReadRunningParts(gathering, row);
    gathering.row(&row);
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_ComputerSystem", u"CIM_UnitaryComputerSystem", properties, GatherComputerSystem, u"Name"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
