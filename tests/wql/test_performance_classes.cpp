// Performance classes: how figures follow from counters, how samples are kept, and the figures of this machine and its
// processes; Win32_Process too.
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <set>
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
};

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

}  // namespace
}  // namespace kv::test
