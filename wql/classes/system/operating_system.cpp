// Win32_OperatingSystem: the kernel and the distribution.
#include <algorithm>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <systemd/sd-id128.h>
#include <time.h>
#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

#include "facts/accounts/sessions.h"
#include "facts/hardware/processor_identity.h"
#include "facts/network/host_names.h"
#include "facts/processes/kernel_totals.h"
#include "facts/processes/process_files.h"
#include "facts/schedule/local_time.h"
#include "facts/software/distribution.h"
#include "facts/storage/block_devices.h"
#include "facts/storage/volume_facts.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        kernel = 1,
        release = 2,
        memory = 4,
        processes = 8,
        sessions = 16,
        locale = 32,
        country = 64,
        identity = 128,
        time = 256,
        start = 512,
        installation = 1024,
        host = 2048,
        prettyName = 4096,
        processLimit = 8192,
        role = 16384,
        disks = 32768,
        execution = 65536,
    };
};

struct Row {
    utsname kernel{};
    std::string release;  // os-release
    std::string memory;   // /proc/meminfo
    std::optional<std::uint64_t> processes;
    std::optional<std::uint64_t> sessions;
    std::string locale;
    std::optional<std::string> countryCode;
    std::optional<std::string> identity;
    std::int64_t now = 0;                      // microseconds since 1970
    std::int64_t start = 0;                    // milliseconds since 1970
    std::optional<std::int64_t> installation;  // seconds since 1970
    std::u16string host;
    std::optional<std::string> prettyName;
    std::optional<std::uint64_t> processLimit;
    bool isWorkstation = false;
    std::optional<std::string> systemDevice;
    std::optional<std::string> bootDevice;
    bool isOnUsb = false;
    std::optional<bool> canForbidExecution;  // of data; absent if the processor does not say
};

constexpr std::int64_t microsecondsPerSecond = 1'000'000;
constexpr std::int64_t microsecondsPerMillisecond = 1000;

std::optional<std::string> ManufacturerOf(const Row& row) {
    const std::optional<std::string> vendor = facts::AssignedValue(row.release, "VENDOR_NAME");
    return vendor ? vendor : facts::AssignedValue(row.release, "NAME");
}

/// "35" from "#35~22.04.1-Ubuntu SMP PREEMPT_DYNAMIC ...".
std::optional<std::string> BuildNumberOf(std::string_view version) {
    if (!version.starts_with('#')) return std::nullopt;
    const std::string_view number = version.substr(1, version.find_first_not_of("0123456789", 1) - 1);
    return number.empty() ? std::nullopt : std::optional<std::string>(number);
}

std::optional<std::uint64_t> SumOf(std::optional<std::uint64_t> left, std::optional<std::uint64_t> right) {
    return left && right ? std::optional(*left + *right) : std::nullopt;
}

std::string_view BuildTypeOf(const Row& row) {
    const bool hasProcessors = std::string_view(row.kernel.version).find(" SMP ") != std::string_view::npos;
    return hasProcessors ? "Multiprocessor Free" : "Uniprocessor Free";
}

/// In KB; absent for machines whose limit depends on how the kernel was built.
std::optional<std::uint64_t> MaxProcessMemoryOf(const Row& row) {
    constexpr std::uint64_t half = std::uint64_t{1} << 37;  // KB of the 47 bits that programs get
    constexpr std::uint64_t guardPage = 4;
    return std::string_view(row.kernel.machine) == "x86_64" ? std::optional(half - guardPage) : std::nullopt;
}

/// Programs may execute data only if they say so, which Windows calls opting out.
std::optional<std::uint8_t> ExecutionPolicyOf(const Row& row) {
    constexpr std::uint8_t alwaysOff = 0;
    constexpr std::uint8_t optOut = 3;
    if (!row.canForbidExecution) return std::nullopt;
    return *row.canForbidExecution ? optOut : alwaysOff;
}

/// The one language of the system, if its locale has one.
CimValue LanguagesOf(const Row& row) {
    if (row.locale == "C" || !facts::LanguageNumberOf(row.locale)) return {};
    std::string language = row.locale.substr(0, row.locale.find_first_of(".@"));
    std::replace(language.begin(), language.end(), '_', '-');
    return ListOf(std::vector{language});
}

constexpr auto zero = [](const Row&) { return 0; };
constexpr auto forbidsExecutionIn = [](const Row& row) { return row.canForbidExecution; };
constexpr auto captionIn = [](const Row& row) { return facts::SystemNameOf(row.release, row.kernel); };
constexpr auto swapSizeIn = [](const Row& row) { return facts::MemoryFigure(row.memory, "SwapTotal"); };
constexpr auto rootIn = [](const Row&) { return u"/"; };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"BootDevice", string, Need::disks, "device of the file system that holds /boot", [](const Row& row) { return row.bootDevice; }},
    {u"BuildNumber", string, Need::kernel, "of the kernel, as its builder counts them", [](const Row& row) { return BuildNumberOf(row.kernel.version); }},
    {u"BuildType", string, Need::kernel, "whether the kernel is built for several processors", [](const Row& row) { return BuildTypeOf(row); }},
    {u"Caption", string, Need::release | Need::kernel, "PRETTY_NAME of os-release", captionIn},
    {u"CodeSet", string, Need::locale, "code page of the system's locale, \"65001\" for UTF-8",
        [](const Row& row) { const auto page = facts::CodePageOf(row.locale); return page ? CimValue(std::to_string(*page)) : CimValue(); }},
    {u"CountryCode", string, Need::country, "telephone code of the locale's country", [](const Row& row) { return row.countryCode; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_OperatingSystem"; }},
    {u"CSCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"CSDVersion", string},
    {u"CSName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"CurrentTimeZone", sint16, Need::time, "minutes east of UTC, daylight saving included", [](const Row& row) { return facts::LocalTimeOf(row.now).minutesEast; }},
    {u"DataExecutionPrevention_32BitApplications", boolean, Need::execution, "as DataExecutionPrevention_Available", forbidsExecutionIn},
    {u"DataExecutionPrevention_Available", boolean, Need::execution, "whether the processor can; always TRUE on 64-bit ARM", forbidsExecutionIn},
    {u"DataExecutionPrevention_Drivers", boolean, Need::execution, "as DataExecutionPrevention_Available", forbidsExecutionIn},
    {u"DataExecutionPrevention_SupportPolicy", uint8, Need::execution, "3: all programs but those that ask for executable data; 0 never", [](const Row& row) { return ExecutionPolicyOf(row); }},
    {u"Debug", boolean, Need::kernel, "whether the kernel's release says debug", [](const Row& row) { return std::string_view(row.kernel.release).find("debug") != std::string_view::npos; }},
    {u"Description", string, Need::prettyName, "PRETTY_HOSTNAME of machine-info", [](const Row& row) { return row.prettyName.value_or(""); }},
    {u"Distributed", boolean, 0, "always one computer", [](const Row&) { return false; }},
    {u"EncryptionLevel", uint32},
    {u"ForegroundApplicationBoost", uint8, 0, "0: none", zero},
    {u"FreePhysicalMemory", uint64, Need::memory, "KB that programs can still get without swapping", [](const Row& row) { return facts::AvailableMemory(row.memory); }},
    {u"FreeSpaceInPagingFiles", uint64, Need::memory, "KB, SwapFree", [](const Row& row) { return facts::MemoryFigure(row.memory, "SwapFree"); }},
    {u"FreeVirtualMemory", uint64, Need::memory, "KB, FreePhysicalMemory and free swap",
        [](const Row& row) { return SumOf(facts::AvailableMemory(row.memory), facts::MemoryFigure(row.memory, "SwapFree")); }},
    {u"InstallDate", datetime, Need::installation, "birth of the root file system, else the time of machine-id",
        [](const Row& row) { return row.installation ? CimValue(DmtfTime(*row.installation * microsecondsPerSecond)) : CimValue(); }},
    {u"LargeSystemCache", uint32, 0, "1: files are cached in all memory that programs do not use", [](const Row&) { return 1; }},
    {u"LastBootUpTime", datetime, Need::start, "start of the kernel", [](const Row& row) { return DmtfTime(row.start * microsecondsPerMillisecond); }},
    {u"LocalDateTime", datetime, Need::time, "now", [](const Row& row) { return DmtfTime(row.now); }},
    {u"Locale", string, Need::locale, "Windows' number of the locale in hexadecimal; 007F for \"C\"",
        [](const Row& row) { const auto number = facts::LanguageNumberOf(row.locale); return number ? CimValue(fmt::format("{:04x}", *number)) : CimValue(); }},
    {u"Manufacturer", string, Need::release, "VENDOR_NAME or NAME of os-release", [](const Row& row) { return ManufacturerOf(row); }},
    {u"MaxNumberOfProcesses", uint32, Need::processLimit, "pid_max", [](const Row& row) { return row.processLimit; }},
    {u"MaxProcessMemorySize", uint64, Need::kernel, "KB that a program can address; only of x86-64", [](const Row& row) { return MaxProcessMemoryOf(row); }},
    {u"MUILanguages", ArrayOf(string), Need::locale, "the one of the system's locale", [](const Row& row) { return LanguagesOf(row); }},
    {u"Name", string, Need::release | Need::kernel, "as Caption", captionIn},
    {u"NumberOfLicensedUsers", uint32, 0, "0: no limit", zero},
    {u"NumberOfProcesses", uint32, Need::processes, "directories of /proc; NULL where it hides those of other users", [](const Row& row) { return row.processes; }},
    {u"NumberOfUsers", uint32, Need::sessions, "sessions of utmp or the login manager", [](const Row& row) { return row.sessions; }},
    {u"OperatingSystemSKU", uint32, 0, "0: not an edition of Windows", zero},
    {u"Organization", string},
    {u"OSArchitecture", string, Need::kernel, "64-bit or 32-bit, of the kernel", [](const Row& row) { return facts::WordWidthOf(row.kernel.machine); }},
    {u"OSLanguage", uint32, Need::locale, "Windows' number of the locale", [](const Row& row) { return facts::LanguageNumberOf(row.locale); }},
    {u"OSProductSuite", uint32, 0, "0: no suite of Windows", zero},
    {u"OSType", uint16, 0, "36: Linux", [](const Row&) { return 36; }},
    {u"OtherTypeDescription", string},
    {u"PAEEnabled", boolean},
    {u"PlusProductID", string},
    {u"PlusVersionNumber", string},
    {u"PortableOperatingSystem", boolean, Need::disks, "whether the root file system's device is connected by USB", [](const Row& row) { return row.isOnUsb; }},
    {u"Primary", boolean, 0, "it is the one that runs", [](const Row&) { return true; }},
    {u"ProductType", uint32, Need::role, "1 with a display manager, else 3, server", [](const Row& row) { return row.isWorkstation ? 1 : 3; }},
    {u"QuantumLength", uint8},
    {u"QuantumType", uint8},
    {u"RegisteredUser", string},
    {u"SerialNumber", string, Need::identity, "made from machine-id, which must not be shown itself", [](const Row& row) { return row.identity; }},
    {u"ServicePackMajorVersion", uint16, 0, "0: no service pack", zero},
    {u"ServicePackMinorVersion", uint16, 0, "0: no service pack", zero},
    {u"SizeStoredInPagingFiles", uint64, Need::memory, "KB, SwapTotal", swapSizeIn},
    {u"Status", string, 0, "it runs", [](const Row&) { return u"OK"; }},
    {u"SuiteMask", uint32, 0, "as OSProductSuite", zero},
    {u"SystemDevice", string, Need::disks, "device of the root file system", [](const Row& row) { return row.systemDevice; }},
    {u"SystemDirectory", string, 0, "as SystemDrive", rootIn},
    {u"SystemDrive", string, 0, "the Win32_LogicalDisk that the system is on", rootIn},
    {u"TotalSwapSpaceSize", uint64, Need::memory, "KB, SwapTotal", swapSizeIn},
    {u"TotalVirtualMemorySize", uint64, Need::memory, "KB, MemTotal and SwapTotal",
        [](const Row& row) { return SumOf(facts::MemoryFigure(row.memory, "MemTotal"), facts::MemoryFigure(row.memory, "SwapTotal")); }},
    {u"TotalVisibleMemorySize", uint64, Need::memory, "KB, MemTotal", [](const Row& row) { return facts::MemoryFigure(row.memory, "MemTotal"); }},
    {u"Version", string, Need::kernel, "release of the kernel", [](const Row& row) { return row.kernel.release; }},
    {u"WindowsDirectory", string, 0, "as SystemDrive", rootIn},
};
// clang-format on

/// When a file was created, in seconds since 1970; absent if the file system does not record it.
std::optional<std::int64_t> ReadBirth(const char* path) {
    struct statx facts {};
    const bool isKnown = statx(AT_FDCWD, path, 0, STATX_BTIME, &facts) == 0 && (facts.stx_mask & STATX_BTIME) != 0;
    return isKnown && facts.stx_btime.tv_sec > 0 ? std::optional(facts.stx_btime.tv_sec) : std::nullopt;
}

std::optional<std::int64_t> ReadChange(const char* path) {
    struct stat facts {};
    return stat(path, &facts) == 0 ? std::optional<std::int64_t>(facts.st_mtim.tv_sec) : std::nullopt;
}

std::optional<std::int64_t> ReadInstallation() {
    const std::optional<std::int64_t> birth = ReadBirth("/");
    return birth ? birth : ReadChange("/etc/machine-id");  // written at the first start
}

/// A number that identifies this installation, from which its machine-id cannot be computed.
std::optional<std::string> ReadIdentity() {
    constexpr sd_id128_t purpose = {
        {0x5c, 0x0e, 0x1d, 0xa6, 0x61, 0x3f, 0x4a, 0x52, 0x9b, 0x7e, 0x40, 0xc8, 0xd4, 0x5b, 0x91, 0x23}};
    sd_id128_t identity{};
    if (!platform::OpenOrdinaryFile("/etc/machine-id")) return std::nullopt;  // the library would wait for a pipe
    if (sd_id128_get_machine_app_specific(purpose, &identity) < 0) return std::nullopt;
    char text[SD_ID128_STRING_MAX];
    return std::string(sd_id128_to_string(identity, text));
}

std::optional<std::string> DeviceAt(const facts::Mount* mount) {
    return mount != nullptr && mount->source.starts_with("/dev/") ? std::optional(mount->source) : std::nullopt;
}

/// Reads what the system started from; nothing if the root is not on a device, as in a container.
void ReadDiskParts(const Gathering& gathering, Row& row) {
    const std::vector<facts::Mount> disks =
        facts::DisksAmong(facts::ParseMountInfo(ReadPart("/proc/self/mountinfo", "Devices", gathering)));
    const facts::Mount* root = facts::DiskHolding("/", disks);
    row.systemDevice = DeviceAt(root);
    row.bootDevice = DeviceAt(facts::DiskHolding("/boot", disks));
    row.isOnUsb = root != nullptr && facts::IsOnUsb(facts::BlockDeviceOf(*root));
}

/// The processor is asked itself: /proc/cpuinfo is slow to read where there are many.
std::optional<bool> CanForbidExecution() {
#if defined(__x86_64__) || defined(__i386__)
    constexpr unsigned extendedFeatures = 0x80000001;
    constexpr unsigned noExecuteBit = 1U << 20;
    unsigned unused = 0;
    unsigned features = 0;
    if (__get_cpuid(extendedFeatures, &unused, &unused, &unused, &features) == 0) return std::nullopt;
    return (features & noExecuteBit) != 0;
#elif defined(__aarch64__)
    return true;
#else
    return std::nullopt;
#endif
}

void ReadKernelParts(const Gathering& gathering, Row& row) {
    if (gathering.asksFor(Need::kernel)) uname(&row.kernel);
    if (gathering.asksFor(Need::memory)) row.memory = ReadPart("/proc/meminfo", "Figures of memory", gathering);
    if (gathering.asksFor(Need::processes)) row.processes = CountAllProcesses(gathering);
    if (gathering.asksFor(Need::processLimit)) row.processLimit = facts::ReadSystemNumber("/proc/sys/kernel/pid_max");
    if (gathering.asksFor(Need::time)) row.now = facts::MicrosecondsNow();
    if (gathering.asksFor(Need::execution)) row.canForbidExecution = CanForbidExecution();
    if (gathering.asksFor(Need::disks)) ReadDiskParts(gathering, row);
    if (gathering.asksFor(Need::start)) row.start = facts::SystemStartMilliseconds();
}

void ReadDistributionParts(const Gathering& gathering, Row& row) {
    if (gathering.asksFor(Need::release)) row.release = facts::ReadOsRelease();
    if (gathering.asksFor(Need::locale | Need::country)) row.locale = facts::ReadLocaleName();
    if (gathering.asksFor(Need::country)) row.countryCode = facts::ReadCountryCode(row.locale);
    if (gathering.asksFor(Need::identity)) row.identity = ReadIdentity();
    if (gathering.asksFor(Need::installation)) row.installation = ReadInstallation();
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    if (gathering.asksFor(Need::prettyName)) row.prettyName = facts::ReadPrettyHostName();
    if (gathering.asksFor(Need::role)) row.isWorkstation = facts::IsWorkstation();
}

WmiStatus GatherOperatingSystem(const Gathering& gathering) {
    Row row;
    ReadKernelParts(gathering, row);
    ReadDistributionParts(gathering, row);
    if (gathering.asksFor(Need::sessions)) {
        const facts::RecordedSessions recorded = facts::ReadSessions();
        if (recorded.areRecorded) row.sessions = recorded.sessions.size();
        if (recorded.failure != 0) gathering.notice("NumberOfUsers was left out. " + FailureText(recorded));
    }
    gathering.row(&row);
    return wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_OperatingSystem", u"CIM_OperatingSystem", properties, GatherOperatingSystem, u"",
     "the system: version, memory, time since the start"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql
