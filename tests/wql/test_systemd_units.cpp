// Services, what starts with the system, and jobs: units of a fake manager, and cron's tables.
#include <cstdlib>
#include <fnmatch.h>
#include <gmock/gmock.h>
#include <memory>
#include <tuple>
#include <unistd.h>

#include "platform/linux/systemd/timers.h"
#include "platform/linux/systemd/unit_status.h"
#include "tests/support/linux/fake_systemd.h"
#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/shell.h"
#include "tests/support/linux/zone_setting.h"
#include "wql/classes/software/scheduled_jobs.h"
#include "wql/classes/software/services.h"

namespace kv::test {
namespace {

using namespace platform;
using namespace platform::systemd;
using namespace wql;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(ServiceUnits, HaveTheStatesOfServices) {
    const struct {
        const char *active, *sub, *file;
        std::u16string expected;
        ServiceStart start = {false, true, true};
        const char* load = "loaded";
    } rows[] = {
        {"active", "exited", "generated", u"Running OK Auto", {true, false, true}},
        {"inactive", "dead", "masked", u"Stopped OK Disabled"},
        {"inactive", "dead", "enabled", u"Stopped OK Auto", {false, false, false}},
        {"inactive", "dead", "enabled", u"Stopped OK Manual", {false, true, false}},
        {"failed", "failed", "enabled", u"Stopped Error Auto", {true, true, false}},
        {"activating", "auto-restart", "linked", u"Start Pending Degraded Manual"},
        {"deactivating", "stop-sigterm", "indirect", u"Stop Pending OK Manual"},
        {"of a later version", "", "", u"Unknown OK Manual"},
        {"inactive", "dead", "bad", u"Stopped Error Manual", {}, "bad-setting"},
    };
    for (const auto& row : rows) {
        const ServiceUnit unit{"x.service", "", row.load, row.active, row.sub, row.file};
        const auto text = std::u16string(StateWordOf(ConditionOf(unit))) + u" " + std::u16string(HealthOf(unit)) + u" ";
        EXPECT_EQ(text + std::u16string(StartModeOf(unit, row.start)), row.expected) << row.active << row.sub;
    }
    for (const std::string_view name : {"ssh", "a[b]*?", "dev\\x2d1@x!"}) {
        EXPECT_EQ(fnmatch(PatternOfName(name).c_str(), (std::string(name) + ".service").c_str(), FNM_NOESCAPE), 0);
        EXPECT_NE(fnmatch(PatternOfName(name).c_str(), "asb.service", FNM_NOESCAPE), 0);
    }
    EXPECT_EQ(fnmatch(PatternOfName("SsH").c_str(), "ssh.service", FNM_NOESCAPE), 0);
    SeenPending never;
    UnitCondition running;
    running.activeState = "active";
    running.canStop = true;
    EXPECT_EQ(StatusOf(running, true, 0, never).dwControlsAccepted, 3u);
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

using WmiServices = WmiTest;

TEST_F(WmiServices, AreTheUnitsOfTheManager) {
    const FakeSystemd manager(someUnits);
    EXPECT_EQ(TextsOf("Name,Caption,State,StartMode,ExitCode,PathName,StartName,ProcessId FROM Win32_Service"),
              "a An A Stopped Auto 1066 /bin/x -v 1 root 0\nb A B Stopped Manual 0 /bin/x -v 1 root 0");
    EXPECT_EQ(Outcome(RunWmiQuery("SELECT * FROM Win32_Service")), "00000000 2");
}

FakeUnit A(const char* active, std::map<std::string, std::string> properties = {}, const char* job = "") {
    return {.id = "a.service", .active = active, .job = job, .properties = std::move(properties)};
}

TEST_F(WmiServices, HaveTheStatusOfTheServiceManager) {
    const struct {
        const char* title;
        FakeUnit unit;
        std::string expected;
        BusFault fault = {};
    } rows[] = {
        {"failed", A("failed", {{"ExecMainCode", "1"}, {"ExecMainStatus", "7"}}),
         "false Stopped false false 1066 7 0 0"},
        {"killed", A("failed", {{"ExecMainCode", "2"}, {"ExecMainStatus", "9"}}),
         "false Stopped false false 1067 0 0 0"},
        {"frozen", A("active", {{"FreezerState", "frozen"}}), "true Paused true false 0 0 0 0"},
        {"thawing", A("active", {{"FreezerState", "thawing"}}), "true Continue Pending false false 0 0 1 500"},
        {"not to be stopped by hand", A("active", {{"CanStop", "0"}}), "true Running false false 0 0 0 0"},
        {"to be restarted", A("active", {}, "restart"), "false Stop Pending false false 0 0 1 500"},
        {"to be started", A("failed", {}, "start"), "false Start Pending false false 0 0 1 500"},
        {"an older systemd",
         A("active"),
         "true Running true false 0 0 0 0",
         {"GetFreezerState", SD_BUS_ERROR_UNKNOWN_PROPERTY}},
    };
    for (const auto& [title, unit, expected, fault] : rows) {
        const FakeSystemd systemd({unit}, fault);
        const WmiResult result = RunWmiQuery(
            "SELECT * FROM Win32_Service WHERE DelayedAutoStart = 'False' AND ErrorControl = 'Normal' AND TagId = 0");
        ASSERT_EQ(Outcome(result), "00000000 1") << title;
        EXPECT_EQ(PropertyTexts(result.rows[0],
                                "Started,State,AcceptStop,AcceptPause,ExitCode,ServiceSpecificExitCode,"
                                "CheckPoint,WaitHint"),
                  expected)
            << title;
    }
}

TEST_F(WmiServices, DoNotWaitForASilentManager) {
    const std::tuple<const char*, BusFault, std::size_t, std::size_t, WmiStatus> rows[] = {
        {"no bus", {"bus", ""}, 0, 1, wmi_status::providerFailure},
        {"may not list", {"ListUnitsByPatterns", SD_BUS_ERROR_ACCESS_DENIED}, 0, 1, wmi_status::accessDenied},
        {"may not ask about a service", {"GetExecMainStatus", SD_BUS_ERROR_ACCESS_DENIED}, 2, 1, wmi_status::ok},
        {"silent when asked for the list", {"ListUnitsByPatterns", ""}, 0, 1, wmi_status::timedOut},
        {"lists no files", {"ListUnitFilesByPatterns", SD_BUS_ERROR_ACCESS_DENIED}, 1, 1, wmi_status::ok},
        {"cannot describe a unit", {"ListUnitsByNames", SD_BUS_ERROR_ACCESS_DENIED}, 2, 1, wmi_status::ok},
        {"silent in the middle of a service", {"GetExecMainStatus", ""}, 0, 1, wmi_status::timedOut},
        {"silent about what nobody asks", {"GetMainPID", ""}, 2, 0, wmi_status::ok},
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
        const auto bound = std::chrono::milliseconds(status == wmi_status::timedOut ? 100 : 30000);
        EXPECT_EQ(GatherServices(gathering, bound), status) << title;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << title;
        EXPECT_EQ(std::pair(found, notices), std::pair(rowCount, noticeCount)) << title;
    }
}

struct WmiJobs : FrozenFiles {
    WmiJobs() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1); }
    ~WmiJobs() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    static Gathered Jobs(const char* properties) {
        return Over<GatherScheduledJobs>(u"Win32_ScheduledJob", properties);
    }
};

TEST_F(WmiJobs, StartWithTheSystem) {
    const FakeSystemd manager({
        {.id = "on.service",
         .active = "active",
         .file = "/lib/on.service",
         .fileState = "enabled",
         .properties = {{"Description", "It is on"}, {"User", "root"}}},
        {.id = "init.service",
         .load = "",
         .file = "/run/init.service",
         .fileState = "generated",
         .properties = {{"User", "nobody-here"}}},
        {.id = "a@b.service", .file = "/lib/a@.service", .properties = {{"UnitFileState", "enabled"}}},
        {.id = "static.service", .active = "active", .file = "/lib/static.service", .fileState = "static"},
        {.id = "masked.service", .load = "masked", .file = "/lib/masked.service", .fileState = "masked"},
    });
    EXPECT_EQ(TextsOf("Name,Command,Location,User,UserSID,Description FROM Win32_StartupCommand"),
              "on /bin/x -v 1 /lib/on.service root S-1-22-1-0 It is on\n"
              "a@b /bin/x -v 1 /lib/a@.service root S-1-22-1-0 a@b\n"
              "init /bin/x -v 1 /run/init.service nobody-here NULL init");
    EXPECT_EQ(Outcome(RunWmiQuery("SELECT * FROM Win32_StartupCommand")), "00000000 3");
}

TEST_F(WmiJobs, DoNotStartWithASystemThatCannotBeAsked) {
    for (const char* name : {"Win32_StartupCommand", "Win32_ScheduledJob"}) {
        const WmiResult result = RunWmiQuery(std::string("SELECT * FROM ") + name);
        EXPECT_TRUE(result.status == wmi_status::providerFailure || !result.rows.empty()) << name;
        EXPECT_EQ(result.notices.size(), 1u) << name;
    }
    {
        const FakeSystemd refusing({{.id = "a@b.service", .file = "/lib/a@.service"}},
                                   {"GetUnitFileState", SD_BUS_ERROR_ACCESS_DENIED});
        EXPECT_THAT(RunWmiQuery("SELECT Name FROM Win32_StartupCommand").notices,
                    ElementsAre(HasSubstr("Properties of a@b.service were left out")));
    }
    const FakeSystemd manager({{.id = "a.service", .active = "active", .file = "/a.service", .fileState = "enabled"},
                               {.id = "b.service", .active = "active", .file = "/b.service", .fileState = "enabled"}},
                              {"GetUser", SD_BUS_ERROR_ACCESS_DENIED});
    EXPECT_THAT(Outcome(RunWmiQuery("SELECT Name, User FROM Win32_StartupCommand")),
                testing::MatchesRegex("00000000 2 .*a.service and 1 others.*"));
}

TEST_F(WmiJobs, AreTheActiveTimers) {
    const ZoneSetting zone("<+0200>-2");
    const FakeSystemd manager({
        {.id = "w.timer",
         .active = "active",
         .properties = {{"Description", "Weekly"},
                        {"Unit", "w.service"},
                        {"TimersCalendar", "Mon,Sat..Sun *-*-* 03:10:00"},
                        {"NextElapseUSecRealtime", "1767575400000000"},
                        {"NextElapseUSecMonotonic", "18446744073709551615"},
                        {"LastTriggerUSec", "1766970600000000"}}},
        {.id = "m.timer",
         .active = "active",
         .properties = {{"Unit", "m.service"},
                        {"TimersMonotonic", "OnUnitActiveUSec"},
                        {"NextElapseUSecMonotonic", "1"}}},
        {.id = "once.timer",
         .active = "active",
         .properties = {{"Unit", "t.target"}, {"TimersCalendar", "2026-01-01 00:00:00"}}},
        {.id = "busy.timer",
         .active = "active",
         .properties = {{"Unit", "busy.service"}, {"LastTriggerUSec", "1766970600000000"}}},
        {.id = "busy.service", .active = "activating"},
        {.id = "off.timer", .properties = {{"Unit", "m.service"}}},
        {.id = "w.service", .active = "failed", .properties = {{"User", "backup"}}},
    });
    const auto jobs = Jobs("Name Description Command Owner JobStatus DaysOfWeek DaysOfMonth RunRepeatedly StartTime");
    EXPECT_THAT(jobs.objects,
                ElementsAre("w.timer|Weekly|/bin/x -v 1|backup|Failure|97|NULL|true|********031000.000000+120|",
                            testing::MatchesRegex("m.timer\\|\\|/bin/x -v 1\\|root\\|NULL\\|NULL\\|NULL\\|true\\|"
                                                  "\\*{8}[0-9]{6}.[0-9]{6}.120\\|"),
                            "once.timer||NULL|NULL|NULL|NULL|NULL|false|NULL|",
                            "busy.timer||/bin/x -v 1|root|NULL|NULL|NULL|false|NULL|"));  // it runs
    EXPECT_EQ(Jobs("JobId").objects, Jobs("JobId").objects);
    EXPECT_NE(Jobs("JobId").objects[0], Jobs("JobId").objects[1]);
}

TEST(Timers, ElapseAtTheEarlierOfTheirTimes) {
    const std::tuple<std::uint64_t, std::uint64_t, std::optional<std::uint64_t>> rows[] = {
        {0, 0, std::nullopt}, {5000, 0, 5000}, {0, 30, 1010}, {5000, 30, 1010}, {1005, 30, 1005}, {0, 15, 995},
    };
    for (const auto& [realtime, monotonic, next] : rows) {
        platform::systemd::TimerState timer;
        timer.nextRealtime = realtime;
        timer.nextMonotonic = monotonic;
        EXPECT_EQ(NextElapse(timer, 1000, 20), next) << realtime << " " << monotonic;
    }
}

TEST_F(WmiJobs, AreThoseOfCronsTables) {
    if (getuid() != 0) GTEST_SKIP() << "cron takes only tables of the superuser";
    auto manager = std::make_unique<FakeSystemd>(std::vector<FakeUnit>{});
    Write(work / "etc/crontab",
          "# of the test\nSHELL=/bin/sh\nPATH = /bin:/a,b\n17 4\t* * *\troot  cd / && true 100%\n\n");
    Write(work / "etc/cron.d/some-jobs",
          "@reboot root first\n*/5 8-9 1,15 * mon x y=1\n0 0 * * * x same\n0 0 * * * x same\n"
          "0 0 * * * x s2759\n0 0 * * * x s184480\n");  // one number by FNV-1a
    Write(work / "etc/cron.d/wrong", "17 24 * * * root x\n");
    Write(work / "etc/cron.d/old.dpkg-dist", "0 0 * * * root x\n");
    RunShell(
        "cd etc/cron.d && chmod go-w . ../crontab * && cp some-jobs alien && chown nobody alien && cp some-jobs open "
        "&& chmod o+w open && ln -s some-jobs link && chown -h nobody link && cp some-jobs twice && ln twice ..");
    EXPECT_THAT(Jobs("Name").objects, IsEmpty()) << "no cron runs";
    Write(work / "usr/sbin/cron", "");
    const auto jobs = Jobs("Name Description Command Owner DaysOfWeek DaysOfMonth RunRepeatedly");
    const std::string daily = "/etc/cron.d/some-jobs|0 0 * * *|";
    EXPECT_THAT(jobs.objects, ElementsAre("/etc/cron.d/some-jobs|@reboot|first|root|NULL|NULL|false|",
                                          "/etc/cron.d/some-jobs|*/5 8-9 1,15 * mon|y=1|x|1|16385|true|",
                                          daily + "same|x|127|NULL|true|", daily + "same|x|127|NULL|true|",
                                          daily + "s2759|x|127|NULL|true|", daily + "s184480|x|127|NULL|true|",
                                          "/etc/crontab|17 4\t* * *|cd / && true 100%|root|127|NULL|true|"));
    EXPECT_THAT(jobs.notices, ElementsAre(HasSubstr("alien"), HasSubstr("link"), HasSubstr("open"), HasSubstr("twice"),
                                          HasSubstr("wrong")));
    std::vector<std::string> ids = Jobs("JobId").objects;
    std::sort(ids.begin(), ids.end());
    EXPECT_EQ(std::unique(ids.begin(), ids.end()), ids.end());
    EXPECT_THAT(Jobs("StartTime").objects[6], testing::StartsWith("********041700.000000"));
    std::filesystem::rename(work / "usr/sbin/cron", work / "usr/sbin/crond");
    Write(work / "etc/cron.d/with.dots", "-5 0 * * * root x\n");
    Write(work / "etc/cron.d/aside.rpmnew", "5 0 * * * root x\n");
    EXPECT_THAT(Jobs("Name").objects, testing::Contains("/etc/cron.d/with.dots|"));
    EXPECT_THAT(Jobs("Name").objects, testing::Not(testing::Contains("/etc/cron.d/aside.rpmnew|")));
    manager.reset();
    manager.reset(new FakeSystemd({}, {"ListUnitsByPatterns", SD_BUS_ERROR_ACCESS_DENIED}));
    EXPECT_THAT(Outcome(Jobs("Name")), testing::MatchesRegex("00000000 .*Timers.*"))
        << "the timers are lost, but not cron's jobs";
}

}  // namespace
}  // namespace kv::test
