// What Win32_Process reads and how it takes that apart, and Win32_Service against a fake manager.
#include <atomic>
#include <csignal>
#include <fmt/format.h>
#include <fnmatch.h>
#include <gtest/gtest.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "platform/backend.h"
#include "platform/posix/facts/process_files.h"
#include "platform/posix/wmi/class_tree.h"
#include "platform/posix/wmi_classes/services.h"
#include "tests/support/posix/fake_systemd.h"
#include "tests/support/wmi_query.h"

namespace platform::wmi {
namespace {

using namespace systemd;
using kv::test::BusFault;
using kv::test::FakeSystemd;
using kv::test::FakeUnit;
using kv::test::RunWmiQuery;
using kv::test::TextsOf;
using kv::test::WmiResult;
using namespace std::string_literals;

const std::string fieldsOfStat =
    " 1 40 39 34816 40 4194304 11 12 13 14 15 16 17 18 20 -5 7 0 77 1000 9 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 "
    "17";

TEST(ProcessTexts, StatIsReadWhateverTheNameHolds) {
    const std::pair<const char*, std::string> names[] = {
        {"plain", "sshd"},
        {"blanks and parentheses", ") S (x) R 2 ("},
        {"a line end, and bytes that are no text", "a\n\xff"},
        {"none", ""},
        {"a thread of the kernel", "kworker/u8:2-events_unbound"},
    };
    for (const auto& [title, name] : names) {
        const auto stat = ParseProcessStat("42 (" + name + ") S" + fieldsOfStat + " 0 0\n");
        ASSERT_TRUE(stat) << title;
        EXPECT_EQ(stat->name, name) << title;
        EXPECT_EQ(fmt::format("{} {} {} {} {} {} {} {} {} {} {} {} {} {}", stat->id, stat->state, stat->parentId,
                              stat->sessionId, stat->minorFaults, stat->majorFaults, stat->userTicks, stat->kernelTicks,
                              stat->priority, stat->nice, stat->threads, stat->startTicks, stat->virtualBytes,
                              stat->residentPages),
                  "42 S 1 39 11 13 15 16 20 -5 7 77 1000 9")
            << title;
    }
    const std::string whole = "42 (a) S" + fieldsOfStat;
    for (std::size_t length = 0; length < whole.size() - 1; ++length) {
        EXPECT_FALSE(ParseProcessStat(whole.substr(0, length))) << length;
    }
    EXPECT_FALSE(ParseProcessStat("4294967338 (a) S" + fieldsOfStat)) << "an id beyond 32 bits";
}

TEST(ProcessTexts, OtherFiles) {
    const auto io = ParseProcessIo("rchar: 1\nwchar: 2\nsyscr: 3\nsyscw: 4\nread_bytes: 5\nwrite_bytes: 6\n");
    ASSERT_TRUE(io);
    EXPECT_EQ(fmt::format("{} {} {} {}", io->readBytes, io->writtenBytes, io->readOperations, io->writeOperations),
              "1 2 3 4");
    EXPECT_FALSE(ParseProcessIo("rchar: 1\nwchar: 2\nsyscr: 3\nsyscw: x\n"));
    const ProcessMemory memory = ParseProcessStatus("Name:\tVmSwap:\nVmPeak:\t 8 kB\nVmHWM:\t 4 kB\nRssAnon:\t 2 kB\n");
    EXPECT_EQ(fmt::format("{} {} {} {}", memory.peakVirtual, memory.peakResident, memory.anonymous, memory.swapped),
              "8192 4096 2048 0");
    EXPECT_EQ(CommandLineOf("a\0b c\0\0\xff\0\0"s), "a b c  \xff");
    EXPECT_EQ(CommandLineOf(std::string(99999, 'x')).size(), 32767u);
    const std::tuple<const char*, const char*, std::string, const char*> rows[] = {
        {"a name that was cut", "systemd-journal", "/lib/systemd/systemd-journald\0-x"s, "systemd-journald"},
        {"a short one is whole", "systemd", "/lib/systemd/systemd-journald"s, "systemd"},
        {"that of a script", "fifteen-letters", "/bin/sh\0-e\0/bin/fifteen-letters-more"s, "fifteen-letters-more"},
        {"an argument further on", "fifteen-letters", "x\0y\0z\0fifteen-letters-more"s, "fifteen-letters"},
        {"a title in place of arguments", "systemd-userwor", "systemd-userwork: waiting..."s, "systemd-userwork"},
    };
    for (const auto& [title, kernelName, arguments, name] : rows) {
        ProcessStat stat;
        stat.name = kernelName;
        EXPECT_EQ(ExecutableNameOf(stat, arguments), name) << title;
    }
}

/// What the class hands over by itself, before the rows that do not match are dropped.
TEST(WmiProcesses, ARestrictionReadsThoseProcessesAlone) {
    std::atomic<pid_t> threadId = 0;
    std::jthread thread([&](const std::stop_token& stop) {
        threadId = gettid();
        while (!stop.stop_requested()) std::this_thread::yield();
    });
    while (threadId == 0) std::this_thread::yield();
    const std::int64_t own = getpid();
    const std::tuple<const char*, std::u16string_view, std::vector<CimValue>, int> rows[] = {
        {"its id, twice", u"ProcessId", {own, own}, 1},
        {"and one more", u"ProcessId", {own, std::int64_t{getppid()}}, 2},
        {"its id as text", u"Handle", {std::to_string(own)}, 1},
        {"no ids at all", u"ProcessId", {std::int64_t{-1}, std::int64_t{1} << 40, UINT64_MAX, CimValue()}, 0},
        {"text that is no id", u"Handle", {"self", "", "../1", "-1", std::to_string(own) + "x"}, 0},
        {"a thread of a process", u"ProcessId", {std::int64_t{threadId.load()}}, 0},
    };
    for (const auto& [title, property, values, count] : rows) {
        int found = 0;
        Gathering gathering;
        gathering.restrictions = {{property, values}};
        gathering.row = [&](const void*) { return ++found > 0; };
        EXPECT_EQ(FindClass(u"Win32_Process")->gather(gathering), wmi_status::ok);
        EXPECT_EQ(found, count) << title;
    }
}

TEST(ServiceUnits, ReadAsServices) {
    const struct {
        const char *active, *sub, *file;
        std::u16string expected;
        ServiceStart start = {false, true, true};
    } rows[] = {
        {"active", "exited", "generated", u"Running OK Auto", {true, false, true}},
        {"inactive", "dead", "masked", u"Stopped OK Disabled"},
        {"inactive", "dead", "enabled-runtime", u"Stopped OK Auto"},
        {"inactive", "dead", "enabled", u"Stopped OK Auto", {false, false, false}},
        {"inactive", "dead", "enabled", u"Stopped OK Manual", {true, true, true}},
        {"inactive", "dead", "enabled", u"Stopped OK Manual", {false, true, false}},
        {"inactive", "dead", "generated", u"Stopped OK Manual", {false, false, false}},
        {"failed", "failed", "enabled", u"Stopped Error Auto", {true, true, false}},
        {"activating", "auto-restart", "linked", u"Start Pending Degraded Manual"},
        {"deactivating", "stop-sigterm", "indirect", u"Stop Pending OK Manual"},
        {"of a later version", "", "", u"Unknown OK Manual"},
    };
    for (const auto& row : rows) {
        const ServiceUnit unit{"x.service", "", "loaded", row.active, row.sub, row.file};
        const auto text = std::u16string(StateOf(unit)) + u" " + std::u16string(HealthOf(unit)) + u" ";
        EXPECT_EQ(text + std::u16string(StartModeOf(unit, row.start)), row.expected) << row.active << row.sub;
    }
    std::string ids;
    for (const ServiceUnit& unit : WithUnitFiles({}, {{"a.service", "enabled", "/lib/b.service"},
                                                      {"b.service", "masked", "/dev/null"},
                                                      {"c@1.service", "enabled", "c@.service"}})) {
        ids += unit.id + " ";
    }
    EXPECT_EQ(ids, "b.service c@1.service ");
    EXPECT_EQ(ExitCodeOf({true, 3}), 3u);
    EXPECT_EQ(ExitCodeOf({false, SIGSEGV}), 1067u);
    EXPECT_EQ(ExitCodeOf({true, 0}), 1067u) << "failed although its process did not, as when it is not ready in time";
    for (const std::string_view name : {"ssh", "a[b]*?", "dev\\x2d1@x!"}) {
        EXPECT_EQ(fnmatch(PatternOfName(name).c_str(), (std::string(name) + ".service").c_str(), FNM_NOESCAPE), 0);
        EXPECT_NE(fnmatch(PatternOfName(name).c_str(), "asb.service", FNM_NOESCAPE), 0);
    }
    EXPECT_EQ(fnmatch(PatternOfName("SsH").c_str(), "ssh.service", FNM_NOESCAPE), 0);
}

const std::vector<FakeUnit> someUnits{
    {.id = "a.service",
     .active = "failed",
     .file = "/lib/a.service",
     .fileState = "enabled",
     .properties = {{"Description", "An A"}, {"ExecMainCode", "1"}, {"ExecMainStatus", "4"}}},
    {.id = "gone.service", .load = "not-found"},
    {.id = "b.service",
     .load = "",
     .file = "/etc/b.service",
     .fileState = "static",
     .properties = {{"Description", "A B"}}},
    {.id = "c@.service", .load = "", .file = "/c@.service", .fileState = "static"},
};

TEST(WmiServices, AreThoseOfTheManager) {
    InstallBackend();
    const FakeSystemd manager(someUnits);
    const std::string properties = "Name,Caption,State,StartMode,ExitCode,PathName,StartName,ProcessId";
    const WmiResult result = RunWmiQuery("SELECT " + properties + " FROM Win32_Service");
    ASSERT_EQ(result.rows.size(), 2u);
    EXPECT_EQ(TextsOf(result.rows[0], properties), "a An A Stopped Auto 4 /bin/x -v 1 root 0");
    EXPECT_EQ(TextsOf(result.rows[1], properties), "b A B Stopped Manual 0 /bin/x -v 1 root 0");
    EXPECT_EQ(result.notices.size(), 0u);
}

TEST(WmiServices, AManagerThatFallsSilentIsNotWaitedFor) {
    const std::tuple<const char*, BusFault, std::size_t, std::size_t, WmiStatus> rows[] = {
        {"no bus", {"bus", ""}, 0, 0, wmi_status::ok},
        {"a bus that accepts, and no more", {"accept", ""}, 0, 1, wmi_status::timedOut},
        {"no list", {"ListUnitsByPatterns", ""}, 0, 1, wmi_status::timedOut},
        {"the list is refused", {"ListUnitsByPatterns", SD_BUS_ERROR_ACCESS_DENIED}, 0, 1, wmi_status::failed},
        {"no files are told of", {"ListUnitFilesByPatterns", SD_BUS_ERROR_ACCESS_DENIED}, 1, 1, wmi_status::ok},
        {"one cannot be described", {"ListUnitsByNames", SD_BUS_ERROR_ACCESS_DENIED}, 2, 1, wmi_status::ok},
        {"in the middle of a service", {"GetExecMainStatus", ""}, 0, 1, wmi_status::timedOut},
        {"where nobody asks", {"GetMainPID", ""}, 2, 0, wmi_status::ok},
    };
    const ClassInfo& service = *FindClass(u"Win32_Service");
    for (const auto& [title, fault, rowCount, noticeCount, status] : rows) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        const auto manager = fault.at != "bus" ? std::make_unique<FakeSystemd>(someUnits, fault) : nullptr;
        std::size_t found = 0, notices = 0;
        Gathering gathering;
        for (const auto* name : {u"ExitCode", u"Caption"}) gathering.needs |= FindProperty(service, name)->needs;
        gathering.row = [&](const void*) { return ++found > 0; };
        gathering.notice = [&](const std::string&) { ++notices; };
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(GatherServices(gathering, std::chrono::milliseconds(100)), status) << title;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << title;
        EXPECT_EQ(found, rowCount) << title;
        EXPECT_EQ(notices, noticeCount) << title;
    }
}

}  // namespace
}  // namespace platform::wmi
