// Performance classes: how figures come of counters, how samples are kept, and the figures of this machine.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/backend.h"
#include "platform/posix/wmi/class_tree.h"
#include "platform/posix/wmi_classes/perf_class.h"
#include "platform/posix/wmi_classes/perf_texts.h"
#include "tests/support/wmi_query.h"

namespace kv::test {
namespace {

using namespace platform;
using namespace platform::wmi;
using enum CounterKind;

constexpr std::uint64_t second = 10'000'000;

TEST(PerformanceFigures, ComeOfTwoMomentsByTheirKind) {
    using Before = std::optional<CounterState>;
    constexpr std::uint64_t s = second;
    const struct {
        const char* title;
        CounterKind kind;
        Before before;
        CounterState now;
        double figure;
        std::uint64_t birth = 0;
    } rows[] = {
        {"as it stands", value, Before({9 * s, 3}), {10 * s, 7}, 7},
        {"growth in a second", rate, Before({10 * s, 100}), {12 * s, 300}, 100},
        {"since the birth", rate, {}, {20 * s, 100}, 10, 10 * s},
        {"born just now", rate, {}, {10 * s, 50}, 50, 10 * s - 1},
        {"gone back", rate, Before({10 * s, 100}), {20 * s, 60}, 6, 10 * s},
        {"part of the time", percentOfTime, Before({10 * s, s}), {14 * s, 2 * s}, 25},
        {"more than the time", percentOfTimestamp, Before({10 * s, 0}), {11 * s, 3 * s}, 100},
        {"a time that went back a little", percentOfTime, Before({10 * s, 5 * s}), {12 * s, 4 * s}, 0},
        {"a time that began anew", percentOfTime, Before({10 * s, 5 * s}), {12 * s, s}, 50, 10 * s},
        {"busy is what is not idle", percentOfTimeLeft, Before({10 * s, s}), {14 * s, 2 * s}, 75},
        {"idle time that went back a little", percentOfTimeLeft, Before({10 * s, 5 * s}), {12 * s, 4 * s}, 100},
        {"more idle than the time", percentOfTimeLeft, Before({10 * s, 0}), {11 * s, 2 * s}, 0},
        {"on one and a half processors", percentOfProcessors, Before({10 * s, 0}), {12 * s, 3 * s}, 150},
        {"on more than there are", percentOfProcessors, Before({10 * s, 0}), {11 * s, 9 * s}, 200},
        {"a fraction", fraction, {}, {s, 25, 200}, 12.5},
        {"a fraction of nothing", fraction, {}, {s, 0, 0}, 0},
        {"seconds for each", averageTime, Before({10 * s, s, 4}), {12 * s, 7 * s, 7}, 2},
        {"nothing to average", averageTime, Before({10 * s, s, 4}), {12 * s, s, 4}, 0},
        {"both from the start when one went back", averageAmount, Before({10 * s, 10, 90}), {12 * s, 30, 6}, 5},
        {"so many at a time", queueLength, Before({10 * s, 0}), {12 * s, 6 * s}, 3},
        {"seconds since a moment", elapsedTime, Before({9 * s, 5 * s}), {20 * s, 5 * s}, 15},
        {"a moment that is to come", elapsedTime, {}, {20 * s, 21 * s}, 0},
        {"at the very start", rate, {}, {0, 5}, 0},
    };
    for (const auto& row : rows) {
        const Quotient quotient = QuotientBetween(row.kind, row.before ? &*row.before : nullptr, row.now, row.birth);
        EXPECT_DOUBLE_EQ(FigureOf(row.kind, quotient, 2), row.figure) << row.title;
    }
}

TEST(PerformanceFigures, OfAllObjectsTogether) {
    const struct {
        const char* title;
        CounterKind kind;
        std::vector<Quotient> quotients;
        double total;
    } rows[] = {
        {"rates add up", rate, {{10, 1}, {30, 2}}, 25},
        {"percentages have a mean, each within its bounds", percentOfTime, {{900, 1}, {0, 1}}, 50},
        {"those of processors add up, within the bounds", percentOfProcessors, {{150, 1}, {90, 1}}, 200},
        {"averages are of all that was done", averageTime, {{8, 1}, {1, 2}, {0, 0}}, 3},
        {"labels have none", label, {{8, 1}, {1, 1}}, 0},
    };
    for (const auto& row : rows) EXPECT_DOUBLE_EQ(TotalOf(row.kind, row.quotients, 2), row.total) << row.title;
}

TEST(PerformanceSamples, AreKeptAsLongAsTheyCanBeABase) {
    using Times = std::vector<std::uint64_t>;
    const auto timesOf = [](const std::vector<ReadingsPtr>& samples) {
        Times times;
        for (const ReadingsPtr& sample : samples) times.push_back(sample->time * 10 / second);
        return times;
    };
    const struct {
        const char* title;
        std::uint64_t tenths;
        std::uint32_t needs;
        Times bases;  // newest first
        Times kept;
    } steps[] = {
        {"the first", 100, 1, {}, {100}},
        {"within a second", 105, 1, {}, {100}},
        {"after a second", 112, 1, {100}, {100, 112}},
        {"the newest is too young", 115, 1, {100}, {100, 112}},
        {"it holds more", 130, 3, {112, 100}, {112, 130}},
        {"it holds something else", 135, 4, {112}, {112, 130, 135}},
        {"taken before the last, on another thread", 133, 8, {112}, {112, 130, 133, 135}},
        {"what others hold too is dropped", 200, 1, {135, 133, 130, 112}, {130, 133, 135, 200}},
    };
    std::vector<ReadingsPtr> samples;
    for (const auto& step : steps) {
        const auto newest = std::make_shared<Readings>();
        newest->time = step.tenths * (second / 10);
        newest->needs = step.needs;
        EXPECT_EQ(timesOf(TakeBases(samples, newest)), step.bases) << step.title;
        EXPECT_EQ(timesOf(samples), step.kept) << step.title;
    }
}

/// What the class of the next test finds.
struct Fake {
    const char* key;
    std::uint64_t generation;
    std::uint64_t seconds;
    std::optional<std::uint64_t> value;
    std::uint64_t base = 1;
};
std::vector<Fake> fakes;
bool fakesAreAll = true;

constexpr auto fakeValue = [](const Fake& fake) { return fake.value; };
constexpr CounterInfo fakeCounters[] = {
    {u"Speed", CimType::uint32, rate, 1, "", fakeValue},
    {u"Part", CimType::uint32, fraction, 1, "", fakeValue, [](const Fake& fake) { return fake.base; }},
    {u"Nothing", CimType::uint32, fraction},
};

WmiStatus ReadFakes(const Gathering&, PerfSampling& sampling) {
    sampling.isWhole = fakesAreAll;
    for (const Fake& fake : fakes) {
        PerfRow object;
        object.name = object.key = fake.key;
        object.generation = fake.generation;
        sampling.add(std::move(object), &fake, fake.seconds * second);
    }
    return wmi_status::ok;
}

constexpr PerfClass fakeClass{u"Fake", fakeCounters, ReadFakes, false, true};

/// The values of one property by the objects' names, "a=1 b=NULL".
std::string Ask(const ClassInfo& classInfo, std::u16string_view property) {
    std::string answer;
    Gathering gathering;
    gathering.needs = 1;
    gathering.row = [&](const void* row) {
        const auto textOf = [&](std::u16string_view name) {
            const PropertyInfo* found = FindProperty(classInfo, name);
            const CimValue value = found->read != nullptr ? found->read(row, *found) : CimValue();
            const Variant variant = VariantOf(found->type, value);
            if (variant.type == VariantType::i4) return std::to_string(static_cast<std::uint32_t>(variant.integer));
            return variant.type == VariantType::null ? "NULL" : Utf8FromWide(variant.text);
        };
        answer += (answer.empty() ? "" : " ") + textOf(u"Name") + "=" + textOf(property);
        return true;
    };
    EXPECT_EQ(classInfo.gather(gathering), wmi_status::ok);
    return answer;
}

TEST(PerformanceSamples, OfEachObjectAreItsOwn) {
    const std::span<const ClassInfo> rawAndFormatted = DeclarePerfClasses<fakeClass>();
    const struct {
        const char* title;
        std::vector<Fake> found;
        bool areAll;
        const char* speeds;
    } steps[] = {
        {"the first", {{"a", 1, 10, 100}}, true, "a=10 _Total=10"},
        {"a new one", {{"a", 1, 20, 300}, {"b", 1, 20, 2000}}, true, "a=20 b=100 _Total=120"},
        {"one alone", {{"b", 1, 24, 2040}}, false, "b=10"},
        {"each from its own last", {{"a", 1, 30, 400}, {"b", 1, 26, 2080}}, true, "a=10 b=20 _Total=30"},
        {"another in its place", {{"a", 2, 40, 4000}, {"b", 1, 36, 2080}}, true, "a=100 b=0 _Total=100"},
        {"one that is gone", {{"a", 2, 50, 4010}}, true, "a=1 _Total=1"},
        {"and came back", {{"a", 2, 60, {}}, {"b", 1, 60, 6000}}, true, "a=NULL b=100 _Total=100"},
        {"from the last that was known", {{"a", 2, 70, 4410}, {"b", 1, 70, 6000}}, true, "a=20 b=0 _Total=20"},
        {"more than the type holds", {{"a", 2, 72, 1'000'000'000'000}}, true, "a=4294967295 _Total=4294967295"},
        {"none at all", {}, true, ""},
    };
    for (const auto& step : steps) {
        fakes = step.found;
        fakesAreAll = step.areAll;
        EXPECT_EQ(Ask(rawAndFormatted[1], u"Speed"), step.speeds) << step.title;
    }
    fakes = {{"a", 2, 80, 0x1'0000'0005, 10}, {"b", 1, 80, {}, 90}, {"c", 1, 80, 10, 30}};
    EXPECT_EQ(Ask(rawAndFormatted[0], u"Speed"), "a=5 b=NULL c=10 _Total=15") << "raw counters wrap";
    EXPECT_EQ(Ask(rawAndFormatted[0], u"Part_Base"), "a=10 b=NULL c=30 _Total=40");
    EXPECT_EQ(Ask(rawAndFormatted[0], u"Nothing_Base"), "a=NULL b=NULL c=NULL _Total=NULL");
    EXPECT_EQ(Ask(rawAndFormatted[0], u"Timestamp_PerfTime"), "a=800000000 b=800000000 c=800000000 _Total=800000000");
}

TEST(PerformanceTexts, OfTheKernel) {
    const char* const interrupts =
        "      CPU0  CPU2\n  1:     5     7  IO-APIC 4-edge ttyS0\nLOC:   100   200  Local timer\nERR:   3\n  2: 1 x\n";
    EXPECT_EQ(SumByProcessor(interrupts), (std::map<std::uint32_t, std::uint64_t>{{0, 105}, {2, 207}}));
    EXPECT_TRUE(SumByProcessor("").empty());
    EXPECT_EQ(NumberUnder("pgfaultx 1\npgfault 12\npgmajfault 3", "pgfault"), 12u);
    EXPECT_EQ(NumberUnder("ctxt\n", "ctxt"), std::nullopt);
    EXPECT_EQ(ParseThreadCount("0.64 0.49 0.34 1/95 13783\n"), 95u);
    EXPECT_EQ(ParseThreadCount("0.64 0.49"), std::nullopt);
}

class PerformanceOfThisMachine : public ::testing::Test {
  protected:
    PerformanceOfThisMachine() { InstallBackend(); }

    static std::vector<WmiRow> rowsOf(const std::string& query) {
        WmiResult result = RunWmiQuery(query);
        EXPECT_EQ(result.status, wmi_status::ok) << query;
        EXPECT_FALSE(result.rows.empty()) << query;
        result.rows.resize(std::max<std::size_t>(result.rows.size(), 1));
        return result.rows;
    }
    static double numberIn(const WmiRow& row, const std::string& name) { return std::atof(TextOf(row, name).c_str()); }

    /// The first number that a command prints.
    static double numberOf(const std::string& command) {
        double number = 0;
        FILE* pipe = popen(command.c_str(), "r");
        EXPECT_EQ(std::fscanf(pipe, "%lf", &number), 1) << command;
        pclose(pipe);
        return number;
    }
};

TEST_F(PerformanceOfThisMachine, IsWhatOtherProgramsTell) {
    const struct {
        const char* from;
        const char* property;
        const char* command;
        double tolerance;
    } rows[] = {
        {"FormattedData_PerfOS_System", "SystemUpTime", "cat /proc/uptime", 1.5},
        {"FormattedData_PerfOS_System", "Threads", "ps -eLf --no-headers | wc -l", 30},
        {"RawData_PerfOS_System", "ContextSwitchesPersec", "vmstat -s | grep 'context switches'", 2e4},
        {"RawData_PerfOS_Memory", "PagesInputPersec",
         "vmstat -s | awk -v page=$(getconf PAGESIZE) '/K paged in/ {printf \"%.0f\", $1 * 1024 / page}'", 2e4},
        {"FormattedData_PerfOS_Memory", "AvailableMBytes", "free -m | awk '/^Mem/ {print $7}'", 500},
        {"FormattedData_PerfOS_Memory", "CacheBytes", "free -b | awk '/^Mem/ {print $6}'", 3e8},
        {"FormattedData_PerfDisk_LogicalDisk WHERE Name = '/'", "PercentFreeSpace",
         "df / | awk 'NR == 2 {print 100 - $5}'", 1.5},
        {"RawData_PerfOS_Processor WHERE Name = '0'", "PercentIdleTime",
         "awk -v unit=$(getconf CLK_TCK) '/^cpu0/ {printf \"%.0f\", ($5 + $6) * 1e7 / unit}' /proc/stat", 1e7},
    };
    for (const auto& row : rows) {
        const WmiRow first = rowsOf(std::string("SELECT * FROM Win32_Perf") + row.from)[0];
        EXPECT_NEAR(numberIn(first, row.property), numberOf(row.command), row.tolerance) << row.property;
    }
    std::set<std::string> names;
    for (const WmiRow& row : rowsOf("SELECT * FROM Win32_PerfRawData_Tcpip_NetworkInterface")) {
        const std::string command = "cat /sys/class/net/" + TextOf(row, "Name") + "/statistics/rx_bytes";
        EXPECT_NEAR(numberIn(row, "BytesReceivedPersec"), numberOf(command), 1e6) << command;
        names.insert(TextOf(row, "Name"));
    }
    EXPECT_FALSE(names.contains("lo"));
    EXPECT_EQ(rowsOf("SELECT Name FROM Win32_PerfFormattedData_PerfOS_Processor").size(),
              numberOf("getconf _NPROCESSORS_ONLN") + 1);
}

/// A process that writes a thousand bytes after the other to nowhere, or none.
pid_t StartChild(bool writes) {
    const pid_t child = fork();
    if (child != 0) return child;
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const char block[1000] = {};
    while (writes && write(nowhere, block, sizeof block) > 0) continue;
    pause();
    _exit(0);
}

/// Ends a child; its processor time in seconds.
double EndChild(pid_t child) {
    rusage usage{};
    kill(child, SIGKILL);
    wait4(child, nullptr, 0, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

TEST_F(PerformanceOfThisMachine, ABusyProcessTellsFromAnIdleOne) {
    const auto ask = [](const char* kind, pid_t id) {
        return rowsOf(fmt::format("SELECT * FROM Win32_Perf{}_PerfProc_Process WHERE IDProcess = {}", kind, id))[0];
    };
    const pid_t busy = StartChild(true);
    const pid_t idle = StartChild(false);
    const WmiRow before = ask("RawData", busy);
    EXPECT_EQ(numberIn(ask("FormattedData", busy), "CreatingProcessID"), getpid());
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const WmiRow figures = ask("FormattedData", busy);
    const WmiRow after = ask("RawData", busy);
    const auto growthOf = [&](const char* name) { return numberIn(after, name) - numberIn(before, name); };
    const double time = growthOf("Timestamp_Sys100NS");
    const double operations = growthOf("IOWriteOperationsPersec") * second / time;
    EXPECT_NEAR(numberIn(figures, "PercentProcessorTime"), growthOf("PercentProcessorTime") * 100 / time, 15);
    EXPECT_NEAR(numberIn(figures, "IOWriteOperationsPersec"), operations, operations / 4);
    EXPECT_NEAR(growthOf("IOWriteBytesPersec"), growthOf("IOWriteOperationsPersec") * 1000, 2000);
    EXPECT_NEAR(numberIn(after, "PercentProcessorTime") / second, EndChild(busy), 0.2);
    EXPECT_LE(numberIn(ask("FormattedData", idle), "PercentProcessorTime"), 2);
    EndChild(idle);
}

TEST_F(PerformanceOfThisMachine, TotalsAreLastAndNamesAreUnique) {
    const std::string classes[] = {"PerfProc_Process", "PerfOS_Processor", "PerfDisk_LogicalDisk",
                                   "PerfDisk_PhysicalDisk"};
    std::vector<std::thread> askers;
    for (const std::string& name : classes) {
        askers.emplace_back([query = "SELECT * FROM Win32_PerfFormattedData_" + name] {
            for (int round = 0; round < 5; ++round) rowsOf(query);
        });
        const std::vector<WmiRow> rows = rowsOf("SELECT * FROM Win32_PerfFormattedData_" + name);
        std::set<std::string> names;
        double threads = 0;
        for (const WmiRow& row : rows) {
            names.insert(TextOf(row, "Name"));
            threads += TextOf(row, "Name") == "_Total" ? 0 : numberIn(row, "ThreadCount");
        }
        EXPECT_EQ(names.size(), rows.size()) << name;
        EXPECT_EQ(TextOf(rows.back(), "Name"), "_Total") << name;
        EXPECT_EQ(numberIn(rows.back(), "ThreadCount"), threads) << name;
    }
    for (std::thread& asker : askers) asker.join();
}

}  // namespace
}  // namespace kv::test
