// Performance classes: how figures follow from counters, how samples are kept, the figures of this machine and its
// processes, and of files that stand for the kernel's.
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <set>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/namespaces.h"
#include "tests/support/linux/shell.h"
#include "wql/cim_value.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::test {
namespace {

using namespace platform;
using namespace wql;
using enum CounterKind;
namespace fs = std::filesystem;
using PerformanceFiles = FrozenFiles;

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

using PerformanceOfThisMachine = WmiTest;

WmiRow QueryFirst(const std::string& query) {
    const WmiResult result = RunWmiQuery(query);
    EXPECT_EQ(result.status, wmi_status::ok) << query;
    return result.rows.at(0);
}

double NumberIn(const WmiRow& row, const std::string& name) { return std::atof(PropertyText(row, name).c_str()); }

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
        EXPECT_EQ(
            PropertyTexts(row, "ExecutablePath,HandleCount"),
            RunShell(fmt::format("cd /proc/{}; echo $(readlink exe || echo NULL) $(ls fd | wc -l)", child.id)).output);
        const auto created = MicrosecondsOfDmtf(WideFromUtf8(PropertyText(row, "CreationDate")));
        EXPECT_NEAR(static_cast<double>(created.value_or(0)) / 1e6, static_cast<double>(time(nullptr)), 10);
    }
}

TEST_F(PerformanceOfThisMachine, TotalsAreLastAndNamesAreUnique) {
    const Child children[] = {Child("_Total"), Child("_Total#1"), Child("_Total")};
    const std::string query = "SELECT * FROM Win32_PerfFormattedData_PerfProc_Process";
    std::thread other([&query] {
        for (int round = 0; round < 5; ++round) EXPECT_EQ(RunWmiQuery(query).status, wmi_status::ok);
    });
    const std::vector<WmiRow> rows = RunWmiQuery(query).rows;
    other.join();
    std::set<std::string> names;
    double threads = 0;
    for (const WmiRow& row : rows) {
        names.insert(PropertyText(row, "Name"));
        if (PropertyText(row, "Name") != "_Total") threads += NumberIn(row, "ThreadCount");
    }
    EXPECT_EQ(names.size(), rows.size());
    EXPECT_TRUE(names.contains("_Total#2"));
    EXPECT_EQ(PropertyTexts(rows.back(), "Name,ThreadCount"), fmt::format("_Total {}", threads));
}

TEST_F(PerformanceOfThisMachine, FailsWhenItCannotBeRead) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors too";
#endif
    rlimit limits{};
    getrlimit(RLIMIT_NOFILE, &limits);
    const rlimit noFiles{0, limits.rlim_max};
    std::vector<std::string> unreadable{"NetworkAdapter", "NetworkAdapterConfiguration", "PageFileUsage", "Processor",
                                        "Process",        "Process WHERE ProcessId = 1"};
    for (const ClassInfo* classInfo : AllClasses()) {
        const std::string name = Utf8FromWide(classInfo->name);
        if (name.starts_with("Win32_PerfFormattedData_")) unreadable.push_back(name.substr(6));
    }
    unreadable.push_back("PerfFormattedData_PerfProc_Process WHERE IDProcess = 1");
    for (const std::string& name : unreadable) {
        const std::string query = "SELECT * FROM Win32_" + name;
        setrlimit(RLIMIT_NOFILE, &noFiles);
        const WmiResult result = RunWmiQuery(query);
        setrlimit(RLIMIT_NOFILE, &limits);
        EXPECT_EQ(result.status, wmi_status::providerFailure) << query;
        EXPECT_EQ(RunWmiQuery(query).status, wmi_status::ok) << query;
    }
}

/// While one lives, /proc is an empty folder. Only for a test that runs in namespaces.
struct EmptyProc {
    const int failure = mount("tmpfs", "/proc", "tmpfs", 0, "");
    ~EmptyProc() {
        if (failure == 0) umount2("/proc", MNT_DETACH);
    }
};

/// Two processors in two memory nodes, a disk, an interface and two processes.
const std::pair<const char*, std::string> kernelFiles[] = {
    {"/proc/loadavg", "0.10 0.20 0.30 2/345 6789"},
    {"/proc/stat", "cpu 0 0\ncpu0 100 20 300 4000 500 6 7 8 0 0\ncpu1 0 0 0 0 0 0 0 0\nctxt 12345\nprocs_running 5"},
    {"/proc/interrupts", "  CPU0 CPU1\n  0: 30 0 IO-APIC timer\nLOC: 400 0 Local timer interrupts\nERR: 5"},
    {"/proc/softirqs", "  CPU0 CPU1\nHI: 1 0\nTIMER: 50 0"},
    {"/proc/vmstat",
     "nr_dirty 5\nnr_written 70\nnr_dirty_threshold 600\npgpgin 4000\npgpgout 8000\npgfault 1000\npgmajfault 20"},
    {"/proc/meminfo",
     "MemTotal: 10000 kB\nMemFree: 1000 kB\nMemAvailable: 5003 kB\nBuffers: 200 kB\nCached: 3000 kB\n"
     "SwapTotal: 40000 kB\nDirty: 7 kB\nWriteback: 1 kB\nSReclaimable: 50 kB\nSUnreclaim: 60 kB\n"
     "CommitLimit: 9000 kB\nCommitted_AS: 8000 kB"},
    {"/proc/sysvipc/sem", "key semid perms nsems\n0 1 600 3"},
    {"/proc/sysvipc/shm", "key shmid perms size\n0 1 600 4096\n0 2 600 4096"},
    {"/dev/shm/sem.one", ""},
    {"/dev/shm/two", ""},
    {"/dev/shm/folder/three", ""},
    {"/proc/diskstats",
     "   8       0 kvd 10 0 2000 300 40 0 5000 600 7 8000 900 0 0 0 0 0 0\n"
     "   8       1 kvd1 9 0 8 7 6 0 5 4 3 2 1 0 0 0 0 0 0"},
    {"/proc/self/mountinfo", "20 1 8:1 / / rw - ext4 /dev/kvd1 rw\n21 20 0:40 / /mnt rw - tmpfs tmpfs rw"},
    {"/sys/block/kvd/device/x", ""},
    {"/sys/block/kvd/kvd1/partition", "1"},
    {"/sys/dev/block/x", ""},
    {"/mnt/used", std::string((2 << 20) - 1, 'x')},
    {"/proc/net/dev",
     "Inter-|   Receive                            |  Transmit\n face |bytes packets errs drop|bytes packets errs\n"
     "    lo:       1 1 0 0 0 0 0 0 1 1 0 0 0 0 0 0\n   kv0: 1000 20 3 4 5 6 7 8 9000 110 12 13 14 15 16 17"},
    {"/sys/class/net/kv0/speed", "1000"},
    {"/proc/1/stat", "gone"},
    {"/proc/71/stat",
     "71 (odd) S (na me) S 3 4 5 0 -1 0 100 0 20 0 300 40 0 0 25 5 7 0 5000 8192000 90 "
     "0 0 0 0 0 0 0 0 0 0 0 0 0 17"},
    {"/proc/71/status", "VmPeak: 9000 kB\nVmHWM: 500 kB\nRssAnon: 70 kB\nVmSwap: 8 kB"},
    {"/proc/71/io", "rchar: 1000\nwchar: 200\nsyscr: 30\nsyscw: 4"},
    {"/proc/cpuinfo", "processor\t: 0\ncpu MHz\t\t: 1500.7\n"},
    {"/sys/devices/system/cpu/cpu0/cpufreq/stats/time_in_state", "1000000 100\n3000000 300"},
};

TEST_F(PerformanceFiles, GiveTheirCounters) {
    if (!IsInNamespaces()) {
        return RunInNamespaces("--mount",
                               "mount -t tmpfs tmpfs /sys && mount -t tmpfs tmpfs /dev/shm && "
                               "mount -t tmpfs -o size=8M tmpfs /mnt");
    }
    const EmptyProc proc;
    ASSERT_EQ(proc.failure, 0);
    for (const auto& [name, text] : kernelFiles) Write(name, text + "\n");
    WriteAll("/sys/class/thermal",
             "cooling_device0/type=Processor\nthermal_zone10/type=broken\nthermal_zone10/temp=-273200\n"
             "thermal_zone0/type=acpitz\nthermal_zone0/temp=45000\nthermal_zone0/trip_point_0_type=active\n"
             "thermal_zone0/trip_point_1_type=passive\nthermal_zone0/cdev0_trip_point=1\n"
             "thermal_zone0/cdev0/cur_state=3\nthermal_zone0/cdev0/max_state=10\nthermal_zone0/cdev1_trip_point=0\n"
             "thermal_zone0/cdev1/cur_state=5\nthermal_zone0/cdev1/max_state=5\nthermal_zone2/type=acpitz\n"
             "thermal_zone2/temp=-500\nthermal_zone3/type=asleep\n");
    WriteAll("/sys/devices/system",
             "node/online=0-1\nnode/node0/cpulist=1-4095\nnode/node1/cpulist=0\n"
             "cpu/cpu0/cpufreq/base_frequency=2000000\ncpu/cpu0/cpufreq/cpuinfo_max_freq=4000000\n"
             "cpu/cpu0/cpufreq/scaling_max_freq=3000000\n");
    fs::create_symlink("/sys/block/kvd/kvd1", "/sys/dev/block/8:1");
    int state = 0;
    for (const auto& [name, time, usage] : std::initializer_list<std::tuple<const char*, const char*, const char*>>{
             {"POLL", "5", "5"}, {"C1_ACPI", "1000", "10"}, {"C1E", "2000", "20"}, {"C10", "7000", "40"}}) {
        WriteAll(fmt::format("/sys/devices/system/cpu/cpu0/cpuidle/state{}", state++),
                 fmt::format("name={}\ntime={}\nusage={}\n", name, time, usage));
    }
    const std::pair<const char*, const char*> rows[] = {
        {"Threads,Processes FROM Win32_PerfFormattedData_PerfOS_System", "345 2"},
        {"ContextSwitchesPersec,ProcessorQueueLength FROM Win32_PerfRawData_PerfOS_System", "12345 3"},
        {"PageFaultsPersec,PageReadsPersec,PagesInputPersec,PagesOutputPersec,PagesPersec FROM "
         "Win32_PerfRawData_PerfOS_Memory",
         "1000 20 1000 2000 3000"},
        {"AvailableBytes,AvailableKBytes,AvailableMBytes,CommittedBytes,CacheBytes,SystemCacheResidentBytes,"
         "FreeAndZeroPageListBytes,PoolNonpagedBytes,PoolPagedBytes,ModifiedPageListBytes,CommitLimit,"
         "PercentCommittedBytesInUse FROM Win32_PerfFormattedData_PerfOS_Memory",
         "5123072 5003 4 8192000 3328000 3276800 1024000 61440 51200 8192 51200000 16"},
        {"PercentIdleTime,PercentProcessorTime,PercentPrivilegedTime,PercentInterruptTime,PercentDPCTime,"
         "PercentUserTime,InterruptsPersec,DPCsQueuedPersec,C1TransitionsPersec,C2TransitionsPersec,"
         "C3TransitionsPersec FROM Win32_PerfRawData_PerfOS_Processor WHERE Name = '0'",
         "450000000 450000000 31300000 600000 700000 12000000 430 51 30 0 40"},
        {"PercentIdleTime,PercentPriorityTime,PercentProcessorUtility,PercentProcessorUtility_Base,"
         "PercentPrivilegedUtility,ClockInterruptsPersec,C3TransitionsPersec,AverageIdleTime,AverageIdleTime_Base,"
         "IdleBreakEventsPersec FROM Win32_PerfRawData_Counters_ProcessorInformation WHERE Name = '1,0'",
         "450000000 42100000 441000 49410 313000 400 40 100050 75 75"},
        {"PercentProcessorTime,PercentIdleTime,PercentUserTime,PercentPrivilegedTime,PercentProcessorUtility,"
         "AverageIdleTime FROM Win32_PerfFormattedData_Counters_ProcessorInformation WHERE Name = '1,_Total'",
         "9 91 2 6 9 1334"},  // 10005 microseconds in 75 stays
        {"Name,ProcessorFrequency,PercentofMaximumFrequency,PercentPerformanceLimit,PercentProcessorPerformance FROM "
         "Win32_PerfFormattedData_Counters_ProcessorInformation",
         "1,0 1500 37 75 125\n0,0 NULL NULL NULL NULL\n0,_Total NULL NULL NULL NULL\n1,_Total 1500 37 75 125\n"
         "_Total 1500 37 75 125"},
        {"PercentProcessorPerformance,PercentProcessorPerformance_Base FROM "
         "Win32_PerfRawData_Counters_ProcessorInformation WHERE Name = '1,_Total'",
         "500000 4000"},  // 4 seconds at 125 percent
        {"DirtyPages,DirtyPageThreshold,DataFlushPagesPersec FROM Win32_PerfRawData_PerfOS_Cache", "5 600 70"},
        {"Threads,Processes,Semaphores,Sections,Events FROM Win32_PerfFormattedData_PerfOS_Objects", "345 2 4 3 NULL"},
        {"Name,Temperature,HighPrecisionTemperature,PercentPassiveLimit,ThrottleReasons FROM "
         "Win32_PerfRawData_Counters_ThermalZoneInformation",
         "acpitz 318 3182 70 1\nacpitz#1 273 2727 100 0\nasleep NULL NULL 100 0\nbroken NULL NULL 100 0"},
        {"Name,DiskReadsPersec,DiskReadBytesPersec,PercentDiskReadTime,DiskWritesPersec,DiskWriteBytesPersec,"
         "PercentDiskWriteTime,CurrentDiskQueueLength,PercentDiskTime,DiskTransfersPersec,DiskBytesPersec,"
         "AvgDiskBytesPerRead_Base,AvgDisksecPerTransfer,AvgDisksecPerWrite_Base FROM "
         "Win32_PerfRawData_PerfDisk_PhysicalDisk WHERE Name <> '_Total'",
         "0 kvd 10 1024000 3000000 40 2560000 6000000 7 80000000 50 3584000 10 9000000 40"},
        {"Name,FreeMegabytes,PercentFreeSpace,DiskReadsPersec FROM Win32_PerfFormattedData_PerfDisk_LogicalDisk WHERE "
         "Name = '/mnt'",
         "/mnt 6 75 NULL"},
        {"FreeMegabytes,PercentFreeSpace,PercentFreeSpace_Base FROM Win32_PerfRawData_PerfDisk_LogicalDisk WHERE "
         "Name = '/mnt'",
         "6 6 8"},
        {"Name,BytesReceivedPersec,PacketsReceivedPersec,PacketsReceivedErrors,PacketsReceivedDiscarded,"
         "PacketsReceivedNonUnicastPersec,PacketsReceivedUnicastPersec,BytesSentPersec,PacketsSentPersec,"
         "PacketsOutboundErrors,PacketsOutboundDiscarded,BytesTotalPersec,PacketsPersec,CurrentBandwidth FROM "
         "Win32_PerfRawData_Tcpip_NetworkInterface",
         "kv0 1000 20 3 4 8 12 9000 110 12 13 10000 130 1000000000"},
        {"Name,IDProcess,CreatingProcessID,PageFaultsPersec,PercentUserTime,PercentPrivilegedTime,PercentProcessorTime,"
         "ThreadCount,VirtualBytes,WorkingSet,VirtualBytesPeak,WorkingSetPeak,WorkingSetPrivate,PrivateBytes,"
         "IOReadBytesPersec,IOWriteBytesPersec,IODataBytesPersec,IOReadOperationsPersec,IOWriteOperationsPersec,"
         "PriorityBase FROM Win32_PerfRawData_PerfProc_Process WHERE IDProcess = 71",
         "odd) S (na me 71 3 120 30000000 4000000 34000000 7 8192000 368640 9216000 512000 71680 79872 1000 200 1200 "
         "30 4 6"},
        {"Handle,Name,ParentProcessId,SessionId,PageFaults,UserModeTime,KernelModeTime,ThreadCount,VirtualSize,"
         "WorkingSetSize,PeakVirtualSize,PeakWorkingSetSize,PageFileUsage,PrivatePageCount,ReadTransferCount,"
         "WriteTransferCount,ReadOperationCount,WriteOperationCount,Priority FROM Win32_Process WHERE "
         "ProcessId = 71",
         "71 odd) S (na me 3 5 120 30000000 4000000 7 8192000 368640 9216000 500 78 79872 1000 200 30 4 6"},
    };
    for (const auto& [selected, texts] : rows) EXPECT_EQ(TextsOf(selected), texts) << selected;
    Write("/proc/sys/vm/overcommit_memory", "2\n");
    EXPECT_EQ(TextsOf("CommitLimit,PercentCommittedBytesInUse FROM Win32_PerfFormattedData_PerfOS_Memory"),
              "9216000 89");
    const std::vector<WmiRow> logical = RunWmiQuery("SELECT * FROM Win32_PerfFormattedData_PerfDisk_LogicalDisk").rows;
    ASSERT_EQ(logical.size(), 3u);
    EXPECT_EQ(PropertyTexts(logical[0], "Name,FreeMegabytes,CurrentDiskQueueLength"),
              "/ " + PropertyText(logical[2], "FreeMegabytes") + " 3")
        << "_Total leaves out what is in memory";
    const WmiRow disk = RunWmiQuery("SELECT * FROM Win32_PerfRawData_PerfDisk_PhysicalDisk").rows.at(0);
    const auto numberOf = [&disk](const char* name) { return std::stoull(PropertyText(disk, name)); };
    EXPECT_EQ(numberOf("PercentIdleTime") + numberOf("PercentDiskTime"), numberOf("Timestamp_PerfTime"));
}

TEST_F(PerformanceOfThisMachine, TellsOfProcessesThatProcHides) {
    if (!IsInNamespaces()) return RunInNamespaces("--mount", "mount -t proc -o hidepid=2 proc /proc");
    ASSERT_EQ(setgid(65534), 0);
    ASSERT_EQ(setuid(65534), 0);
    const std::tuple<std::string, const char*, std::size_t> rows[] = {
        {"Processes", "PerfRawData_PerfOS_Objects", 1},
        {"Processes", "PerfFormattedData_PerfOS_System", 1},
        {"NumberOfProcesses", "OperatingSystem", 1},
        {"IOReadBytesPersec", "PerfRawData_PerfProc_Process", 2},  // of others, and of this user's, who was another
        {"ReadTransferCount", "Process", 2},
        {"ThreadCount", "PerfRawData_PerfProc_Process WHERE Name = '_Total'", 1},
    };
    for (const auto& [property, from, notices] : rows) {
        const WmiResult result = RunWmiQuery(fmt::format("SELECT {} FROM Win32_{}", property, from));
        EXPECT_EQ(result.notices.size(), notices) << from;
        EXPECT_EQ(PropertyText(result.rows.at(0), property), "NULL") << from;
    }
}

}  // namespace
}  // namespace kv::test
