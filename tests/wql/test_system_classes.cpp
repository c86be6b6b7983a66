// Accounts, sessions and processes, what a user may not see of them, and this machine as uname, lscpu, free, df, getent
// and date see it.
#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <unistd.h>
#include <utmp.h>

#include "facts/schedule/zone_rules.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/namespaces.h"
#include "tests/support/linux/nobody.h"
#include "tests/support/linux/shell.h"
#include "tests/support/linux/zone_setting.h"
#include "wql/cim_value.h"
#include "wql/classes/software/processes.h"
#include "wql/classes/system/accounts.h"
#include "wql/classes/system/logons.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace wql;
using WmiThisMachine = WmiTest;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

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

struct WmiAccounts : FrozenFiles {
    static Gathered Users(const char* properties) { return Over<GatherUsers>(u"Win32_UserAccount", properties); }
    static Gathered Groups() { return Over<GatherGroups>(u"Win32_Group", "Name"); }
    static Gathered Processes(const char* where) {
        return Over<GatherProcesses>(u"Win32_Process", "ProcessId ExecutablePath", where);
    }
};

TEST_F(WmiAccounts, SayWhatCannotBeRead) {
    EXPECT_THAT(Outcome(Users("Name")), MatchesRegex("80041004 0 .*No such file.*"));
    EXPECT_THAT(Outcome(Groups()), MatchesRegex("80041004 0 .*No such file.*"));
    Write(work / "passwd",
          "a:x:1:1:::/bin/sh\nb:x:2:2:::/bin/sh\nc::3:3:::/bin/sh\nd:*:4:4:::/bin/false\na:x:9:9:::/bin/sh\n");
    Write(work / "shadow", "a:$6$hash:19000:0:90:7:::\n");
    constexpr const char* facts = "Name Disabled PasswordRequired PasswordExpires";
    EXPECT_EQ(LinesOf(Users(facts)),
              "a|false|true|true|\nb|false|true|false|\nc|false|false|false|\nd|true|true|false|\n");
    std::filesystem::remove(work / "shadow");
    EXPECT_THAT(Users(facts).notices, IsEmpty()) << "a system without shadow passwords";
    std::filesystem::create_directory(work / "shadow");  // cannot be read
    EXPECT_EQ(LinesOf(Users(facts)),
              "a|NULL|NULL|NULL|\nb|NULL|NULL|NULL|\nc|false|false|false|\nd|true|true|false|\n");
    EXPECT_THAT(Users(facts).notices, testing::ElementsAre(HasSubstr("shadow")));
    EXPECT_THAT(Users("Name").notices, IsEmpty()) << "nobody asks for it";
}

TEST_F(WmiAccounts, SeeOnlySomeProcesses) {
    const std::string stat = " (x) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 0 0" + [] {
        std::string rest;
        for (int field = 25; field <= 38; ++field) rest += " 0";
        return rest + "17 0\n";
    }();
    EXPECT_EQ(Processes("").status, wmi_status::providerFailure);
    Write(work / "71" / "stat", "71" + stat);
    EXPECT_EQ(LinesOf(Processes("")), "71|NULL|\n");
    EXPECT_THAT(Processes("").notices, testing::ElementsAre(HasSubstr("does not show"))) << "/proc with hidepid=2";
    EXPECT_THAT(Processes("WHERE ProcessId = 71").notices, IsEmpty()) << "it is seen";
    EXPECT_EQ(Processes("WHERE ProcessId = 72").notices.size(), 1u) << "it may be another user's";
    Write(work / "1" / "stat", "1" + stat);
    EXPECT_THAT(Processes("").notices, IsEmpty());
}

std::string UtmpRecord(short type, const char* user, const char* line, const char* host, std::int32_t seconds,
                       pid_t process = getpid()) {
    struct utmp record {};
    record.ut_type = type;
    record.ut_pid = process;
    std::string_view(user).copy(record.ut_user, sizeof record.ut_user);
    std::string_view(line).copy(record.ut_line, sizeof record.ut_line);
    std::string_view(host).copy(record.ut_host, sizeof record.ut_host);
    record.ut_tv.tv_sec = static_cast<decltype(record.ut_tv.tv_sec)>(seconds);  // signed before glibc 2.40
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST_F(WmiAccounts, HaveSessionsAsWhoListsThem) {
    const std::string file = UtmpRecord(BOOT_TIME, "reboot", "~", "6.1.0", 1000000) +
                             UtmpRecord(USER_PROCESS, "root", "tty1", "", 1700000000) +
                             UtmpRecord(USER_PROCESS, "al\"x", "pts/0", "192.0.2.1", 1750000000) +
                             UtmpRecord(USER_PROCESS, "root", "pts/1", "tmux(7).%0", 1750000060) +
                             UtmpRecord(USER_PROCESS, "root", ":0", ":0", 1750000120) +
                             UtmpRecord(DEAD_PROCESS, "", "pts/2", "", 1) + "cut";
    Write(work / "utmp", file);
    static std::vector<facts::Session> sessions;
    sessions =
        facts::ParseSessions(UtmpRecord(USER_PROCESS, "left", "tty1", "", 1) + file, [](pid_t) { return false; });
    const auto shown = GatherTexts(u"Win32_LogonSession", "LogonId StartTime LogonType Caption AuthenticationPackage",
                                   [](const Gathering& to) { return GatherLogonSessions(to, sessions); });
    const std::string start = "|" + RunShell("date -d @1750000000 +%Y%m%d%H%M%S").output + ".000000";
    EXPECT_THAT(shown.objects,
                testing::ElementsAre(EndsWith("|2|tty1|NULL|"),
                                     AllOf(StartsWith("pts/0" + start), EndsWith("|10|pts/0 from 192.0.2.1|NULL|")),
                                     EndsWith("|2|pts/1|NULL|"), EndsWith("|2|:0|NULL|")));
    std::string times;
    for (const std::string& object : shown.objects)
        times += (times.empty() ? "" : "\n") + object.substr(0, object.find('|') + 13);
    EXPECT_EQ(times, RunShell("LC_ALL=C.UTF-8 who utmp | "
                              "awk '{gsub(/[-:]/, \"\", $3); t = $4; sub(/:/, \"\", t); print $2 \"|\" $3 t}'")
                         .output);
    const auto users = GatherTexts(u"Win32_LoggedOnUser", "Antecedent Dependent",
                                   [](const Gathering& to) { return GatherLoggedOnUsers(to, sessions); });
    const std::string host = RunShell("hostname -s").output;
    const std::string place = "\\\\" + host + "\\root\\cimv2:";
    ASSERT_EQ(users.objects.size(), 4u);
    EXPECT_EQ(users.objects[1], place + "Win32_UserAccount.Domain=\"" + host + "\",Name=\"al\\\"x\"|" + place +
                                    "Win32_LogonSession.LogonId=\"pts/0\"|");
}

TEST_F(WmiTest, TellsThatFilesOfSessionsAndAccountsCannotBeRead) {
    if (!IsInNamespaces())
        return RunInNamespaces("--mount",
                               "mount -t tmpfs none /run && mkdir /run/systemd && touch /run/systemd/sessions && "
                               "mkfifo /run/pipe && for file in os-release machine-id passwd group; do "
                               "mount --bind /run/pipe /etc/$file || exit; done");
    for (const char* query : {"SELECT * FROM Win32_LogonSession", "SELECT UserName FROM Win32_ComputerSystem",
                              "SELECT NumberOfUsers FROM Win32_OperatingSystem"}) {
        EXPECT_THAT(Outcome(RunWmiQuery(query)),
                    MatchesRegex("(80041004 0|00000000 1 .* left out.) Sessions cannot be read: .*"))
            << query;
    }
    std::filesystem::remove("/run/systemd/sessions");
    EXPECT_EQ(Outcome(RunWmiQuery("SELECT * FROM Win32_LogonSession")), "00000000 0");
    std::ofstream("/run/utmp") << UtmpRecord(USER_PROCESS, "root", "pts/1", "", 1, INT32_MAX) +
                                      UtmpRecord(USER_PROCESS, "root", "pts/2", "", 1) +
                                      UtmpRecord(USER_PROCESS, "root", "pts/3", "", 1, 0);
    EXPECT_EQ(TextsOf("Caption FROM Win32_LogonSession"), RunShell("who | awk '{print $2}'").output)
        << "without those whose process has ended";
    for (const char* name : {"UserAccount", "Group", "NTEventlogFile"})
        EXPECT_EQ(TextsOf(std::string("Name FROM Win32_") + name), "80041004") << name;
    EXPECT_EQ(RowTexts("Caption FROM Win32_OperatingSystem").size(), 1u) << "nothing waits for a pipe";
}

TEST(LogonKinds, FollowFromTheLoginManagersWords) {
    using facts::LogonKind;
    const std::tuple<const char*, bool, std::optional<LogonKind>> rows[] = {
        {"user", false, LogonKind::interactive}, {"user-early", true, LogonKind::remote},
        {"background", false, LogonKind::batch}, {"manager-early", false, LogonKind::service},
        {"greeter", false, std::nullopt},        {"lock-screen", false, std::nullopt},
    };
    for (const auto& [word, isRemote, kind] : rows) EXPECT_EQ(facts::LogonKindOf(word, isRemote), kind) << word;
}

TEST_F(WmiTest, ListsTheSessionsInTheFilesOfTheLoginManager) {
    if (!IsInNamespaces())
        return RunInNamespaces("--mount", "mount -t tmpfs none /run && mkdir -p /run/systemd/sessions");
    const std::string folder = "/run/systemd/sessions/";
    const std::string head = "# This is private data. Do not parse.\n";
    std::ofstream(folder + "3") << head +
                                       "UID=1000\nUSER=ann\nACTIVE=1\nSTATE=active\nREMOTE=1\nTYPE=tty\nCLASS=user\n"
                                       "FIFO=/run/systemd/sessions/3.ref\nTTY=pts/0\nREMOTE_HOST=192.0.2.1\n"
                                       "SERVICE=sshd\nLEADER=71\nREALTIME=1750000000123456\nMONOTONIC=5\n";
    RunShell("mkfifo " + folder + "3.ref");
    std::ofstream(folder + "c2") << head +
                                        "UID=0\nACTIVE=1\nIS_DISPLAY=1\nSTATE=active\nREMOTE=0\nTYPE=x11\nCLASS=user\n"
                                        "SEAT=seat0\nTTY=tty2\nDISPLAY=:0\nSERVICE=gdm-password\nVTNR=2\n";
    std::ofstream(folder + "c4") << head +
                                        "UID=0\nUSER=root\nSTATE=online\nREMOTE=0\nTYPE=unspecified\n"
                                        "CLASS=background\nSERVICE=cron\nREALTIME=1750000000000000\n";
    std::ofstream(folder + "5") << head + "UID=1000\nUSER=ann\nSTATE=closing\nREMOTE=0\nCLASS=user\nTTY=tty3\n";
    std::ofstream(folder + "c1") << head + "UID=105\nUSER=gdm\nSTATE=online\nREMOTE=0\nCLASS=greeter\nTTY=tty1\n";
    const std::string start = RunShell("date -d @1750000000 +%Y%m%d%H%M%S").output;
    EXPECT_THAT(RowTexts("LogonId,LogonType,AuthenticationPackage,Caption,StartTime FROM Win32_LogonSession"),
                testing::UnorderedElementsAre(StartsWith("3 10 sshd pts/0 from 192.0.2.1 " + start + ".123456"),
                                              "c2 2 gdm-password tty2 NULL", StartsWith("c4 4 cron NULL " + start)));
    EXPECT_THAT(RowTexts("Antecedent,Dependent FROM Win32_LoggedOnUser"),
                testing::UnorderedElementsAre(MatchesRegex(".*Name=\"ann\" .*LogonId=\"3\""),
                                              MatchesRegex(".*Name=\"root\" .*LogonId=\"c2\""),
                                              MatchesRegex(".*Name=\"root\" .*LogonId=\"c4\"")));
    EXPECT_EQ(TextsOf("NumberOfUsers FROM Win32_OperatingSystem"), "2");
    EXPECT_EQ(TextsOf("UserName FROM Win32_ComputerSystem"), RunShell("printf '%s\\\\root' $(hostname -s)").output);
}

TEST_F(WmiTest, ListsTheSessionsOfTheLoginManager) {
    const std::string listed = RunShell(
                                   "for id in $(loginctl --no-legend list-sessions 2>&- | awk '{print $1}'); do "
                                   "loginctl show-session $id -p State "
                                   "-p Class | grep -qE 'closing|greeter|lock-screen' || echo $id; done | sort")
                                   .output;
    if (listed.empty()) GTEST_SKIP() << "no login manager, or nobody is logged in";
    EXPECT_EQ(RunShell("printf '" + TextsOf("LogonId FROM Win32_LogonSession") + "\n' | sort").output, listed);
}

TEST_F(WmiTest, TellsAUserWithoutRightsWhatIsMissing) {
    const Nobody nobody;
    prctl(PR_SET_DUMPABLE, 1);  // its own files in /proc can be read
    EXPECT_EQ(TextsOf("IOReadBytesPersec FROM Win32_PerfRawData_PerfProc_Process WHERE Name = '_Total'"), "NULL");
    EXPECT_EQ(TextsOf("ExecutablePath FROM Win32_Process WHERE ProcessId = 1"), "NULL");
    EXPECT_THAT(RunWmiQuery("SELECT ExecutablePath FROM Win32_Process WHERE ProcessId = 1").notices,
                testing::ElementsAre(HasSubstr("may not read")));
    EXPECT_THAT(RunWmiQuery("SELECT Disabled FROM Win32_UserAccount WHERE Name = 'root'").notices,
                testing::ElementsAre(HasSubstr("/etc/shadow")));
}

}  // namespace
}  // namespace kv::test
