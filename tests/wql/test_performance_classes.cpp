// Performance classes: how figures follow from counters, how samples are kept, and the figures of this machine and its
// processes; Win32_Process too.
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/linux/shell.h"
#include "tests/support/wmi_query.h"
#include "wql/cim_value.h"
#include "wql/class_tree.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::test {
namespace {

using namespace platform;
using namespace wql;
using enum CounterKind;
namespace fs = std::filesystem;

constexpr std::uint64_t second = 10'000'000;

TEST(PerformanceFigures, FollowFromTwoMomentsByTheirKind) {
    using Before = std::optional<CounterState>;
    constexpr std::uint64_t s = second;
    const struct {
        const char* title;
        CounterKind kind;
        Before before;
        CounterState now;
        double figure;
        std::uint64_t birth = 0;
        std::uint64_t period = 0;
    } rows[] = {
        {"the value itself", value, Before({9 * s, 3}), {10 * s, 7}, 7},
        {"growth in a second", rate, Before({10 * s, 100}), {12 * s, 300}, 100},
        {"since the birth", rate, {}, {20 * s, 100}, 10, 10 * s},
        {"gone back", rate, Before({10 * s, 100}), {20 * s, 60}, 6, 10 * s},
        {"wrapped at its period", rate, Before({10 * s, 990}), {12 * s, 10}, 10, 0, 1000},
        {"set back without a wrap", rate, Before({10 * s, 400}), {20 * s, 60}, 6, 10 * s, 1000},
        {"more than the time that has passed", percentOfTimestamp, Before({10 * s, 0}), {11 * s, 3 * s}, 100},
        {"a percentage of operations may pass 100", percentOfOperations, Before({10 * s, 0}), {11 * s, 3 * s}, 300},
        {"a time that went back a little", percentOfTimestamp, Before({10 * s, 5 * s}), {12 * s, 4 * s}, 0},
        {"a time that began again", percentOfTimestamp, Before({10 * s, 5 * s}), {12 * s, s}, 50, 10 * s},
        {"the rest of a busy time", percentOfTimestampLeft, Before({10 * s, 9 * s}), {14 * s, s}, 50, 0, 10 * s},
        {"a percentage of the counted time", percentOfTime, Before({10 * s, s, 4 * s}), {90 * s, 2 * s, 8 * s}, 25},
        {"the rest of a counted idle time", percentOfTimeLeft, Before({10 * s, s, 4 * s}), {90 * s, 2 * s, 8 * s}, 75},
        {"one and a half processors", percentOfProcessors, Before({10 * s, 0}), {12 * s, 3 * s}, 150},
        {"more processors than there are", percentOfProcessors, Before({10 * s, 0}), {11 * s, 9 * s}, 200},
        {"a fraction", fraction, {}, {s, 25, 200}, 12.5},
        {"a free share", freeShare, {}, {s, 25, 200}, 12.5},
        {"seconds for each operation", averageTime, Before({10 * s, s, 4}), {12 * s, 7 * s, 7}, 2},
        {"no operation to average over", averageTime, Before({10 * s, s, 4}), {12 * s, s, 4}, 0},
        {"both counters from the start because one went back",
         averageAmount,
         Before({10 * s, 10, 90}),
         {12 * s, 30, 6},
         5},
        {"operations at a time", queueLength, Before({10 * s, 0}), {12 * s, 6 * s}, 3},
        {"seconds since a moment", elapsedTime, Before({9 * s, 5 * s}), {20 * s, 5 * s}, 15},
        {"a moment in the future", elapsedTime, {}, {20 * s, 21 * s}, 0},
    };
    for (const auto& row : rows) {
        const Quotient quotient =
            QuotientBetween(row.kind, row.before ? &*row.before : nullptr, row.now, row.birth, row.period);
        EXPECT_DOUBLE_EQ(FigureOf(row.kind, quotient, 2), row.figure) << row.title;
    }
}

TEST(PerformanceSamples, AreKeptAsLongAsTheyCanBeABase) {
    using Times = std::vector<std::uint64_t>;
    const auto timesOf = [](const std::vector<ReadingsPtr>& samples) {
        Times times;
        for (const ReadingsPtr& sample : samples) times.push_back(sample->time * 10 / second);
        return times;
    };
    const std::tuple<const char*, std::uint64_t, std::uint32_t, Times, Times> steps[] = {
        {"the first", 100, 1, {}, {100}},
        {"within a second", 105, 1, {}, {100}},
        {"after a second", 112, 1, {100}, {100, 112}},
        {"the newest is too young", 115, 1, {100}, {100, 112}},
        {"a newest that holds more", 130, 3, {112, 100}, {112, 130}},
        {"a newest that holds something else", 135, 4, {112}, {112, 130, 135}},
        {"taken before the last, on another thread", 133, 8, {112}, {112, 130, 133, 135}},
        {"what others hold too is dropped", 200, 1, {135, 133, 130, 112}, {130, 133, 135, 200}},
    };
    std::vector<ReadingsPtr> samples;
    for (const auto& [title, tenths, needs, bases, kept] : steps) {  // bases: newest first
        const auto newest = std::make_shared<Readings>();
        newest->time = tenths * (second / 10);
        newest->needs = needs;
        EXPECT_EQ(timesOf(TakeBases(samples, newest)), bases) << title;
        EXPECT_EQ(timesOf(samples), kept) << title;
    }
}

/// An object of the next test's class.
struct Fake {
    const char* key;
    std::uint64_t generation;
    std::uint64_t seconds;
    std::optional<std::uint64_t> value;
    bool isBirthKnown = true;
};
std::vector<Fake> fakes;
std::optional<std::string> askedKey;  // null: all are asked for

constexpr CounterInfo fakeCounters[] = {
    {u"Held", CimType::uint32, value, 1, "", [](const Fake& fake) { return fake.value; }},
    {u"Speed", CimType::uint32, rate, 1, "", [](const Fake& fake) { return fake.value; }},
};

WmiStatus ReadFakes(const Gathering&, PerfSampling& sampling) {
    if (askedKey) sampling.isAsked = [](const std::string& key) { return key == *askedKey; };
    for (const Fake& fake : fakes) {
        PerfObject object;
        object.name = object.key = fake.key;
        object.generation = fake.generation;
        object.isBirthKnown = fake.isBirthKnown;
        sampling.Add(std::move(object), &fake, fake.seconds * second);
    }
    return wmi_status::ok;
}

constexpr PerfClass fakeClass{u"Fake", "", fakeCounters, ReadFakes, false, true};

/// The name and speed, or another counter, of each object: "a=1 b=NULL".
std::string SpeedsIn(const ClassInfo& formatted, std::u16string_view counter = u"Speed") {
    std::string answer;
    Gathering gathering;
    gathering.needs = 1;
    gathering.row = [&](const void* row) {
        const auto textOf = [&](std::u16string_view name) {
            const PropertyInfo* property = FindProperty(formatted, name);
            return VariantText(VariantOf(property->type, property->read(row, *property)));
        };
        answer += (answer.empty() ? "" : " ") + textOf(u"Name") + "=" + textOf(counter);
        return true;
    };
    EXPECT_EQ(formatted.gather(gathering), wmi_status::ok);
    return answer;
}

TEST(PerformanceSamples, AreKeptForEachObjectApart) {
    const ClassInfo& formatted = DeclarePerfClasses<fakeClass>()[1];
    const std::tuple<const char*, std::vector<Fake>, std::optional<std::string>, const char*> steps[] = {
        {"the first", {{"a", 1, 10, 100}}, {}, "a=10 _Total=10"},
        {"a new one", {{"a", 1, 20, 300}, {"b", 1, 20, 2000}}, {}, "a=20 b=100 _Total=120"},
        {"one alone", {{"b", 1, 24, 2040}}, "b", "b=10"},
        {"each since its own last sample", {{"a", 1, 30, 400}, {"b", 1, 26, 2080}}, {}, "a=10 b=20 _Total=30"},
        {"another object of the same name", {{"a", 2, 40, 4000}, {"b", 1, 36, 2080}}, {}, "a=100 b=0 _Total=100"},
        {"an object is gone", {{"a", 2, 50, 4010}}, {}, "a=1 _Total=1"},
        {"and comes back", {{"a", 2, 60, {}}, {"b", 1, 60, 6000}}, {}, "a=NULL b=100 _Total=100"},
        {"since the last known value", {{"a", 2, 70, 4410}, {"b", 1, 70, 6000}}, {}, "a=20 b=0 _Total=20"},
        {"asked for and not found", {}, "b", ""},
        {"and therefore new", {{"b", 1, 80, 8000}}, "b", "b=100"},
        {"more than the type holds: all bits set", {{"a", 2, 82, 1ULL << 40}}, {}, "a=-1 _Total=-1"},
        {"begun after the last sample", {{"a", 2, 86, 1ULL << 40}, {"d", 1, 86, 80, false}}, {}, "a=0 d=20 _Total=20"},
        {"no objects", {}, {}, ""},
    };
    for (const auto& [title, found, asked, speeds] : steps) {
        fakes = found;
        askedKey = asked;
        EXPECT_EQ(SpeedsIn(formatted), speeds) << title;
    }
    askedKey = {};
    fakes = {{"c", 1, 90, (1ULL << 32) + 7}};
    for (const ClassInfo& either : DeclarePerfClasses<fakeClass>())
        EXPECT_EQ(SpeedsIn(either, u"Held"), "c=7 _Total=7") << "a value wraps in both classes";
}

class PerformanceOfThisMachine : public WmiTest {
  protected:
    static WmiRow QueryFirst(const std::string& query) {
        const WmiResult result = RunWmiQuery(query);
        EXPECT_EQ(result.status, wmi_status::ok) << query;
        EXPECT_FALSE(result.rows.empty()) << query;
        return result.rows.empty() ? WmiRow() : result.rows.front();
    }
    static double NumberIn(const WmiRow& row, const std::string& name) {
        return std::atof(PropertyText(row, name).c_str());
    }

    using Texts = std::map<std::string, std::string>;
    using Paths = std::vector<fs::path>;

    /// Copies files, and lists of entries for directories. A file "space" has the used and available bytes of /.
    static void CopyFiles(const Paths& files, const fs::path& to) {
        std::error_code ignored;  // for files, which have no entries
        fs::create_directories(to);
        std::ofstream(to / "space") << fs::space("/").capacity - fs::space("/").free << ' ' << fs::space("/").available;
        for (const fs::path& file : files) {
            std::ofstream copied(to / file.filename());
            if (!fs::is_directory(file)) copied << std::ifstream(file).rdbuf();
            for (const auto& entry : fs::directory_iterator(file, ignored)) copied << entry.path() << '\n';
        }
    }

    /// Runs commands in a folder and reads the lines "Name 5" that they print. Their function f is awk.
    static Texts RunForNumbers(const fs::path& folder, const std::string& commands) {
        const std::string before =
            "f() { awk -v tick=$((10000000 / $(getconf CLK_TCK))) -v page=$(getconf PAGESIZE) "
            "-v OFMT=%.0f -v CONVFMT=%.0f \"$@\"; }; cd " +
            folder.string() + ";";
        Texts numbers;
        const ShellOutcome outcome = RunShell(before + commands);
        std::istringstream output(outcome.output);
        for (std::string name, number; output >> name >> number;) numbers[name] = number;
        EXPECT_EQ(outcome.exitCode, 0) << commands;
        return numbers;
    }

    /// Whether a property lies between two numbers, both cut to its type.
    static bool LiesBetween(const WmiProperty& property, const std::string& before, const std::string& after) {
        if (property.text == "NULL") return before == "NULL";
        const std::uint64_t mask = property.type == VariantType::i4 ? UINT32_MAX : UINT64_MAX;
        const auto numberOf = [](const std::string& text) { return std::strtoull(text.c_str(), nullptr, 10); };
        const auto [least, most] = std::minmax({numberOf(before), numberOf(after)});
        return ((numberOf(property.text) - least) & mask) <= ((most - least) & mask);
    }

    /// Expects each property between what commands print of the files before and after the query. Values that go up and
    /// down get several attempts.
    static void ExpectBetween(const std::string& from, const Paths& files, const std::string& commands) {
        const fs::path folder = fs::temp_directory_path() / fmt::format("kv{}", getpid());
        Texts failures{{"nothing", ""}};
        std::set<std::string> passed;
        for (int attempt = 0; attempt < 40 && !failures.empty(); ++attempt) {
            CopyFiles(files, folder / "before");
            WmiRow found = QueryFirst("SELECT * FROM Win32_" + from);
            CopyFiles(files, folder / "after");
            Texts after = RunForNumbers(folder / "after", commands);
            if (!after.empty()) failures.clear();
            for (const auto& [name, before] : RunForNumbers(folder / "before", commands)) {
                if (LiesBetween(found[name], before, after[name])) passed.insert(name);
                if (!passed.contains(name)) failures[name] = before + " <= " + found[name].text + " <= " + after[name];
            }
        }
        fs::remove_all(folder);
        for (const auto& [name, seen] : failures) ADD_FAILURE() << from << ": " << name << ": " << seen;
    }
};

TEST_F(PerformanceOfThisMachine, MatchesTheKernelsFiles) {
    const std::tuple<const char*, Paths, const char*> rows[] = {
        // One thread more: the query's.
        {"PerfFormattedData_PerfOS_System", {"/proc/uptime", "/proc/loadavg", "/proc"}, R"(
            f '{print "SystemUpTime", int($1 + 0.5)}' uptime; f -F '[ /]' '{print "Threads", $5 + 1}' loadavg
            f -F '/' '$3 ~ /^[0-9]/ {++n} END {print "Processes", n}' proc)"},
        {"PerfRawData_PerfOS_System", {"/proc/stat"}, R"(f '/^ctxt/ {print "ContextSwitchesPersec", $2}' stat)"},
        {"PerfRawData_PerfOS_Memory", {"/proc/vmstat"}, R"(f '/^pgfault / {print "PageFaultsPersec", $2}
            /^pgmajfault / {print "PageReadsPersec", $2} /^pgpgin / {print "PagesInputPersec", int($2 * 1024 / page)}
            /^pgpgout / {print "PagesOutputPersec", int($2 * 1024 / page)}' vmstat)"},
        {"PerfFormattedData_PerfOS_Memory", {"/proc/meminfo", "/proc/sys/vm/overcommit_memory"}, R"(
            f '{v[$1] = $2 * 1024} NF == 1 {strict = $1 == 2} END {
            a = v["MemAvailable:"]; print "AvailableBytes", a "\nAvailableKBytes", a / 1024
            print "AvailableMBytes", int(a / 1048576) "\nCommittedBytes", v["Committed_AS:"]
            print "CacheBytes", v["Cached:"] + v["Buffers:"] + v["SReclaimable:"]
            print "FreeAndZeroPageListBytes", v["MemFree:"] "\nPoolNonpagedBytes", v["SUnreclaim:"]
            print "PoolPagedBytes", v["SReclaimable:"] "\nModifiedPageListBytes", v["Dirty:"] + v["Writeback:"]
            print "CommitLimit", strict ? v["CommitLimit:"] : v["MemTotal:"] + v["SwapTotal:"]
            }' meminfo overcommit_memory)"},
        {"PerfRawData_PerfOS_Processor WHERE Name = '0'", {"/proc/stat", "/proc/interrupts", "/proc/softirqs"}, R"(
            f '/^cpu0 / {print "PercentIdleTime", ($5 + $6) * tick; print "PercentProcessorTime", ($5 + $6) * tick
            print "PercentPrivilegedTime", ($4 + $7 + $8) * tick; print "PercentInterruptTime", $7 * tick
            print "PercentDPCTime", $8 * tick; print "PercentUserTime", ($2 + $3) * tick}' stat
            f 'NR == 1 {n = NF} NR > 1 && NF > n {s += $2} END {print "InterruptsPersec", s}' interrupts
            f 'NR == 1 {n = NF} NR > 1 && NF > n {s += $2} END {print "DPCsQueuedPersec", s}' softirqs)"},
        {"PerfRawData_Counters_ProcessorInformation WHERE Name = '0,0'", {"/proc/stat", "/proc/interrupts"}, R"(
            f '/^cpu0 / {busy = $2 + $3 + $4 + $7 + $8 + $9; k = $4 + $7 + $8; print "PercentIdleTime", ($5 + $6) * tick
            print "PercentPriorityTime", (busy - $3) * tick; print "PercentProcessorUtility", busy * tick / 100
            print "PercentPrivilegedUtility", k * tick / 100; print "PercentUserTime", ($2 + $3) * tick
            print "PercentProcessorUtility_Base", (busy + $5 + $6) * tick / 10000}' stat
            f '/LOC:|arch_timer$/ {s += $2} END {print "ClockInterruptsPersec", s}' interrupts)"},
        {"PerfRawData_PerfOS_Cache", {"/proc/vmstat"}, R"(f '/^nr_dirty / {print "DirtyPages", $2}
            /^nr_dirty_threshold / {print "DirtyPageThreshold", $2}
            /^nr_written / {print "DataFlushPagesPersec", $2}' vmstat)"},
        {"PerfFormattedData_PerfOS_Objects", {"/proc/loadavg", "/proc"}, R"(
            f -F '[ /]' '{print "Threads", $5 + 1}' loadavg
            f -F '/' '$3 ~ /^[0-9]/ {++n} END {print "Processes", n}' proc)"},
        {"PerfRawData_PerfDisk_LogicalDisk WHERE Name = '/'", {}, R"(f '{m = 1048576; print "FreeMegabytes", int($2 / m)
            print "PercentFreeSpace", int($2 / m); print "PercentFreeSpace_Base", int(($1 + $2) / m)}' space)"},
    };
    for (const auto& [from, files, commands] : rows) ExpectBetween(from, files, commands);
    for (const char* name : {"PerfOS_Processor", "Counters_ProcessorInformation"}) {
        for (const WmiRow& row : RunWmiQuery(std::string("SELECT * FROM Win32_PerfFormattedData_") + name).rows) {
            const double busy = NumberIn(row, "PercentProcessorTime");
            EXPECT_NEAR(busy + NumberIn(row, "PercentIdleTime"), 100, 1) << name;
            EXPECT_LE(NumberIn(row, "PercentUserTime") + NumberIn(row, "PercentPrivilegedTime"), busy + 1) << name;
            EXPECT_NEAR(row.contains("PercentProcessorUtility") ? NumberIn(row, "PercentProcessorUtility") : busy, busy,
                        1);
        }
    }
}

TEST_F(PerformanceOfThisMachine, MatchesTheFilesOfDisksAndInterfaces) {
    for (const WmiRow& row : RunWmiQuery("SELECT * FROM Win32_PerfRawData_PerfDisk_PhysicalDisk").rows) {
        const std::string name = PropertyText(row, "Name");
        if (name == "_Total") continue;
        EXPECT_EQ(NumberIn(row, "PercentIdleTime") + NumberIn(row, "PercentDiskTime"),
                  NumberIn(row, "Timestamp_PerfTime"));
        ExpectBetween("PerfRawData_PerfDisk_PhysicalDisk WHERE Name = '" + name + "'", {"/proc/diskstats"},
                      "f -v name=" + name.substr(name.find(' ') + 1) + R"( '$3 == name {print "DiskReadsPersec", $4
            print "DiskReadBytesPersec", $6 * 512; print "PercentDiskReadTime", $7 * 10000
            print "DiskWritesPersec", $8; print "DiskWriteBytesPersec", $10 * 512
            print "PercentDiskWriteTime", $11 * 10000; print "CurrentDiskQueueLength", $12
            print "PercentDiskTime", $13 * 10000; print "DiskTransfersPersec", $4 + $8
            print "DiskBytesPersec", ($6 + $10) * 512; print "AvgDiskBytesPerRead_Base", $4
            print "AvgDisksecPerTransfer", ($7 + $11) * 10000; print "AvgDisksecPerWrite_Base", $8}' diskstats)");
    }
    const WmiResult interfaces = RunWmiQuery("SELECT * FROM Win32_PerfRawData_Tcpip_NetworkInterface");
    EXPECT_EQ(interfaces.status, wmi_status::ok);
    EXPECT_EQ(std::to_string(interfaces.rows.size()),
              RunForNumbers("/proc/net", "f 'NR > 2 && !/^ *lo:/ {++n} END {print \"rows\", n + 0}' dev")["rows"]);
    for (const WmiRow& row : interfaces.rows) {
        const std::string name = PropertyText(row, "Name");
        ExpectBetween("PerfRawData_Tcpip_NetworkInterface WHERE Name = '" + name + "'",
                      {"/proc/net/dev", "/sys/class/net/" + name + "/speed"}, "n='" + name + R"('
            f -v name="$n" -F '[: ]+' 'sub(/^ */, "") && $1 == name {print "BytesReceivedPersec", $2
            print "PacketsReceivedPersec", $3 "\nPacketsReceivedErrors", $4 "\nPacketsReceivedDiscarded", $5
            print "PacketsReceivedNonUnicastPersec", $9; print "PacketsReceivedUnicastPersec", $3 - $9
            print "BytesSentPersec", $10 "\nPacketsSentPersec", $11 "\nPacketsOutboundErrors", $12
            print "PacketsOutboundDiscarded", $13 "\nBytesTotalPersec", $2 + $10
            print "PacketsPersec", $3 + $11}' dev
            f '$1 > 0 {n = $1 * 1000000} END {print "CurrentBandwidth", n ? n : "NULL"}' speed)");
    }
}

/// A process that lives for half a minute at most and, if told to, writes to /dev/null all the time.
struct Child {
    pid_t id = 0;

    explicit Child(const char* name, bool writes = false) {
        char ownName[16] = {};
        prctl(PR_GET_NAME, ownName);
        prctl(PR_SET_NAME, name);  // the child inherits it
        id = fork();
        if (id != 0) prctl(PR_SET_NAME, ownName);
        if (id != 0) return;
        alarm(30);
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        const char block[1000] = {};
        while (writes && write(nowhere, block, sizeof block) > 0) continue;
        pause();
        _exit(0);
    }
    ~Child() {
        kill(id, SIGKILL);
        waitpid(id, nullptr, 0);
    }
    /// Stops or ends the child and waits for that, without reaping it.
    void Signal(int number) const {
        siginfo_t info;
        kill(id, number);
        waitid(P_PID, static_cast<id_t>(id), &info, WEXITED | WSTOPPED | WNOWAIT);
    }
};

TEST_F(PerformanceOfThisMachine, MatchesWhatABusyProcessDid) {
    const Child busy("busy", true);
    const auto query = [&busy](const char* kind) {
        return QueryFirst(
            fmt::format("SELECT * FROM Win32_Perf{}_PerfProc_Process WHERE IDProcess = {}", kind, busy.id));
    };
    const WmiRow earliest = query("RawData");
    EXPECT_EQ(NumberIn(query("FormattedData"), "CreatingProcessID"), getpid());
    const WmiRow early = query("RawData");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const WmiRow late = query("RawData");
    const WmiRow figures = query("FormattedData");
    const WmiRow latest = query("RawData");
    const auto growth = [](const WmiRow& from, const WmiRow& to, const char* name) {
        return NumberIn(to, name) - NumberIn(from, name);
    };
    const double shortest = growth(early, late, "Timestamp_Sys100NS");
    const double longest = growth(earliest, latest, "Timestamp_Sys100NS");
    for (const char* name :
         {"PercentProcessorTime", "PercentUserTime", "PercentPrivilegedTime", "PageFaultsPersec",
          "IOWriteOperationsPersec", "IOWriteBytesPersec", "IODataBytesPersec", "IOReadBytesPersec"}) {
        const double factor = std::string_view(name).starts_with("Percent") ? 100 : second;
        EXPECT_GE(NumberIn(figures, name) + 0.5, growth(early, late, name) * factor / longest) << name;
        EXPECT_LE(NumberIn(figures, name) - 0.5, growth(earliest, latest, name) * factor / shortest) << name;
    }
    busy.Signal(SIGSTOP);
    const std::string folder = fmt::format("/proc/{}/", busy.id);
    const Paths files{folder + "stat", folder + "status", folder + "io", folder + "fd"};
    ExpectBetween(fmt::format("PerfRawData_PerfProc_Process WHERE IDProcess = {}", busy.id), files, R"(
        f '{print "IDProcess", $1 "\nCreatingProcessID", $4 "\nPageFaultsPersec", $10 + $12
        print "PercentUserTime", $14 * tick; print "PercentPrivilegedTime", $15 * tick; print "ThreadCount", $20
        print "PercentProcessorTime", ($14 + $15) * tick "\nVirtualBytes", $23 "\nWorkingSet", $24 * page}' stat
        f '{v[$1] = $2 * 1024} END {print "VirtualBytesPeak", v["VmPeak:"] "\nWorkingSetPeak", v["VmHWM:"]
        print "WorkingSetPrivate", v["RssAnon:"]; print "PrivateBytes", v["RssAnon:"] + v["VmSwap:"]}' status
        f '{v[$1] = $2} END {print "IOReadBytesPersec", v["rchar:"] "\nIOWriteBytesPersec", v["wchar:"]
        print "IOReadOperationsPersec", v["syscr:"] "\nIOWriteOperationsPersec", v["syscw:"]}' io
        f 'END {print "HandleCount", NR}' fd)");
    ExpectBetween(fmt::format("Process WHERE ProcessId = {}", busy.id), files, R"(
        f '{print "ProcessId", $1 "\nParentProcessId", $4 "\nSessionId", $6 "\nPageFaults", $10 + $12
        print "UserModeTime", $14 * tick "\nKernelModeTime", $15 * tick "\nThreadCount", $20
        print "VirtualSize", $23 "\nWorkingSetSize", $24 * page}' stat
        f '{v[$1] = $2} END {print "PeakVirtualSize", v["VmPeak:"] * 1024 "\nPeakWorkingSetSize", v["VmHWM:"]
        kb = v["RssAnon:"] + v["VmSwap:"]; print "PageFileUsage", kb "\nPrivatePageCount", kb * 1024}' status
        f '{v[$1] = $2} END {print "ReadTransferCount", v["rchar:"] "\nWriteTransferCount", v["wchar:"]
        print "ReadOperationCount", v["syscr:"] "\nWriteOperationCount", v["syscw:"]}' io
        f 'END {print "HandleCount", NR}' fd)");
}

TEST_F(PerformanceOfThisMachine, HasTheProcessesThatPsShows) {
    for (const int end : {SIGSTOP, SIGKILL}) {
        const Child child("odd) S (na me");
        child.Signal(end);
        const WmiRow row = QueryFirst(fmt::format("SELECT * FROM Win32_Process WHERE ProcessId = {}", child.id));
        const char* const ps = "ps -o pid=,ppid=,state=,comm= -p {} | sed 's/ T / 8 /; s/ Z / 7 /; s/<.*//' | xargs";
        EXPECT_EQ(PropertyTexts(row, "Handle,ParentProcessId,ExecutionState,Name"),
                  RunShell(fmt::format(fmt::runtime(ps), child.id)).output);
        EXPECT_EQ(PropertyText(row, "CommandLine") == "NULL", end == SIGKILL);
        EXPECT_EQ(PropertyText(row, "ExecutablePath"),
                  RunShell(fmt::format("readlink /proc/{}/exe || echo NULL", child.id)).output);
        const auto created = MicrosecondsOfDmtf(WideFromUtf8(PropertyText(row, "CreationDate")));
        EXPECT_NEAR(static_cast<double>(created.value_or(0)) / 1e6, static_cast<double>(time(nullptr)), 10);
    }
}

TEST_F(PerformanceOfThisMachine, TotalsAreLastAndNamesAreUnique) {
    const Child children[] = {Child("_Total"), Child("_Total#1"), Child("_Total")};
    const std::pair<const char*, const char*> sums[] = {{"PerfProc_Process", "ThreadCount"},
                                                        {"PerfDisk_LogicalDisk", "FreeMegabytes"},
                                                        {"PerfDisk_PhysicalDisk", "CurrentDiskQueueLength"}};
    std::vector<std::thread> askers;
    for (const auto& [name, property] : sums) {
        const std::string query = std::string("SELECT * FROM Win32_PerfFormattedData_") + name;
        askers.emplace_back([query] {
            for (int round = 0; round < 5; ++round) EXPECT_EQ(RunWmiQuery(query).status, wmi_status::ok) << query;
        });
        const std::vector<WmiRow> rows = RunWmiQuery(query).rows;
        std::set<std::string> names;
        double sum = 0;
        for (const WmiRow& row : rows) {
            names.insert(PropertyText(row, "Name"));
            const std::string disk = "SELECT * FROM Win32_LogicalDisk WHERE DriveType > 3 AND Name = '";
            const bool isCounted =
                !query.ends_with("LogicalDisk") || RunWmiQuery(disk + PropertyText(row, "Name") + "'").rows.empty();
            if (isCounted && &row != &rows.back()) sum += NumberIn(row, property);
        }
        EXPECT_EQ(names.size(), rows.size()) << query;
        EXPECT_EQ(names.contains("_Total#2"), query.ends_with("Process")) << query;
        EXPECT_TRUE(rows.empty() || PropertyText(rows.back(), "Name") == "_Total") << query;
        EXPECT_TRUE(rows.empty() || NumberIn(rows.back(), property) == sum) << query;
    }
    for (std::thread& asker : askers) asker.join();
}

TEST_F(PerformanceOfThisMachine, FailsWhenItCannotBeRead) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors too";
#endif
    rlimit limits{};
    getrlimit(RLIMIT_NOFILE, &limits);
    const rlimit noFiles{0, limits.rlim_max};
    std::istringstream perfClasses(
        "PerfProc_Process PerfOS_System PerfOS_Memory PerfOS_PagingFile PerfOS_Processor PerfOS_Cache PerfOS_Objects "
        "Counters_ProcessorInformation Counters_ThermalZoneInformation PerfDisk_LogicalDisk PerfDisk_PhysicalDisk "
        "Tcpip_NetworkAdapter Tcpip_NetworkInterface Tcpip_TCPv4 Tcpip_TCPv6");
    std::vector<std::string> unreadable{"NetworkAdapter", "NetworkAdapterConfiguration", "PageFileUsage", "Processor",
                                        "Process",        "Process WHERE ProcessId = 1"};
    for (std::string name; perfClasses >> name;) unreadable.push_back("PerfFormattedData_" + name);
    unreadable.push_back("PerfFormattedData_PerfProc_Process WHERE IDProcess = 1");
    for (const std::string& name : unreadable) {
        const std::string query = fmt::format("SELECT * FROM Win32_{}", name);
        setrlimit(RLIMIT_NOFILE, &noFiles);
        const WmiResult result = RunWmiQuery(query);
        setrlimit(RLIMIT_NOFILE, &limits);
        EXPECT_EQ(result.status, wmi_status::providerFailure) << query;
        EXPECT_EQ(RunWmiQuery(query).status, wmi_status::ok) << query;
    }
}

}  // namespace
}  // namespace kv::test
