// This machine as uname, lscpu, free, df, getent and date see it.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>
#include <unistd.h>

#include "facts/schedule/zone_rules.h"
#include "facts/system_text.h"
#include "tests/support/linux/shell.h"
#include "tests/support/linux/zone_setting.h"
#include "tests/support/wmi_query.h"
#include "wql/cim_value.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;

using WmiThisMachine = WmiTest;

// clang-format off
TEST_F(WmiThisMachine, IsWhatItsOwnToolsShow) {
    constexpr const char* socket = "Win32_Processor WHERE DeviceID = 'CPU0'";
    const struct {
        const char* source;
        const char* properties;
        const char* command;
        double tolerance = 0;  // of the sum over all rows; 0: the texts are compared, line by line
    } rows[] = {
        {"Win32_OperatingSystem", "Version,CSName,OSArchitecture,MaxNumberOfProcesses",
         "echo $(uname -r) $(hostname -s) $(getconf LONG_BIT)-bit $(sysctl -n kernel.pid_max)"},
        {"Win32_OperatingSystem", "Caption", ". /etc/os-release; echo $PRETTY_NAME"},
        {"Win32_OperatingSystem", "BuildNumber", "uname -v | sed 's/^#\\([0-9]*\\).*/\\1/'"},
        {"Win32_OperatingSystem", "TotalVisibleMemorySize,SizeStoredInPagingFiles,TotalVirtualMemorySize",
         "echo $(free -kt | awk 'NR > 1 {print $2}')"},
        {"Win32_OperatingSystem", "CurrentTimeZone", "date +%:::z | awk -F: '{print $1 * 60 + ($1 < 0 ? -$2 : $2)}'"},
        {"Win32_OperatingSystem", "FreePhysicalMemory", "free -k | awk '/^Mem/ {print $7}'", 1 << 20},
        {"Win32_OperatingSystem", "FreeVirtualMemory", "free -k | awk '/^Mem/ {m = $7} /^Swap/ {print m + $4}'",
         1 << 20},
        {"Win32_OperatingSystem", "NumberOfProcesses", "ps -e --no-headers | wc -l", 50},
        {"Win32_OperatingSystem WHERE ForegroundApplicationBoost = 0 AND LargeSystemCache = 1 AND OSProductSuite = 0 "
         "AND SuiteMask = 0 AND OperatingSystemSKU = 0", "Primary,Distributed", "echo true false"},
        {"Win32_OperatingSystem", "BuildType",
         "uname -v | grep -q ' SMP ' && echo Multiprocessor Free || echo Uniprocessor Free"},
        {"Win32_OperatingSystem", "DataExecutionPrevention_Available,DataExecutionPrevention_SupportPolicy",
         "[ $(uname -m) = x86_64 ] && { grep -qw nx /proc/cpuinfo && echo true 3 || echo false 0; }"},
        {"Win32_OperatingSystem", "SystemDevice", "findmnt -no SOURCE / | grep '^/dev/[a-z0-9/-]*$'"},
        {"Win32_OperatingSystem", "BootDevice", "findmnt -no SOURCE -T /boot | grep '^/dev/[a-z0-9/-]*$'"},
        {"Win32_OperatingSystem", "PortableOperatingSystem",
         "[ -e /sys/bus/usb/devices/usb1 ] || echo false"},
        {"Win32_ComputerSystem", "AutomaticResetCapability,AutomaticResetBootOption",
         "[ $(sysctl -n kernel.panic) != 0 ] && echo true true || echo false false"},
        {"Win32_ComputerSystem", "Domain,Workgroup,PartOfDomain",
         "[ -e /etc/krb5.keytab -o -e /etc/samba/smb.conf ] || echo WORKGROUP WORKGROUP false"},
        {"Win32_ComputerSystem", "Name,TotalPhysicalMemory,NumberOfLogicalProcessors,NumberOfProcessors",
         "echo $(hostname -s) $(free -b | awk '/^Mem/ {print $2}') $(getconf _NPROCESSORS_ONLN) "
         "$(lscpu -p=SOCKET | grep -v '^#' | sort -u | wc -l)"},
        {"Win32_ComputerSystem", "HypervisorPresent", "lscpu | grep -q '^Hypervisor v' && echo true || echo false"},
        {socket, "Name", "uname -m | grep -q x86 && lscpu | sed -n 's/^Model name: *//p'"},
        {socket, "NumberOfCores", "lscpu -p=CORE,SOCKET | grep ',0$' | sort -u | wc -l"},
        {socket, "NumberOfLogicalProcessors", "lscpu -p=CPU,SOCKET | grep -c ',0$'"},
        {socket, "Level", "uname -m | grep -q x86 && lscpu | sed -n 's/^CPU family: *//p'"},
        {"Win32_Processor", "L2CacheSize", "lscpu -BC=NAME,ALL-SIZE | awk '/^L2/ {print $2 / 1024}'", 0.5},
        {"Win32_Processor", "L3CacheSize", "lscpu -BC=NAME,ALL-SIZE | awk '/^L3/ {print $2 / 1024}'", 0.5},
        {"Win32_Processor", "LoadPercentage",  // the first query counts since the system's start
         "awk -v sockets=$(lscpu -p=SOCKET | grep -v '^#' | sort -u | wc -l) '/^cpu / {idle = $5 + $6; "
         "print sockets * (100 - 100 * idle / (idle + $2 + $3 + $4 + $7 + $8 + $9))}' /proc/stat", 2},
        {"Win32_PerfFormattedData_PerfOS_System", "SystemUpTime", "cut -d' ' -f1 /proc/uptime", 1.5},
        {"Win32_Account WHERE SID = 'S-1-22-1-0'", "Caption", "printf '%s\\\\root' $(hostname -s)"},
        {"Win32_UserAccount", "Name,SID", "getent -s files passwd | awk -F: '{print $1, \"S-1-22-1-\" $3}'"},
        {"Win32_Group WHERE LocalAccount = TRUE", "Name,SID",
         "getent -s files group | awk -F: '{print $1, \"S-1-22-2-\" $3}'"},
        {"Win32_DiskDrive", "DeviceID,Size,BytesPerSector,Partitions",
         "lsblk -bnro NAME,TYPE,SIZE,LOG-SEC,PKNAME | awk '$2 == \"part\" {++parts[$5]} "
         "$2 == \"disk\" && $1 !~ /^(zram|nbd|ram|mmcblk.*boot)/ {size[$1] = $3 \" \" $4} "
         "END {for (name in size) print \"/dev/\" name, size[name], parts[name] + 0}' | LC_ALL=C sort"},
        {"Win32_LogicalDisk WHERE DeviceID = '/'", "Size", "df -B1 --output=used,avail / | awk 'NR == 2 {print $1 + $2}'",
         256 << 20},
        {"Win32_Volume WHERE DeviceID = '/'", "FreeSpace", "df -B1 --output=avail / | tail -n 1", 256 << 20},
        {"Win32_LogicalDisk WHERE DeviceID = '/'", "FileSystem", "findmnt -no FSTYPE /"},
        {"Win32_CDROMDrive", "DeviceID", "lsblk -nro NAME,TYPE | awk '$2 == \"rom\" {print \"/dev/\" $1}' | sort"},
        {"Win32_DiskPartition", "Caption,Size,StartingOffset",
         "lsblk -bnro NAME,TYPE,SIZE,START | awk '$2 == \"part\" && $1 !~ /^(loop|md|nbd|zram)/ "
         "{print \"/dev/\" $1, $3, $4 * 512}' | LC_ALL=C sort -V"},
    };
    for (const auto& row : rows) {
        const std::string expected = RunShell(row.command).output;
        if (Trimmed(expected).empty()) continue;  // this machine has no such line
        const std::string selected = fmt::format("{} FROM {}", row.properties, row.source);
        if (row.tolerance == 0) {
            EXPECT_EQ(TextsOf(selected), Trimmed(expected)) << selected;
        } else {
            double figure = 0;
            for (const std::string& text : RowTexts(selected)) figure += std::stod(text);
            const double before = std::stod(expected), after = std::stod(RunShell(row.command).output);
            const auto [least, most] = std::minmax(before, after);
            EXPECT_NEAR(figure, std::clamp(figure, least, most), row.tolerance) << selected;
        }
    }
}
// clang-format on

TEST_F(WmiThisMachine, HasTheTimesOfTheClock) {
    const ZoneSetting setting("<+0545>-5:45");
    for (const auto& [className, program] :
         {std::pair<std::string, std::string>{"Win32_LocalTime", "date"}, {"Win32_UTCTime", "date -u"}}) {
        const std::string date = program + " '+%-Y %-m %-d %-H %-M %-S %q %w'";
        std::string before, shown;
        do {
            before = RunShell(date).output;
            shown = TextsOf("Year,Month,Day,Hour,Minute,Second,Quarter,DayOfWeek FROM " + className);
        } while (RunShell(date).output != before);
        EXPECT_EQ(shown, before);
        EXPECT_LT(std::stoi(TextsOf("Milliseconds FROM " + className)), 1000) << className;
    }
    EXPECT_EQ(TextsOf("CurrentTimeZone FROM Win32_OperatingSystem"), "345");
    constexpr double tolerance = 10;  // seconds; a wrong zone would be minutes off
    const auto secondsAgo = [](const char* property) {
        const std::string text = TextsOf(property + std::string(" FROM Win32_OperatingSystem"));
        const std::int64_t microseconds = MicrosecondsOfDmtf(platform::WideFromUtf8(text)).value_or(0);
        return static_cast<double>(std::time(nullptr)) - static_cast<double>(microseconds) / 1e6;
    };
    EXPECT_NEAR(secondsAgo("LocalDateTime"), 0, tolerance);
    EXPECT_NEAR(secondsAgo("LastBootUpTime"), std::stod(RunShell("cut -d' ' -f1 /proc/uptime").output), tolerance);
}

TEST_F(WmiThisMachine, HasTheTimeZoneThatIsSet) {
    const std::string own = ReadZone().name;
    constexpr const char* rules =
        "Caption,Bias,DaylightBias,DaylightName,DaylightMonth,DaylightDay,DaylightDayOfWeek,DaylightHour,StandardName,"
        "StandardMonth,StandardDay,SettingID";
    constexpr const char* newfoundland = "(UTC-03:30) America/St_Johns -210 -60 NDT 3 2 0 2 NST 11 1 America/St_Johns";
    const std::tuple<const char*, const char*, std::string> rows[] = {
        {"America/St_Johns", rules, newfoundland},
        {"Europe/Dublin", "Caption,Bias,DaylightBias,DaylightName,DaylightMonth,StandardName,StandardMonth",
         "(UTC) Europe/Dublin 0 -60 IST 3 GMT 10"},
        {":/usr/share/zoneinfo/America/St_Johns", rules, newfoundland},
        {"/etc/localtime", "SettingID", own.empty() ? "NULL" : own},
        {"", "Caption,Bias,StandardName,DaylightName,DaylightBias", "(UTC) UTC 0 UTC UTC 0"},
    };
    if (access("/usr/share/zoneinfo/America/St_Johns", F_OK) != 0) GTEST_SKIP() << "time zones are not installed";
    for (const auto& [zone, properties, shown] : rows) {
        const ZoneSetting setting(zone);
        EXPECT_EQ(TextsOf(properties + std::string(" FROM Win32_TimeZone")), shown) << zone;
        const bool isShifted =
            TextsOf("CurrentTimeZone FROM Win32_ComputerSystem") != TextsOf("Bias FROM Win32_TimeZone");
        EXPECT_EQ(TextsOf("DaylightInEffect FROM Win32_ComputerSystem"), isShifted ? "true" : "false") << zone;
    }
}

}  // namespace
}  // namespace kv::test
