#include "wql/classes/hardware/processor.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <iterator>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "facts/hardware/processor_identity.h"
#include "facts/network/host_names.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/hardware/firmware_table.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        host = 1,
        machine = 2,
        firmware = 4,
        load = 8,
        caches = 16,
        maxClock = 32,
        currentClock = 64,
        cores = 128,
    };
};

struct Row {
    facts::Socket socket;
    std::size_t number = 0;
    facts::SmbiosStructure firmware;  // empty if the firmware does not describe it
    std::u16string host;
    std::string machine;
    std::uint16_t load = 0;
    std::uint32_t cores = 0;
    facts::CacheSizes caches;
    std::optional<std::uint64_t> maxClock;      // MHz
    std::optional<std::uint64_t> currentClock;  // MHz

    const facts::CpuBlock& first() const { return socket.processors.front(); }
};

constexpr std::uint8_t isVoltageInUse = 0x80;  // without it the bits tell what the socket supports

/// In tenths of a volt.
std::optional<std::uint32_t> VoltageOf(const facts::SmbiosStructure& firmware) {
    const std::uint8_t voltage = firmware.byteAt(0x11);
    return facts::KnownNumber((voltage & isVoltageInUse) != 0 ? voltage - isVoltageInUse : 0U);
}

std::optional<std::uint32_t> VoltageCapsOf(const facts::SmbiosStructure& firmware) {
    const std::uint8_t voltage = firmware.byteAt(0x11);
    return facts::KnownNumber((voltage & isVoltageInUse) == 0 ? voltage : 0);
}

std::uint16_t FamilyOf(const facts::SmbiosStructure& firmware) {
    constexpr std::uint8_t seeWord = 0xFE;
    constexpr std::uint16_t unknown = 2;
    const std::uint8_t family = firmware.byteAt(0x06);
    if (family == seeWord) return firmware.wordAt(0x28);
    return family == 0 ? unknown : family;
}

/// The features and the signature of the CPUID instruction's first leaf, from the firmware or else from the processor.
std::optional<std::string> ProcessorIdOf(const facts::SmbiosStructure& firmware) {
    std::uint32_t signature = firmware.doubleWordAt(0x08);
    std::uint32_t features = firmware.doubleWordAt(0x0C);
#if defined(__x86_64__) || defined(__i386__)
    std::uint32_t unused = 0;
    if (signature == 0) __get_cpuid(1, &signature, &unused, &unused, &features);
#endif
    if (signature == 0) return std::nullopt;
    return fmt::format("{:08X}{:08X}", features, signature);
}

std::optional<bool> CanHostMachines(const Row& row) {
    const std::optional<bool> intel = row.first().hasFlag("vmx");
    return intel ? std::optional(*intel || *row.first().hasFlag("svm")) : std::nullopt;
}

std::optional<bool> HasNestedPaging(const Row& row) {
    const std::optional<bool> intel = row.first().hasFlag("ept");
    return intel ? std::optional(*intel || *row.first().hasFlag("npt")) : std::nullopt;
}

/// The processor's name for itself, or the firmware's for one that does not have a name, as on ARM.
std::optional<std::string> ProcessorName(const Row& row) {
    const std::optional<std::string> firmwareName = row.firmware.stringAt(0x10);
    return row.first().field("model name").empty() && firmwareName ? firmwareName : facts::ModelNameOf(row.first());
}

std::string DeviceIdOf(const Row& row) { return fmt::format("CPU{}", row.number); }

std::uint16_t WidthOf(const Row& row) {
    constexpr std::uint16_t wide = 64;
    constexpr std::uint16_t narrow = 32;
    return facts::WordWidthOf(row.machine) == "64-bit" ? wide : narrow;
}

std::uint8_t KnownOr(std::uint8_t number, std::uint8_t unknown) { return number != 0 ? number : unknown; }

/// Such as "Model 85, Stepping 7".
std::optional<std::string> VersionOf(const Row& row) {
    const std::optional<std::uint64_t> model = row.first().numberIn("model");
    const std::optional<std::uint64_t> stepping = row.first().numberIn("stepping");
    if (!model || !stepping) return std::nullopt;
    return fmt::format("Model {}, Stepping {}", *model, *stepping);
}

std::uint8_t StatusOf(const facts::SmbiosStructure& firmware) {
    constexpr std::uint8_t statusBits = 7;
    constexpr std::uint8_t enabled = 1;
    return firmware.formatted.empty() ? enabled : firmware.byteAt(0x18) & statusBits;
}

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"AddressWidth", uint16, Need::machine, "bits, of the running kernel", [](const Row& row) { return WidthOf(row); }},
    {u"Architecture", uint16, Need::machine, "9 x64, 12 ARM64, 0 x86, 5 ARM", [](const Row& row) { return facts::ArchitectureOf(row.machine); }},
    {u"AssetTag", string, Need::firmware, "of the firmware", [](const Row& row) { return row.firmware.stringAt(0x21); }},
    {u"Availability", uint16, 0, "3: running", [](const Row&) { return 3; }},
    {u"Caption", string, 0, "as Description", [](const Row& row) { return facts::DescriptionOf(row.first()); }},
    {u"Characteristics", uint32, Need::firmware, "bits of SMBIOS", [](const Row& row) { return facts::KnownNumber(row.firmware.wordAt(0x26)); }},
    {u"ConfigManagerErrorCode", uint32, 0, "0: it works", [](const Row&) { return 0; }},
    {u"ConfigManagerUserConfig", boolean, 0, "always FALSE: nobody sets up its resources", [](const Row&) { return false; }},
    {u"CpuStatus", uint16, Need::firmware, "1 enabled, 4 idle", [](const Row& row) { return StatusOf(row.firmware); }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_Processor"; }},
    {u"CurrentClockSpeed", uint32, Need::currentClock, "MHz, mean of the logical processors", [](const Row& row) { return row.currentClock; }},
    {u"CurrentVoltage", uint16, Need::firmware, "tenths of a volt", [](const Row& row) { return VoltageOf(row.firmware); }},
    {u"DataWidth", uint16, Need::machine, "as AddressWidth", [](const Row& row) { return WidthOf(row); }},
    {u"Description", string, 0, "family, model and stepping", [](const Row& row) { return facts::DescriptionOf(row.first()); }},
    {u"DeviceID", string, 0, "CPU0 and so on", [](const Row& row) { return DeviceIdOf(row); }},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"ExtClock", uint32, Need::firmware, "MHz", [](const Row& row) { return facts::KnownNumber(row.firmware.wordAt(0x12)); }},
    {u"Family", uint16, Need::firmware, "by the list of SMBIOS, 2 unknown", [](const Row& row) { return FamilyOf(row.firmware); }},
    {u"InstallDate", datetime},
    {u"L2CacheSize", uint32, Need::caches, "KB, the sum of the socket's caches", [](const Row& row) { return row.caches.secondLevel; }},
    {u"L2CacheSpeed", uint32},
    {u"L3CacheSize", uint32, Need::caches, "KB, the sum of the socket's caches; 0 if the system tells of none", [](const Row& row) { return row.caches.thirdLevel.value_or(0); }},
    {u"L3CacheSpeed", uint32, 0, "MHz, always 0: unknown", [](const Row&) { return 0; }},
    {u"LastErrorCode", uint32},
    {u"Level", uint16, 0, "family; on ARM the architecture's version", [](const Row& row) { return facts::LevelOf(row.first()); }},
    {u"LoadPercentage", uint16, Need::load, "busy share since the previous query, from /proc/stat", [](const Row& row) { return row.load; }},
    {u"Manufacturer", string, 0, "vendor_id or implementer", [](const Row& row) { return facts::ManufacturerOf(row.first()); }},
    {u"MaxClockSpeed", uint32, Need::maxClock | Need::firmware, "MHz without a boost, if the system knows", [](const Row& row) { return row.maxClock; }},
    {u"Name", string, Need::firmware, "model name", [](const Row& row) { return ProcessorName(row); }},
    {u"NumberOfCores", uint32, Need::cores, "online", [](const Row& row) { return row.cores; }},
    {u"NumberOfEnabledCore", uint32, Need::cores, "online", [](const Row& row) { return row.cores; }},
    {u"NumberOfLogicalProcessors", uint32, 0, "online", [](const Row& row) { return row.socket.processors.size(); }},
    {u"OtherFamilyDescription", string},
    {u"PartNumber", string, Need::firmware, "of the firmware", [](const Row& row) { return row.firmware.stringAt(0x22); }},
    {u"PNPDeviceID", string},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean, 0, "always FALSE: it cannot be put to sleep by itself", [](const Row&) { return false; }},
    {u"ProcessorId", string, Need::firmware, "CPUID's features and signature", [](const Row& row) { return ProcessorIdOf(row.firmware); }},
    {u"ProcessorType", uint16, 0, "3: central processor", [](const Row&) { return 3; }},
    {u"Revision", uint16, 0, "model and stepping, a byte each", [](const Row& row) { return facts::RevisionOf(row.first()); }},
    {u"Role", string, 0, "central processor", [](const Row&) { return u"CPU"; }},
    {u"SecondLevelAddressTranslationExtensions", boolean, 0, "flags ept, npt", [](const Row& row) { return HasNestedPaging(row); }},
    {u"SerialNumber", string, Need::firmware, "of the firmware", [](const Row& row) { return row.firmware.stringAt(0x20); }},
    {u"SocketDesignation", string, Need::firmware, "the socket's label, else as DeviceID",
        [](const Row& row) { return row.firmware.stringAt(0x04).value_or(DeviceIdOf(row)); }},
    {u"Status", string, 0, "it runs", [](const Row&) { return u"OK"; }},
    {u"StatusInfo", uint16, 0, "3: enabled", [](const Row&) { return 3; }},
    {u"Stepping", string, 0, "stepping; NULL on ARM", [](const Row& row) { return row.first().numberIn("stepping") ? CimValue(row.first().field("stepping")) : CimValue(); }},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"ThreadCount", uint32, 0, "as NumberOfLogicalProcessors", [](const Row& row) { return row.socket.processors.size(); }},
    {u"UniqueId", string},
    {u"UpgradeMethod", uint16, Need::firmware, "by the list of SMBIOS, 2 unknown", [](const Row& row) { return KnownOr(row.firmware.byteAt(0x19), 2); }},
    {u"Version", string, 0, "model and stepping in words; NULL on ARM", [](const Row& row) { return VersionOf(row); }},
    {u"VirtualizationFirmwareEnabled", boolean, 0, "as VMMonitorModeExtensions: if the firmware forbids it, the flags are absent", [](const Row& row) { return CanHostMachines(row); }},
    {u"VMMonitorModeExtensions", boolean, 0, "flags vmx, svm", [](const Row& row) { return CanHostMachines(row); }},
    {u"VoltageCaps", uint32, Need::firmware, "bits for 5, 3.3 and 2.9 V", [](const Row& row) { return VoltageCapsOf(row.firmware); }},
};
// clang-format on

facts::TimesByProcessor ReadTimes() {
    facts::TimesByProcessor all;
    const std::string stat = platform::ReadSystemFile("/proc/stat").value_or("");
    for (const facts::ProcessorTimes& times : facts::ParseProcessorTimes(stat)) {
        all[times.number] = times;
    }
    return all;
}

void TakeLoadSamples(ProcessorSources& sources) {
    // Never destroyed: a query that is stuck may outlive the program's statics.
    static facts::LoadHistory& history = *new facts::LoadHistory;
    sources.loadTo = ReadTimes();
    sources.loadFrom = history.Exchange(sources.loadTo, std::chrono::steady_clock::now());
}

/// The firmware's structures of processors in its order, without empty sockets.
std::vector<facts::SmbiosStructure> ProcessorsIn(const std::vector<facts::SmbiosStructure>& structures) {
    constexpr std::uint8_t processor = 4;
    constexpr std::uint8_t isThere = 0x40;
    std::vector<facts::SmbiosStructure> processors;
    std::ranges::copy_if(structures, std::back_inserter(processors), [](const facts::SmbiosStructure& structure) {
        return structure.type == processor && (structure.byteAt(0x18) & isThere) != 0;
    });
    return processors;
}

/// MHz from the system, else from the firmware, else as it is now.
std::optional<std::uint64_t> MaxClockOf(const Row& row, const facts::CpuFiles& files) {
    if (const std::optional<std::uint64_t> clock = facts::MaxClockOf(row.socket, files)) return clock;
    const std::uint16_t byFirmware = row.firmware.wordAt(0x16);
    return byFirmware != 0 ? byFirmware : facts::ClockOf(row.socket, files);
}

void FillParts(const Gathering& gathering, const facts::CpuFiles& files, Row& row) {
    if (gathering.asksFor(Need::cores)) row.cores = facts::CoresOf(row.socket, files);
    if (gathering.asksFor(Need::caches)) row.caches = facts::CachesOf(row.socket, files);
    if (gathering.asksFor(Need::maxClock)) row.maxClock = MaxClockOf(row, files);
    if (gathering.asksFor(Need::currentClock)) row.currentClock = facts::ClockOf(row.socket, files);
}

WmiStatus GatherOfThisComputer(const Gathering& gathering) {
    const std::string cpuInfo = facts::ReadCpuInfo();
    if (cpuInfo.empty()) return FailedFile("/proc/cpuinfo", "Processors", gathering);
    const facts::SmbiosTable firmware =
        gathering.asksFor(Need::firmware) ? facts::ReadSmbiosTable() : facts::SmbiosTable();
    TellOfLostTable(gathering, firmware);
    const std::string machine = gathering.asksFor(Need::machine) ? facts::MachineName() : "";
    ProcessorSources sources{cpuInfo, firmware.bytes, machine, facts::ReadCpuFile, {}, {}};
    if (gathering.asksFor(Need::load)) TakeLoadSamples(sources);
    return GatherProcessors(gathering, sources);
}

constexpr ClassInfo classes[] = {{u"Win32_Processor", u"CIM_Processor", properties, GatherOfThisComputer, u"DeviceID",
                                  "processors, one for each socket: model, cores, load, clock rate"}};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherProcessors(const Gathering& gathering, const ProcessorSources& sources) {
    const std::vector<facts::SmbiosStructure> firmware = ProcessorsIn(facts::ParseSmbios(sources.firmware));
    Row row;
    row.machine = sources.machine;
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    for (facts::Socket& socket : facts::SocketsOf(facts::ParseCpuInfo(sources.cpuInfo), sources.files)) {
        row.socket = std::move(socket);
        row.firmware = row.number < firmware.size() ? firmware[row.number] : facts::SmbiosStructure();
        row.load = facts::BusyPercent(row.socket.processors, sources.loadFrom, sources.loadTo);
        FillParts(gathering, sources.files, row);
        if (!gathering.row(&row)) break;
        ++row.number;
    }
    return wmi_status::ok;
}

}  // namespace kv::wql
