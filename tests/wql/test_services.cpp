// Win32_Service against a fake manager.
#include <cstdlib>
#include <fmt/format.h>
#include <fnmatch.h>
#include <gmock/gmock.h>
#include <tuple>

#include "platform/linux/systemd/unit_status.h"
#include "platform/service_manager.h"
#include "tests/support/linux/fake_systemd.h"
#include "tests/support/wmi_query.h"
#include "wql/class_tree.h"
#include "wql/classes/software/services.h"

namespace kv::test {
namespace {

using namespace platform;
using namespace platform::systemd;
using namespace wql;

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

/// What the service manager tells of a.service, in the words of the class's properties named below.
std::string StatusFromManager() {
    constexpr const char* words[] = {"",        "Stopped",          "Start Pending", "Stop Pending",
                                     "Running", "Continue Pending", "Pause Pending", "Paused"};
    OwnedServiceHandle manager, service;
    ServiceStatus status;
    EXPECT_EQ(ServiceManager().OpenSCManagerW(manager_right::all, manager.Place()), 0u);
    EXPECT_EQ(ServiceManager().OpenServiceW(manager.get(), u"a", service_right::all, service.Place()), 0u);
    EXPECT_EQ(ServiceManager().QueryServiceStatusEx(service.get(), status), 0u);
    return fmt::format("{} {} {} {} {} {} {}", words[static_cast<std::size_t>(status.dwCurrentState)],
                       (status.dwControlsAccepted & service_accepts::stop) != 0,
                       (status.dwControlsAccepted & service_accepts::pauseAndContinue) != 0, status.dwWin32ExitCode,
                       status.dwServiceSpecificExitCode, status.dwCheckPoint, status.dwWaitHint);
}

FakeUnit A(const char* active, std::map<std::string, std::string> properties = {}, const char* job = "") {
    return {.id = "a.service", .active = active, .job = job, .properties = std::move(properties)};
}

TEST_F(WmiServices, AreAsTheServiceManagerTells) {
    InstallServices();
    const struct {
        const char* title;
        FakeUnit unit;
        std::string expected;
        BusFault fault = {};
    } rows[] = {
        {"failed", A("failed", {{"ExecMainCode", "1"}, {"ExecMainStatus", "7"}}), "false Stopped false 1066 7 0 0"},
        {"killed", A("failed", {{"ExecMainCode", "2"}, {"ExecMainStatus", "9"}}), "false Stopped false 1067 0 0 0"},
        {"frozen", A("active", {{"FreezerState", "frozen"}}), "true Paused true 0 0 0 0"},
        {"thawing", A("active", {{"FreezerState", "thawing"}}), "true Continue Pending false 0 0 1 500"},
        {"not to be stopped by hand", A("active", {{"CanStop", "0"}}), "true Running false 0 0 0 0"},
        {"to be restarted", A("active", {}, "restart"), "false Stop Pending false 0 0 1 500"},
        {"to be started", A("failed", {}, "start"), "false Start Pending false 0 0 1 500"},
        {"an older systemd",
         A("active"),
         "true Running true 0 0 0 0",
         {"GetFreezerState", SD_BUS_ERROR_UNKNOWN_PROPERTY}},
    };
    for (const auto& [title, unit, expected, fault] : rows) {
        const FakeSystemd systemd({unit}, fault);
        const WmiResult result = RunWmiQuery(
            "SELECT * FROM Win32_Service WHERE DelayedAutoStart = 'False' AND ErrorControl = 'Normal' AND TagId = 0");
        ASSERT_EQ(Outcome(result), "00000000 1") << title;
        EXPECT_EQ(PropertyTexts(result.rows[0],
                                "Started,State,AcceptStop,ExitCode,ServiceSpecificExitCode,CheckPoint,WaitHint"),
                  expected)
            << title;
        EXPECT_EQ(PropertyTexts(result.rows[0],
                                "State,AcceptStop,AcceptPause,ExitCode,ServiceSpecificExitCode,CheckPoint,WaitHint"),
                  StatusFromManager())
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
        EXPECT_EQ(GatherServices(gathering, std::chrono::milliseconds(100)), status) << title;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << title;
        EXPECT_EQ(std::pair(found, notices), std::pair(rowCount, noticeCount)) << title;
    }
}

}  // namespace
}  // namespace kv::test
