// Win32_NTLogEvent and Win32_NTEventlogFile over journals that systemd-journal-remote writes, against journalctl;
// CIM_DataFile against find and stat.
#include <fmt/format.h>
#include <future>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

#include "facts/logs/journal_limit.h"
#include "facts/storage/hanging_mounts.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/nobody.h"
#include "tests/support/linux/shell.h"
#include "tests/support/linux/zone_setting.h"
#include "wql/classes/storage/data_files.h"
#include "wql/classes/system/event_log.h"

namespace kv::test {
namespace {

using namespace wql;
namespace fs = std::filesystem;

constexpr std::int64_t start = 1795564800;  // seconds: 2026-11-25T00:00:00Z

/// An entry in systemd's export format, a time after the start: in seconds, and in microseconds of six digits. Fields:
/// with line ends between them.
std::string Entry(int second, const std::string& fields, const char* fraction = "000000", int boot = 7) {
    return fmt::format("__REALTIME_TIMESTAMP={0}{1}\n__MONOTONIC_TIMESTAMP={2}{1}\n_BOOT_ID={3:032x}\n{4}\n\n",
                       start + second, fraction, std::abs(second) + 1, boot, fields);
}

std::string BinaryMessage(const std::string& bytes) {
    std::string size(8, '\0');
    for (std::size_t at = 0; at < 8; ++at) size[at] = static_cast<char>(bytes.size() >> (8 * at));
    return "MESSAGE\n" + size + bytes;
}

/// Entries of every priority and facility, one a second.
std::string ManyEntries(int first, int count, const std::string& name, const char* fraction = "000000") {
    constexpr const char* form = "PRIORITY={}\nSYSLOG_FACILITY={}\nSYSLOG_IDENTIFIER={}\nMESSAGE={}{}";
    std::string text;
    for (int i = first; i < first + count; ++i) {
        text += Entry(i, fmt::format(fmt::runtime(form), i % 8, i % 24, name, name, i), fraction);
    }
    return text;
}

std::vector<std::string> folders;  // of the journal that the class reads

WmiStatus GatherFolders(const Gathering& gathering) { return GatherEvents(gathering, folders); }

/// The entries that a condition selects.
Gathered Events(const std::string& where, const char* names = "RecordNumber", GatherRoutine gather = GatherFolders) {
    return GatherTexts(u"Win32_NTLogEvent", names, gather, where.empty() ? "" : "WHERE " + where);
}

class EventLog : public TestFolder {
  protected:
    EventLog() { folders = {folder / "missing", folder / "journal"}; }

    const ZoneSetting zone_{"UTC"};

    std::string journal() const { return folder / "journal"; }

    void WriteJournal(const std::string& name, const std::string& text) const {
        Write(folder / "export", text);
        fs::create_directories(journal());
        const ShellOutcome outcome =
            RunShell(fmt::format("/lib/systemd/systemd-journal-remote --output={}/{}.journal {} 2>&1", journal(), name,
                                 (folder / "export").string()));
        ASSERT_EQ(outcome.exitCode, 0) << outcome.output;
    }

    /// The values of a property, without a line end behind the last.
    static std::string Rows(const char* property, const std::string& where) {
        std::string text;
        for (const std::string& value : Events(where, property).objects)
            text += (text.empty() ? "" : "\n") + value.substr(0, value.size() - 1);
        return text;
    }

    std::string JournalctlSays(const std::string& arguments) const {
        return RunShell("journalctl --quiet --reverse --output=cat --directory=" + journal() + " " + arguments).output;
    }
};

TEST_F(EventLog, HasTheEntriesThatJournalctlSelects) {
    WriteJournal("system", ManyEntries(0, 240, "a") + ManyEntries(400, 240, "a"));
    WriteJournal("user-1000", ManyEntries(100, 240, "b", "500000"));
    const std::string system = "SYSLOG_FACILITY=0 SYSLOG_FACILITY=3 SYSLOG_FACILITY=5 SYSLOG_FACILITY=9";
    const std::string urgent = " PRIORITY=0 PRIORITY=1 PRIORITY=2 PRIORITY=3 PRIORITY=4";
    const std::pair<const char*, std::string> cases[] = {
        {"", ""},
        {"Logfile='system' AND EventType<=2", system + urgent},
        {"Logfile='Security' AND Type='warning'", "SYSLOG_FACILITY=4 SYSLOG_FACILITY=10 PRIORITY=4"},
        {"(Logfile='System' OR Logfile='Security') AND EventType=1 AND TimeGenerated>='20261125000150.000000+000'",
         system +
             " SYSLOG_FACILITY=4 SYSLOG_FACILITY=10 PRIORITY=0 PRIORITY=1 PRIORITY=2 PRIORITY=3 --since=@1795564910"},
        {"TimeGenerated>='20261125000200.000000+000' AND TimeWritten<'20261125000230.000000+000'",
         "--since=@1795564920 --until=@1795564949.9"},
        {"TimeGenerated<'20261125000230.000000+000' AND TimeGenerated>'20261125000228.000000+000'",
         "--since=@1795564948.1 --until=@1795564949.9"},
        {"TimeGenerated>'20261125000640.000000+000' AND SourceName='A'", "--since=@1795565201"},
        {"TimeGenerated<'20261125000003.000000+000'", "--until=@1795564802"},
        {"TimeGenerated='20261124230005.000000-060'", "--since=@1795564805 --until=@1795564805"},
        {"EventType=9 OR Logfile='Setup'", "PRIORITY=9"},
        {"Logfile='Application' AND EventType=2 AND SourceName='b' AND TimeGenerated>'20261125000000.000000+000'",
         "PRIORITY=4 SYSLOG_IDENTIFIER=b SYSLOG_FACILITY=12 SYSLOG_FACILITY=20"},
    };
    for (const auto& [where, arguments] : cases) EXPECT_EQ(Rows("Message", where), JournalctlSays(arguments)) << where;
    // By number: what journalctl shows as the entry's place in the sequence.
    const std::string numbers =
        RunShell("journalctl -q -r -o export SYSLOG_IDENTIFIER=a --directory=" + journal() +
                 " | grep -ao '^__CURSOR=[^;]*;i=[^;]*' | sed 's/.*;i=/0x/' | xargs printf '%d\\n'")
            .output;
    EXPECT_EQ(Rows("RecordNumber", "SourceName='a'"), numbers);
    const std::tuple<const char*, int, int> ranges[] = {
        {"RecordNumber>477", 478, 480},
        {"RecordNumber>=240 AND RecordNumber<242", 240, 241},
        {"RecordNumber=300", 300, 300},
        {"RecordNumber<3.5", 1, 3},
        {"RecordNumber>480", 1, 0},
        {"RecordNumber>-1 AND RecordNumber<=1", 1, 1},
        {"RecordNumber<0 OR RecordNumber>4e9", 1, 0},
        {"RecordNumber>235 AND RecordNumber<250 AND TimeWritten<'20261125000400.000000+000'", 236, 240},
    };
    for (const auto& [where, first, last] : ranges)
        EXPECT_EQ(Rows("RecordNumber", std::string(where) + " AND SourceName='a'"),
                  RunShell(fmt::format("seq {} -1 {}", last, first)).output)
            << where;
    // Generated thirty seconds after it was written.
    WriteJournal("clock", Entry(1000, "SYSLOG_IDENTIFIER=c\n_SOURCE_REALTIME_TIMESTAMP=1795565830000000"));
    EXPECT_EQ(Rows("SourceName", "TimeGenerated>'20261125001709.000000+000'"), "c");
}

TEST_F(EventLog, FindsTimesAfterARestartInThePast) {
    WriteJournal("system", Entry(1000, "MESSAGE=a") + Entry(1001, "MESSAGE=b") + Entry(100, "MESSAGE=c", "000000", 8) +
                               Entry(101, "MESSAGE=d", "000000", 8) +
                               Entry(2000, "PRIORITY=03\nSYSLOG_FACILITY=003\nMESSAGE=e", "000000", 8));
    EXPECT_EQ(Rows("Message", "TimeWritten>'20261125001000.000000+000' AND EventType>0"), "e\nb\na");
    EXPECT_EQ(Rows("Message", "TimeGenerated<'20261125001000.000000+000'"), "d\nc");
    EXPECT_EQ(Rows("Message", "TimeWritten='20261125001640.000000+000'"), "a");
    EXPECT_EQ(LinesOf(Events("RecordNumber=5", "Logfile EventType")), "Application|3|\n")
        << "as the matches for it see it";
}

TEST_F(EventLog, HasThePropertiesOfEntries) {
    WriteJournal(
        "system",
        Entry(1, "PRIORITY=3\nSYSLOG_FACILITY=0\nSYSLOG_IDENTIFIER=kernel\nMESSAGE=disk died\n_HOSTNAME=box") +
            Entry(2,
                  "MESSAGE_ID=39f53479d3a045ac8e11786248231fbf\nPRIORITY=5\nSYSLOG_FACILITY=10\n_UID=0\n_COMM=sshd\n"
                  "MESSAGE=opened\n_SOURCE_REALTIME_TIMESTAMP=1795564801250000") +
            Entry(3, "SYSLOG_IDENTIFIER=systemd\n_UID=4000000\nPRIORITY=4\nSYSLOG_FACILITY=1\nMESSAGE=failed") +
            Entry(4, "_COMM=own\nMESSAGE_ID=x\nPRIORITY=x\n" + BinaryMessage(std::string("a\0b\xFF\n c", 7))) +
            Entry(5, "_SOURCE_REALTIME_TIMESTAMP=99999999999999999999\nPRIORITY=4\nMESSAGE=") +
            Entry(6, "PRIORITY=6\nMESSAGE=" + std::string(100000, 'x')));
    constexpr const char* names =
        "Logfile EventType Type SourceName EventIdentifier EventCode User ComputerName TimeGenerated TimeWritten "
        "Message";
    const std::string own = RunShell("hostname -s").output;
    const auto times = [](const char* generated, const char* written) {
        return fmt::format("|20261125{}+000|20261125{}+000|", generated, written);
    };
    const std::string lines =
        "Application|2|Warning|NULL|0|0|NULL|" + own + times("000005.000000", "000005.000000") +
        "|\nApplication|3|Information|own|0|0|NULL|" + own + times("000004.000000", "000004.000000") +
        "a\uFFFDb\uFFFD\n c|\nSystem|2|Warning|systemd|0|0|" + own + "\\4000000|" + own +
        times("000003.000000", "000003.000000") + "failed|\nSecurity|3|Information|sshd|972371065|13433|" + own +
        "\\root|" + own + times("000001.250000", "000002.000000") + "opened|\nSystem|1|Error|kernel|0|0|NULL|box" +
        times("000001.000000", "000001.000000") + "disk died|\n";
    EXPECT_EQ(LinesOf(Events("RecordNumber<6 AND RecordNumber>0", names)), lines);
    EXPECT_EQ(Rows("Message", "RecordNumber=6"), std::string(facts::maxJournalField, 'x'));
}

TEST_F(EventLog, ReadsOnlyTheNewestEntriesUnlessWhereHasALowerBound) {
    WriteJournal("system", ManyEntries(0, 1100, "a"));
    WriteJournal("user-1000", ManyEntries(50, 1, "b"));
    for (const auto& [where, rows] : std::initializer_list<std::pair<std::string, std::size_t>>{
             {"", 1000},
             {"RecordNumber<=1050 OR RecordNumber=7", 1000},
             {"RecordNumber>1050", 50},
             {"RecordNumber>=0", 1101},
             {"EventType=1", 553},
             {"Logfile='Application'", 825},
             {"NOT (TimeWritten<'20200101000000.000000+000' OR EventType=9)", 1101},
             {"(TimeWritten>'20200101000000.000000+000' OR EventType=1) AND (RecordNumber>0 OR EventType=2)", 1101},
             {"EventType<4 OR RecordNumber>1000", 1000},
             {"TimeWritten>'20200101000000.000000+000' OR RecordNumber>1000", 1101}}) {
        const Gathered result = Events(where);
        EXPECT_EQ(result.objects.size(), rows) << where;
        EXPECT_EQ(result.notices.size(), rows == 1000 ? 1u : 0u) << where;
    }
    std::string large;
    for (int i = 0; i < 1100; ++i)
        large += Entry(2000 + i, "PRIORITY=3\nMESSAGE=" + std::string(32000, 'x') + std::to_string(i));
    WriteJournal("large", large);
    const Gathered result = Events("RecordNumber>0");
    EXPECT_LT(result.objects.size(), 1100u);
    const std::string last = result.objects.back();
    EXPECT_THAT(result.notices,
                testing::ElementsAre(testing::HasSubstr("before record " + last.substr(0, last.size() - 1))));
    EXPECT_EQ(Outcome(Events("RecordNumber>0 AND SourceName='a'")), "00000000 1100")
        << "rows that WHERE drops take no room";
}

TEST_F(EventLog, IsReadForALimitedTime) {
    WriteJournal("system", ManyEntries(0, 10, "a"));
    const auto hurried = [](const Gathering& gathering) {
        return GatherEvents(gathering, folders, std::chrono::milliseconds(-1));
    };
    EXPECT_THAT(Outcome(Events("", "RecordNumber", hurried)),
                testing::StartsWith("00000000 0 The journal was read for"));
    // The newest entry is of System.
    const auto abandoned = [](const Gathering& gathering) {
        Gathering impatient = gathering;
        impatient.wantsMore = [] { return false; };
        return GatherEvents(impatient, folders);
    };
    EXPECT_EQ(Outcome(Events("Logfile='Application'")), "00000000 5");
    EXPECT_EQ(Outcome(Events("Logfile='Application'", "RecordNumber", abandoned)), "00000000 0");
}

TEST_F(EventLog, AFileThatIsCutOffWhileItIsReadGivesWhatWasReadBefore) {
    WriteJournal("system", ManyEntries(0, 2000, "a"));
    const Gathered result = Events("RecordNumber>0", "RecordNumber", [](const Gathering& gathering) {
        Gathering cutting = gathering;
        cutting.row = [&gathering](const void* row) {
            fs::resize_file(folders[1] + "/system.journal", 4096);
            return gathering.row(row);
        };
        return GatherEvents(cutting, folders);
    });
    EXPECT_THAT(result.objects.size(), testing::AllOf(testing::Ge(1u), testing::Lt(2000u)));
    EXPECT_THAT(Outcome(result), testing::MatchesRegex("00000000 .* Parts of .*/system.journal: Input/output error"));
}

TEST_F(EventLog, OpensAQuarterOfTheFilesThatAProcessMay) {
    WriteJournal("system", ManyEntries(0, 3, "a"));
    for (int at = 0; at < 21; ++at)
        fs::copy(journal() + "/system.journal", fmt::format("{}/{}.journal", journal(), at));
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit lower{80, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lower), 0);
    const std::string outcome = Outcome(Events(""));
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_THAT(outcome, testing::StartsWith("00000000 3 The 2 oldest of 22 files of the journal were not read"));
}

TEST_F(EventLog, SaysWhatItCannotSee) {
    EXPECT_THAT(Outcome(Events("RecordNumber>0")), testing::StartsWith("80041004 0 There is no journal"));
    fs::create_symlink("missing", folders[0]);
    EXPECT_THAT(Outcome(Events("RecordNumber>0")),
                testing::MatchesRegex("80041004 0 Parts .*/missing: Too many levels.*"));
    fs::remove(folders[0]);
    WriteJournal("good", ManyEntries(0, 3, "a"));
    Write(folder / "journal/garbage.journal", std::string(5000, 'x'));
    EXPECT_THAT(Outcome(Events("RecordNumber>0")),
                testing::MatchesRegex("00000000 3 Parts .* 1 in all; the first: .*garbage.journal: .*"));
    // Another user may read no file, then not even the folder.
    const auto outcomeAsNobody = [&] {
        const Nobody nobody;
        return Outcome(Events("RecordNumber>0"));
    };
    fs::permissions(folder, fs::perms(0755));
    fs::permissions(folder / "journal/good.journal", fs::perms::none);
    EXPECT_THAT(outcomeAsNobody(), testing::StartsWith("80041003 0 1 of 2 files of the journal may not be read"));
    fs::permissions(folder / "journal", fs::perms::none);
    EXPECT_THAT(outcomeAsNobody(), testing::StartsWith("80041003 0 1 of 1 files"));
    fs::permissions(folder / "journal", fs::perms(0755));
}

// The library passes over single entries in silence.
TEST_F(EventLog, ADamagedFileGivesWhatIsWholeAndANotice) {
    WriteJournal("whole", ManyEntries(0, 2000, "a"));
    const std::string whole = Read(folder / "journal/whole.journal");
    fs::remove(folder / "journal/whole.journal");
    std::size_t losses = 0;
    for (std::size_t at = 0; at < whole.size() / 2; at += whole.size() / 25) {
        std::string bytes = whole;
        bytes.replace(at, 4096, 4096, '\x5A');
        for (const std::string& damaged : {bytes, whole.substr(0, at)}) {
            Write(folder / "journal/system.journal", damaged);
            const Gathered result = Events("RecordNumber>0", "RecordNumber Message");
            EXPECT_EQ(result.status, result.objects.empty() ? wmi_status::providerFailure : wmi_status::ok) << at;
            EXPECT_TRUE(!result.notices.empty() || result.objects.size() > 1900) << at << " " << Outcome(result);
            losses += result.notices.size();
        }
    }
    EXPECT_GT(losses, 12u);
}

TEST_F(EventLog, EachLogIsAFileOfTheJournal) {
    const auto files = [](const char* names, const std::string& where) {
        constexpr GatherRoutine gather = [](const Gathering& to) { return GatherEventLogFiles(to, folders); };
        return GatherTexts(u"Win32_NTEventlogFile", names, gather, "WHERE " + where);
    };
    const std::string query = "LogfileName<>''";
    EXPECT_THAT(Outcome(files("Name", query)), testing::StartsWith("80041004 0 There is no journal"));
    WriteJournal("system", ManyEntries(0, 240, "a"));
    WriteJournal("user-1000", ManyEntries(100, 99, "b"));
    fs::copy(journal() + "/system.journal", journal() + "/copy.journal");
    const std::string use = RunShell("du -sB1 " + journal() + "/*.journal | awk '{s+=$1} END {print s}'").output;
    const auto count = [this](const char* matches) {
        return RunShell("journalctl -qo cat -D " + journal() + matches + " | wc -l").output;
    };
    const std::string security = count(" SYSLOG_FACILITY=4 SYSLOG_FACILITY=10");
    const std::string system = count(" SYSLOG_FACILITY=0 SYSLOG_FACILITY=3 SYSLOG_FACILITY=5 SYSLOG_FACILITY=9");
    const int others = 339 - std::stoi(security) - std::stoi(system);
    std::string expected;
    for (const auto& [log, records] : {std::pair<std::string, std::string>{"Application", std::to_string(others)},
                                       {"Security", security},
                                       {"System", system}})
        expected +=
            log + "|" + records + "|" + use + "|system|journal|" + journal() + "/|WhenNeeded|Win32_NTEventlogFile|\n";
    EXPECT_EQ(
        LinesOf(files("LogfileName NumberOfRecords FileSize FileName Extension Path OverWritePolicy CreationClassName",
                      query)),
        expected);
    const std::string most = RunShell("df -B1 --output=size " + journal() +
                                      " | awk 'NR == 2 {m = int($1 / 10); if (m > 2147483647) m -= 4294967296; "
                                      "print (m > 2147483647 ? \"NULL\" : m)}'")
                                 .output;
    EXPECT_EQ(files("MaxFileSize", query).objects[0], most + "|");
    EXPECT_EQ(Outcome(files("Name", query + " AND Name='/etc/passwd'")), "00000000 0");
    EXPECT_EQ(Outcome(files("Name", "Name='" + journal() + "/system.journal'")), "00000000 3");
    Gathering ofFiles;  // of CIM_DataFile, which has the file itself
    ofFiles.isOnlyClass = false;
    ofFiles.row = [](const void*) { return ADD_FAILURE() << "a sum would count it twice", false; };
    EXPECT_EQ(GatherEventLogFiles(ofFiles, folders), wmi_status::ok);
    fs::create_symlink("missing", folders[0]);
    EXPECT_THAT(Outcome(files("Name", query)), testing::HasSubstr("Parts of the journal cannot be read"));
    fs::remove_all(journal());
    EXPECT_THAT(Outcome(files("Name", query + " AND Name='/x'")), testing::StartsWith("80041004 0 Parts"));
}

TEST_F(EventLog, TakesTheSpaceThatItsConfigurationAllows) {
    const std::tuple<const char*, const char*, std::optional<std::uint64_t>> steps[] = {
        {"usr/lib/systemd/journald.conf", "[Journal]\nSystemMaxUse=1M\n", 1U << 20},
        {"etc/systemd/journald.conf", "[Other]\nSystemMaxUse=9\n[Journal]\n#SystemMaxUse=\n SystemMaxUse = 500\n", 500},
        {"etc/systemd/journald.conf.d/b.conf", "[Journal]\nSystemMaxUse=3G\nRuntimeMaxUse=7K", 3ULL << 30},
        {"run/systemd/journald.conf.d/a.conf", "[Journal]\nSystemMaxUse=5\n", 3ULL << 30},
        {"run/systemd/journald.conf.d/c.conf", "[Journal]\nSystemMaxUse=much\n", 3ULL << 30},
        {"etc/systemd/journald.conf.d/c.conf", "[Journal]\nSystemMaxUse=\n", std::nullopt},
    };
    const std::string root = folder / "root";
    for (const auto& [file, text, limit] : steps) {
        Write(root + "/" + file, text);
        EXPECT_EQ(facts::JournalSpaceLimit("/missing", root), limit) << file;
    }
    EXPECT_EQ(facts::JournalSpaceLimit("/run/log/journal/1", root), 7U << 10);
    ASSERT_EQ(mkfifo((root + "/etc/systemd/journald.conf.d/d.conf").c_str(), 0600), 0);
    EXPECT_EQ(facts::JournalSpaceLimit(work, root), std::nullopt);
}

/// Files of every kind in a folder.
struct DataFiles : TestFolder {
    DataFiles() {
        for (const char* name :
             {"plain", "a.tar.gz", ".hidden", ".rc.conf", "two words.TXT", "back\\slash.log", "ä.log"})
            Write(folder / "files" / name, std::string(name) + " holds bytes");
        fs::create_directory(folder / "files/sub.d");
        RunShell(
            "cd " + files +
            " && ln -s plain link && ln -s nowhere broken && ln -s sub.d folderlink && mkfifo pipe && "
            "chmod 600 plain && touch -d '2001-02-03 04:05:06.789 UTC' -m a.tar.gz && touch -d 1999-01-01 -a a.tar.gz");
        platform::InstallWmi();
    }

    /// The query's text for a path: backslashes doubled.
    static std::string Quoted(const std::string& path) {
        std::string text = "'";
        for (const char unit : path) text += unit == '\\' ? "\\\\" : std::string(1, unit);
        return text + "'";
    }

    static WmiResult Query(const std::string& where) {
        return RunWmiQuery("SELECT * FROM CIM_DataFile WHERE " + where);
    }

    const ZoneSetting zone{"UTC"};
    const std::string files = folder / "files";
};

TEST_F(DataFiles, OfAFolderAreThoseThatFindAndStatSee) {
    std::vector<std::string> found =
        RowTexts("Name,FileSize,LastModified,LastAccessed,CreationDate,FSName FROM CIM_DataFile WHERE Path=" +
                 Quoted(files + "/"));
    EXPECT_EQ(found.size(), 10u);
    std::sort(found.begin(), found.end());
    const std::string script =
        R"sh(moment() { [ "$1" = - ] && echo NULL || date -ud "$1" +%Y%m%d%H%M%S.%6N+000; }
             ask() { [ -e "$f" ] && stat -Lc $1 "$f" || stat -c $1 "$f"; }
             find -L $files -maxdepth 1 ! -type d | while read -r f; do
                 printf '%s %s %s %s %s %s\n' "$f" "$(ask %s)" "$(moment "$(ask %y)")" "$(moment "$(ask %x)")" \
                        "$(moment "$(ask %w)")" "$(findmnt -no FSTYPE -T $files)"
             done | LC_ALL=C sort)sh";
    EXPECT_EQ(fmt::format("{}", fmt::join(found, "\n")), RunShell("files=" + files + "; " + script).output);
}

TEST_F(DataFiles, HaveTheNamesOfTheQuery) {
    const std::string backslashes = RunShell("echo -n '" + files + "' | tr / '\\\\'").output;
    const std::tuple<std::string, const char*, std::string> cases[] = {
        {"Name=" + Quoted(files + "/a.tar.gz"), "FileName,Extension,Hidden,FileType,Drive",
         "a.tar gz false Regular file "},
        {"Name=" + Quoted(files + "/.rc.conf"), "FileName,Extension,Hidden", ".rc conf true"},
        {"Name=" + Quoted(files + "/.hidden") + " AND Drive=''", "FileName,Extension,Hidden", ".hidden  true"},
        {"Name=" + Quoted(files + "/pipe"), "FileType,FileSize", "Pipe 0"},
        {"Name=" + Quoted(files + "/broken"), "FileType", "Symbolic link, broken"},
        {"Name=" + Quoted(files + "/back\\slash.log"), "Name", files + "/back\\slash.log"},
        {"Name=" + Quoted(backslashes + "\\plain"), "Name,Path", backslashes + "\\plain " + backslashes + "\\"},
        {"Path=" + Quoted(backslashes) + " AND FileName='TWO words' AND Extension='txt'", "Name,Path",
         backslashes + "\\two words.TXT " + backslashes},
        {"Name LIKE '%link' AND Path=" + Quoted(files + "/"), "Name", files + "/link"},
        {"Name=" + Quoted(files + "/plain") + " AND Path=" + Quoted(files), "Name,Path", files + "/plain " + files},
        {"Extension='gz' AND (Path=" + Quoted(files) + " OR Path=" + Quoted(files + "/") + ")", "Name",
         files + "/a.tar.gz"},
        {"Path=" + Quoted(files) + " AND FileName='b' OR Path=" + Quoted(files + "/") + " AND FileName='plain'", "Path",
         files + "/"},
        {"Name=" + Quoted("C:" + backslashes + "\\plain"), "Name", ""},
        {"Drive='C:' AND Path=" + Quoted(files), "Name", ""},
        {"Path=" + Quoted(files + "/none/") + " OR Path='etc/' OR Path=''", "Name", ""},
        {"Name=" + Quoted(files + "/sub.d") + " OR Name=" + Quoted(files + "/plain/"), "Name", ""},
    };
    for (const auto& [where, properties, expected] : cases)
        EXPECT_EQ(TextsOf(properties + (" FROM CIM_DataFile WHERE " + where)), expected) << where;
}

TEST_F(DataFiles, AreNeverSearchedFor) {
    for (const char* where :
         {"Extension='log'", "Name LIKE '/etc/%'", "NOT Name='/x'", "Name='/x' OR Path='/y'", "Drive='C:'"}) {
        EXPECT_THAT(Outcome(Query(where)), testing::StartsWith("8004100c 0 A query for files must say")) << where;
    }
    EXPECT_EQ(Query("Name='/x' AND Name='/y' OR Path='/z/' AND Name='/z/q'").status, wmi_status::ok);
    for (std::size_t at = 0; at < maxFolderFiles; ++at) {
        ASSERT_EQ(link((files + "/plain").c_str(), fmt::format("{}/sub.d/{}.l", files, at).c_str()), 0);
    }
    const std::string query = "SELECT FileName FROM CIM_DataFile WHERE Path=" + Quoted(files + "/sub.d");
    const std::string most = fmt::format("00000000 {}", maxFolderFiles);
    EXPECT_EQ(Outcome(RunWmiQuery(query)), most);
    Write(files + "/sub.d/last.m", "");
    EXPECT_THAT(Outcome(RunWmiQuery(query)), testing::StartsWith(most + " "));
    for (const char* last : {" AND Extension='M'", " AND FileSize=0"})
        EXPECT_EQ(Outcome(RunWmiQuery(query + last)), "00000000 1") << "others do not count";
}

TEST_F(DataFiles, ThatMayNotBeSeenAreNotAbsent) {
    fs::permissions(folder, fs::perms(0755));
    const auto queryAsNobody = [](const std::string& where) {
        const Nobody nobody;
        return Query(where);
    };
    const auto outcome = [&](const std::string& where) { return Outcome(queryAsNobody(where)); };
    const std::string where = "Name=" + Quoted(files + "//plain");
    EXPECT_EQ(PropertyTexts(queryAsNobody(where).rows.at(0), "Readable,Writeable,AccessMask"), "false false 0");
    fs::permissions(files, fs::perms(0700));
    EXPECT_EQ(PropertyTexts(Query(where).rows.at(0), "Readable,Writeable,AccessMask"), "true true 7");
    if (getuid() != 0) return;  // the owner sees them
    EXPECT_THAT(outcome(where), testing::MatchesRegex("80041003 0 1 files or folders .*[a-z]/plain: Permission .*"));
    EXPECT_THAT(outcome("Path=" + Quoted(files)), testing::StartsWith("80041003 0 1 files or folders"));
    EXPECT_THAT(outcome(where + " OR Name='/etc/passwd'"), testing::StartsWith("00000000 1 1 files or folders"));
}

TEST_F(DataFiles, OnMountsThatMayNotAnswerCostOnlyThemselves) {
    static std::string mountInfo;
    mountInfo = fmt::format(
        "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n2 1 0:50 / {0}/auto rw - autofs x rw\n"
        "3 1 0:51 / {0}/server rw - nfs host:/x rw\n",
        files);
    Write(files + "/auto/a", "");
    Write(files + "/server/b", "");
    fs::create_symlink("auto", files + "/way");
    const auto outcome = [&](const std::string& where) {
        constexpr GatherRoutine gather = [](const Gathering& to) { return GatherDataFiles(to, mountInfo); };
        return Outcome(GatherTexts(u"CIM_DataFile", "Name", gather, "WHERE " + where));
    };
    const std::string orPlain = " OR Name=" + Quoted(files + "/plain");
    const std::string onServer = "Name=" + Quoted(files + "/server/b");
    EXPECT_EQ(outcome(onServer), "00000000 1");
    EXPECT_EQ(outcome("Path=" + Quoted(files + "/server")), "00000000 1");
    for (const std::string& where : {"Name=" + Quoted(files + "/auto/a"), "Path=" + Quoted(files + "/way/")})
        EXPECT_THAT(outcome(where), testing::MatchesRegex("80041004 0 1 files .*/auto is not mounted, .*")) << where;
    EXPECT_THAT(outcome("Name=" + Quoted(files + "/way/a") + orPlain), testing::StartsWith("00000000 1 1 files"));
    std::promise<void> answers;
    const auto wait = [answer = answers.get_future().share()] { answer.wait(); };
    EXPECT_FALSE(facts::RunBounded("0:51 " + files + "/server", std::chrono::milliseconds(10), wait));
    EXPECT_THAT(outcome(onServer), testing::MatchesRegex("80041004 0 1 files .*/server does not answer"));
    EXPECT_THAT(outcome(onServer + orPlain), testing::StartsWith("00000000 1 1 files"));
    answers.set_value();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (outcome(onServer) != "00000000 1" && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
    EXPECT_EQ(outcome(onServer), "00000000 1");
}

}  // namespace
}  // namespace kv::test
