// The classes of the system itself: the tables of all classes, the texts of firmware and kernel, and this machine as
// uname, lscpu, free, getent and date see it.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "facts/schedule/local_time.h"
#include "facts/schedule/zone_rules.h"
#include "facts/system_text.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/shell.h"
#include "tests/support/linux/zone_setting.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;
using namespace std::chrono_literals;
using platform::Utf8FromWide;

TEST(WmiClasses, HaveTheirSuperclassesPropertiesAndMeanings) {
    for (const ClassInfo* classInfo : AllClasses()) {
        const std::string name = Utf8FromWide(classInfo->name);
        EXPECT_EQ(FindClass(classInfo->name), classInfo) << name << ": there is another of that name";
        for (const PropertyInfo& property : classInfo->properties) {
            EXPECT_EQ(property.read == nullptr, property.meaning.empty())
                << name << "." << Utf8FromWide(property.name)
                << ": a property that is read needs a meaning, and no other";
        }
        if (classInfo->superclass.empty()) continue;
        const ClassInfo* superclass = FindClass(classInfo->superclass);
        ASSERT_NE(superclass, nullptr) << name;
        for (const PropertyInfo& inherited : superclass->properties) {
            const PropertyInfo* own = FindProperty(*classInfo, inherited.name);
            EXPECT_TRUE(own != nullptr && own->type == inherited.type)
                << name << "." << Utf8FromWide(inherited.name) << " of " << Utf8FromWide(superclass->name);
        }
    }
}

using WmiThisMachine = WmiTest;

/// The sum of a property over all rows.
double PropertySum(const WmiResult& result, const std::string& property) {
    double sum = 0;
    for (const WmiRow& row : result.rows) sum += std::strtod(PropertyText(row, property).c_str(), nullptr);
    return sum;
}

// clang-format off
TEST_F(WmiThisMachine, IsWhatItsOwnToolsShow) {
    constexpr const char* socket = "Win32_Processor WHERE DeviceID = 'CPU0'";
    const struct {
        const char* source;
        const char* properties;
        const char* command;
        double tolerance = 0;  // of the sum over all rows; 0: the texts are compared, line by line
    } rows[] = {
        {"Win32_OperatingSystem", "Version", "uname -r"},
        {"Win32_OperatingSystem", "CSName", "hostname -s"},
        {"Win32_OperatingSystem", "Caption", ". /etc/os-release; echo $PRETTY_NAME"},
        {"Win32_OperatingSystem", "BuildNumber", "uname -v | sed 's/^#\\([0-9]*\\).*/\\1/'"},
        {"Win32_OperatingSystem", "OSArchitecture", "echo $(getconf LONG_BIT)-bit"},
        {"Win32_OperatingSystem", "TotalVisibleMemorySize", "free -k | awk '/^Mem/ {print $2}'"},
        {"Win32_OperatingSystem", "SizeStoredInPagingFiles", "free -k | awk '/^Swap/ {print $2}'"},
        {"Win32_OperatingSystem", "TotalVirtualMemorySize", "free -kt | awk '/^Total/ {print $2}'"},
        {"Win32_OperatingSystem", "CurrentTimeZone", "date +%:::z | awk -F: '{print $1 * 60 + ($1 < 0 ? -$2 : $2)}'"},
        {"Win32_OperatingSystem", "MaxNumberOfProcesses", "sysctl -n kernel.pid_max"},
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
        {"Win32_ComputerSystem", "Name", "hostname -s"},
        {"Win32_ComputerSystem", "AutomaticResetCapability,AutomaticResetBootOption",
         "[ $(sysctl -n kernel.panic) != 0 ] && echo true true || echo false false"},
        {"Win32_ComputerSystem", "Domain,Workgroup,PartOfDomain",
         "[ -e /etc/krb5.keytab -o -e /etc/samba/smb.conf ] || echo WORKGROUP WORKGROUP false"},
        {"Win32_ComputerSystem", "TotalPhysicalMemory", "free -b | awk '/^Mem/ {print $2}'"},
        {"Win32_ComputerSystem", "NumberOfLogicalProcessors", "getconf _NPROCESSORS_ONLN"},
        {"Win32_ComputerSystem", "NumberOfProcessors", "lscpu -p=SOCKET | grep -v '^#' | sort -u | wc -l"},
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
        {"Win32_UserAccount", "Name", "getent -s files passwd | cut -d: -f1"},
        {"Win32_UserAccount", "SID", "getent -s files passwd | awk -F: '{print \"S-1-22-1-\" $3}'"},
        {"Win32_Group WHERE LocalAccount = TRUE", "Name", "getent -s files group | cut -d: -f1"},
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
        {"Win32_Group", "SID", "getent -s files group | awk -F: '{print \"S-1-22-2-\" $3}'"},
    };
    for (const auto& row : rows) {
        const std::string expected = RunShell(row.command).output;
        if (Trimmed(expected).empty()) continue;  // this machine has no such line
        const WmiResult result = RunWmiQuery(fmt::format("SELECT {} FROM {}", row.properties, row.source));
        std::string shown;
        for (const WmiRow& object : result.rows) shown += PropertyTexts(object, row.properties) + '\n';
        if (row.tolerance == 0) {
            EXPECT_EQ(Trimmed(shown), Trimmed(expected)) << row.source << "." << row.properties << ": " << result.status;
        } else {
            const double figure = PropertySum(result, row.properties);  // between those before and after
            const double before = std::stod(expected), after = std::stod(RunShell(row.command).output);
            EXPECT_NEAR(figure, std::clamp(figure, std::min(before, after), std::max(before, after)), row.tolerance)
                << row.properties;
        }
    }
}
// clang-format on

TEST_F(WmiThisMachine, HasTheTimesOfTheClock) {
    const ZoneSetting setting("<+0545>-5:45");
    const auto moment = [](const char* className, std::time_t (*seconds)(std::tm*)) {
        const WmiResult result = RunWmiQuery(fmt::format("SELECT * FROM {}", className));
        const auto part = [&](const char* name) { return static_cast<int>(PropertySum(result, name)); };
        std::string text;
        for (const char* name : {"Year", "Month", "Day", "Hour", "Minute", "Second"})
            text += fmt::format("{} ", part(name));
        std::tm parts{};
        strptime(text.c_str(), "%Y %m %d %H %M %S ", &parts);
        const std::time_t found = seconds(&parts);
        EXPECT_EQ(parts.tm_wday, part("DayOfWeek")) << className;
        EXPECT_EQ(parts.tm_mon / 3 + 1, part("Quarter")) << className;
        EXPECT_LT(part("Milliseconds"), 1000) << className;
        return found;
    };
    constexpr double tolerance = 10;  // seconds; a wrong zone would be minutes off
    const auto now = static_cast<double>(std::time(nullptr));
    EXPECT_NEAR(static_cast<double>(moment("Win32_LocalTime", std::mktime)), now, tolerance);
    EXPECT_NEAR(static_cast<double>(moment("Win32_UTCTime", timegm)), now, tolerance);
    const WmiResult system =
        RunWmiQuery("SELECT LocalDateTime, LastBootUpTime, CurrentTimeZone FROM Win32_OperatingSystem");
    ASSERT_EQ(system.rows.size(), 1U);
    EXPECT_EQ(PropertyText(system.rows.front(), "CurrentTimeZone"), "345");
    const auto secondsOf = [&](const char* property) {
        const std::u16string text = platform::WideFromUtf8(PropertyText(system.rows.front(), property));
        return static_cast<double>(MicrosecondsOfDmtf(text).value_or(0)) / 1e6;
    };
    EXPECT_NEAR(secondsOf("LocalDateTime"), now, tolerance);
    const double upTime = std::strtod(RunShell("cut -d' ' -f1 /proc/uptime").output.c_str(), nullptr);
    EXPECT_NEAR(secondsOf("LastBootUpTime"), static_cast<double>(std::time(nullptr)) - upTime, tolerance);
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
        const WmiResult result = RunWmiQuery("SELECT * FROM Win32_TimeZone");
        ASSERT_EQ(result.rows.size(), 1U);
        EXPECT_EQ(PropertyTexts(result.rows.front(), properties), shown) << zone;
        const WmiResult now = RunWmiQuery("SELECT CurrentTimeZone, DaylightInEffect FROM Win32_ComputerSystem");
        EXPECT_EQ(PropertyText(now.rows.at(0), "DaylightInEffect") == "true",
                  PropertySum(now, "CurrentTimeZone") != PropertySum(result, "Bias"))
            << zone;
    }
}

}  // namespace
}  // namespace kv::test
