#include "wql/classes/system/computer_system.h"

#include <algorithm>
#include <unistd.h>

#include "facts/accounts/sessions.h"
#include "facts/hardware/computer_facts.h"
#include "facts/hardware/cpu_info.h"
#include "facts/hardware/processor_identity.h"
#include "facts/hardware/product.h"
#include "facts/network/host_names.h"
#include "facts/processes/kernel_totals.h"
#include "facts/schedule/local_time.h"
#include "facts/schedule/zone_rules.h"
#include "facts/software/distribution.h"
#include "facts/system_text.h"
#include "platform/utf.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/hardware/firmware_table.h"

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
        panic = 131072,
        bootRom = 262144,
        daylight = 524288,
    };
};

struct Row {
    std::u16string host;
    std::string domain;  // may be empty
    std::optional<std::string> workgroup;
    bool isMember = false;
    bool isWorkstation = false;
    std::optional<std::string> vendor;
    std::optional<std::string> model;
    std::optional<std::string> family;
    std::optional<std::string> stockNumber;
    std::uint64_t chassis = 0;
    facts::SmbiosStructure system;  // this and the next five are empty if the firmware does not have them
    facts::SmbiosStructure enclosure;
    facts::SmbiosStructure security;
    facts::SmbiosStructure reset;
    facts::SmbiosStructure texts;
    facts::SmbiosStructure bootStatus;
    bool restartsAfterPanic = false;
    bool hasFirmware = false;
    std::optional<std::size_t> processors;
    std::optional<std::size_t> sockets;
    bool hasHypervisor = false;
    std::optional<std::uint64_t> memory;  // KB
    std::string machine;
    std::string commandLine;
    std::optional<std::string> user;
    facts::CalendarTime time;
    bool isSummerTime = false;
};

/// Two bits of the firmware's settings for passwords and buttons, 3 if it does not tell.
std::uint8_t SettingAt(const Row& row, unsigned shift) {
    constexpr std::uint8_t twoBits = 3;
    if (row.security.formatted.empty()) return twoBits;
    return static_cast<std::uint8_t>(row.security.byteAt(0x04) >> shift & twoBits);
}

/// A setting of the watchdog that resets the computer, in two bits; absent if the firmware does not tell.
std::optional<std::uint32_t> ResetOptionAt(const Row& row, unsigned shift) {
    constexpr std::uint8_t twoBits = 3;
    return facts::KnownNumber(row.reset.byteAt(0x04) >> shift & twoBits);
}

std::uint16_t ResetCapabilityOf(const Row& row) {
    constexpr std::uint16_t unknown = 2;
    constexpr std::uint16_t disabled = 3;
    constexpr std::uint16_t enabled = 4;
    if (row.reset.formatted.empty()) return unknown;
    return (row.reset.byteAt(0x04) & 1) != 0 ? enabled : disabled;
}

/// A number of resets; -1 if the firmware does not tell.
std::int16_t ResetsAt(const Row& row, std::size_t offset) {
    return row.reset.formatted.empty() ? std::int16_t{-1} : static_cast<std::int16_t>(row.reset.wordAt(offset));
}

/// The list of bytes from an offset to a structure's end, or of its texts; NULL without the structure.
CimValue BytesFrom(const facts::SmbiosStructure& structure, std::size_t offset) {
    std::vector<unsigned> bytes;
    for (std::size_t at = offset; at < structure.formatted.size(); ++at) bytes.push_back(structure.byteAt(at));
    return ListOrNull(bytes);
}

CimValue TextsOf(const facts::SmbiosStructure& structure) { return ListOrNull(structure.strings); }

std::optional<std::string> DomainOf(const Row& row) {
    return row.isMember ? facts::KnownText(row.domain) : row.workgroup;
}

std::optional<std::string> WorkgroupOf(const Row& row) { return row.isMember ? std::nullopt : row.workgroup; }

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
constexpr auto restartsIn = [](const Row& row) { return row.restartsAfterPanic; };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"AdminPasswordStatus", uint16, Need::firmware, "0 disabled, 1 enabled, 2 absent, 3 unknown, of the firmware", [](const Row& row) { return SettingAt(row, 2); }},
    {u"AutomaticManagedPagefile", boolean, 0, "always FALSE: swap has the size that it was set up with", [](const Row&) { return false; }},
    {u"AutomaticResetBootOption", boolean, Need::panic, "as AutomaticResetCapability", restartsIn},
    {u"AutomaticResetCapability", boolean, Need::panic, "whether it starts again after a kernel's panic (kernel.panic)", restartsIn},
    {u"BootOptionOnLimit", uint16, Need::firmware, "1 the system, 2 utilities, 3 does not start", [](const Row& row) { return ResetOptionAt(row, 3); }},
    {u"BootOptionOnWatchDog", uint16, Need::firmware, "as BootOptionOnLimit", [](const Row& row) { return ResetOptionAt(row, 1); }},
    {u"BootROMSupported", boolean, Need::bootRom, "TRUE if there is firmware, else unknown", [](const Row& row) { return row.hasFirmware ? std::optional(true) : std::nullopt; }},
    {u"BootStatus", ArrayOf(uint16), Need::firmware, "of the firmware", [](const Row& row) { return BytesFrom(row.bootStatus, 0x0A); }},
    {u"BootupState", string, Need::commandLine, "by the kernel's command line", [](const Row& row) { return facts::BootupStateOf(row.commandLine); }},
    {u"Caption", string, Need::host, "as Name", hostIn},
    {u"ChassisBootupState", uint16, Need::firmware, "3 safe, 4 warning, 5 critical", [](const Row& row) { return facts::KnownNumber(row.enclosure.byteAt(0x09)); }},
    {u"ChassisSKUNumber", string, Need::firmware, "of the enclosure", [](const Row& row) { return facts::ChassisStockNumberOf(row.enclosure); }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"CurrentTimeZone", sint16, Need::time, "minutes east of UTC, daylight saving included", [](const Row& row) { return row.time.minutesEast; }},
    {u"DaylightInEffect", boolean, Need::time | Need::daylight, "whether it is summer time now", [](const Row& row) { return row.isSummerTime; }},
    {u"Description", string, Need::machine, "as SystemType", [](const Row& row) { return facts::SystemTypeOf(row.machine); }},
    {u"DNSHostName", string, Need::host, "as Name", hostIn},
    {u"Domain", string, Need::membership | Need::domain, "in a domain that of the host name, else of /etc/hosts; else as Workgroup", [](const Row& row) { return DomainOf(row); }},
    {u"DomainRole", uint16, Need::role | Need::membership, "0 workstation, 2 server; 1 more in a domain", [](const Row& row) { return DomainRoleOf(row); }},
    {u"EnableDaylightSavingsTime", boolean, 0, "always TRUE: the time zone decides", [](const Row&) { return true; }},
    {u"FrontPanelResetStatus", uint16, Need::firmware, "as AdminPasswordStatus", [](const Row& row) { return SettingAt(row, 0); }},
    {u"HypervisorPresent", boolean, Need::hypervisor, "this is a virtual machine", [](const Row& row) { return row.hasHypervisor; }},
    {u"InfraredSupported", boolean, 0, "always FALSE: Linux drives no infrared ports", [](const Row&) { return false; }},
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
    {u"OEMStringArray", ArrayOf(string), Need::firmware, "of the firmware", [](const Row& row) { return TextsOf(row.texts); }},
    {u"PartOfDomain", boolean, Need::membership, "it has a key in a realm", [](const Row& row) { return row.isMember; }},
    {u"PauseAfterReset", sint64, 0, "milliseconds; -1: unknown", [](const Row&) { return -1; }},
    {u"PCSystemType", uint16, Need::chassis, "1 desktop, 2 mobile, 4 server, 0 unknown", [](const Row& row) { return facts::SystemTypeOfChassis(row.chassis); }},
    {u"PCSystemTypeEx", uint16, Need::chassis, "as PCSystemType, but 8 tablet", [](const Row& row) { return facts::ExtendedSystemTypeOfChassis(row.chassis); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean},
    {u"PowerOnPasswordStatus", uint16, Need::firmware, "as AdminPasswordStatus", [](const Row& row) { return SettingAt(row, 6); }},
    {u"PowerState", uint16, 0, "1: it runs", [](const Row&) { return 1; }},
    {u"PowerSupplyState", uint16, Need::firmware, "as ChassisBootupState", [](const Row& row) { return facts::KnownNumber(row.enclosure.byteAt(0x0A)); }},
    {u"PrimaryOwnerContact", string},
    {u"PrimaryOwnerName", string},
    {u"ResetCapability", uint16, Need::firmware, "4 enabled, 3 disabled, 2 unknown", [](const Row& row) { return ResetCapabilityOf(row); }},
    {u"ResetCount", sint16, Need::firmware, "by the firmware's watchdog, -1 unknown", [](const Row& row) { return ResetsAt(row, 0x05); }},
    {u"ResetLimit", sint16, Need::firmware, "as ResetCount", [](const Row& row) { return ResetsAt(row, 0x07); }},
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
    {u"Workgroup", string, Need::membership | Need::domain, "of smb.conf, else WORKGROUP; NULL in a domain, and if smb.conf cannot be read", [](const Row& row) { return WorkgroupOf(row); }},
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
    const std::string text = ReadPart("/proc/cpuinfo", "Numbers of processors", gathering);
    const std::vector<facts::CpuBlock> processors = facts::ParseCpuInfo(text);
    if (gathering.asksFor(Need::hypervisor)) row.hasHypervisor = HasHypervisor(processors);
    if (processors.empty()) return;
    row.processors = processors.size();
    if (gathering.asksFor(Need::processors)) row.sockets = facts::SocketsOf(processors, facts::ReadCpuFile).size();
}

/// The parts refer to the table, which must outlive the row.
void ReadFirmwareParts(std::string_view table, Row& row) {
    constexpr std::uint8_t systemType = 1;
    constexpr std::uint8_t enclosureType = 3;
    constexpr std::uint8_t textsType = 11;
    constexpr std::uint8_t resetType = 23;
    constexpr std::uint8_t securityType = 24;
    constexpr std::uint8_t bootStatusType = 32;
    const std::vector<facts::SmbiosStructure> structures = facts::ParseSmbios(table);
    row.system = facts::FirstOfType(structures, systemType);
    row.enclosure = facts::FirstOfType(structures, enclosureType);
    row.security = facts::FirstOfType(structures, securityType);
    row.reset = facts::FirstOfType(structures, resetType);
    row.texts = facts::FirstOfType(structures, textsType);
    row.bootStatus = facts::FirstOfType(structures, bootStatusType);
}

void ReadDomain(const Gathering& gathering, Row& row) {
    constexpr const char* samba = "/etc/samba/smb.conf";
    row.domain = facts::DomainName();
    if (row.isMember) return;
    row.workgroup = facts::WorkgroupName(samba);
    if (!row.workgroup) FailedFile(samba, "Domain and Workgroup", gathering);
}

void ReadNames(const Gathering& gathering, Row& row) {
    constexpr const char* domainKeys = "/etc/krb5.keytab";  // written when the computer joins a domain
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    if (gathering.asksFor(Need::membership)) row.isMember = access(domainKeys, F_OK) == 0;
    if (gathering.asksFor(Need::domain)) ReadDomain(gathering, row);
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

/// Whether the kernel knows of firmware that started it: SMBIOS, UEFI or a device tree.
bool HasFirmware() {
    constexpr const char* places[] = {"/sys/firmware/dmi/tables", "/sys/firmware/efi", "/proc/device-tree"};
    return std::ranges::any_of(places, [](const char* place) { return access(place, F_OK) == 0; });
}

void ReadStartParts(const Gathering& gathering, Row& row) {
    if (gathering.asksFor(Need::panic))
        row.restartsAfterPanic = facts::ReadSystemLine("/proc/sys/kernel/panic").value_or("0") != "0";
    if (gathering.asksFor(Need::bootRom)) row.hasFirmware = HasFirmware();
}

void ReadRunningParts(const Gathering& gathering, Row& row) {
    if (gathering.asksFor(Need::commandLine)) row.commandLine = platform::ReadSystemFile("/proc/cmdline").value_or("");
    if (gathering.asksFor(Need::time)) row.time = facts::LocalTimeOf(facts::MicrosecondsNow());
    if (gathering.asksFor(Need::daylight)) row.isSummerTime = facts::IsSummerTime(row.time, facts::ReadZone().rules);
    if (gathering.asksFor(Need::sessions)) {
        const facts::RecordedSessions recorded = facts::ReadSessions();
        row.user = facts::ConsoleUserOf(recorded.sessions);
        if (recorded.failure != 0) gathering.notice("UserName was left out. " + FailureText(recorded));
    }
    if (gathering.asksFor(Need::memory)) {
        row.memory = facts::MemoryFigure(ReadPart("/proc/meminfo", "Figures of memory", gathering), "MemTotal");
    }
}

WmiStatus GatherOfThisComputer(const Gathering& gathering) {
    return GatherComputerSystem(gathering,
                                gathering.asksFor(Need::firmware) ? facts::ReadSmbiosTable() : facts::SmbiosTable());
}

constexpr ClassInfo classes[] = {
    {u"Win32_ComputerSystem", u"CIM_UnitaryComputerSystem", properties, GatherOfThisComputer, u"Name",
     "the computer: name, maker, memory, processors, domain"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherComputerSystem(const Gathering& gathering, const facts::SmbiosTable& table) {
    TellOfLostTable(gathering, table);
    Row row;
    ReadFirmwareParts(table.bytes, row);
    ReadProcessorParts(gathering, row);
    ReadNames(gathering, row);
    ReadMakersNames(gathering, row);
    ReadStartParts(gathering, row);
    ReadRunningParts(gathering, row);
    gathering.row(&row);
    return wmi_status::ok;
}

}  // namespace kv::wql
