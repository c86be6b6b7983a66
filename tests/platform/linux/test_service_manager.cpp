// The operations of the service manager against a fake systemd.
#include <fmt/format.h>
#include <optional>

#include "platform/linux/linux.h"
#include "platform/linux/systemd/unit_file.h"
#include "platform/linux/systemd/unit_status.h"
#include "platform/utf.h"
#include "tests/support/linux/fake_systemd.h"
#include "tests/support/test_folder.h"

namespace platform::test {
namespace {

using kv::test::BusFault;
using kv::test::FakeSystemd;
using kv::test::FakeUnit;
using Properties = std::map<std::string, std::string>;

class ServiceManagerTest : public kv::test::TestFolder {
  protected:
    ServiceManagerTest() { std::filesystem::create_directory(units); }
    ~ServiceManagerTest() override { Close(); }

    Error Open(std::u16string_view name, const ServiceDefinition* toMake = nullptr) {
        Close();
        if (const Error failure = services.OpenSCManagerW(manager_right::all, manager); failure != 0) return failure;
        return toMake != nullptr ? services.CreateServiceW(manager, *toMake, service)
                                 : services.OpenServiceW(manager, name, service_right::all, service);
    }
    void Close() {
        for (ServiceHandle* handle : {&service, &manager}) services.CloseServiceHandle(std::exchange(*handle, 0));
    }

    /// The operations. They wait long, for a busy machine, unless systemd is to say nothing.
    ServiceManagerOperations ManagerFor(const BusFault& fault) const {
        const bool isSilent = !fault.at.empty() && fault.what.empty();
        return LinuxServiceManager({units, std::chrono::milliseconds(isSilent ? 500 : 60000)});
    }

    const std::filesystem::path units = folder / "units";
    ServiceManagerOperations services = ManagerFor({});
    ServiceHandle manager = 0, service = 0;
};

FakeUnit A(const char* active, Properties properties = {}, const char* job = "", const char* load = "loaded") {
    return {.id = "a.service", .active = active, .load = load, .job = job, .properties = std::move(properties)};
}

TEST_F(ServiceManagerTest, UnitsAreServicesWithStatesAndControls) {
    using namespace service_control;
    constexpr std::uint32_t ask = interrogate, begin = 0;
    const BusFault conflict{"StartUnit", "org.freedesktop.systemd1.TransactionIsDestructive"};
    const BusFault missingUnit{"StartUnit", "org.freedesktop.systemd1.NoSuchUnit"};
    const FakeUnit running = A("active"), frozen = A("active", {{"FreezerState", "frozen"}});
    const FakeUnit onDisk{.id = "a.service", .load = "", .file = "/a.service", .fileState = "static"};
    const struct {
        const char* title;
        std::u16string_view name;
        FakeUnit unit;
        std::uint32_t control;
        // Errors of opening and control, state, exit code, own exit code, has a check point, wait hint, deeds.
        std::string expected;
        BusFault fault = {};
    } rows[] = {
        {"in another letter case", u"A.service", running, ask, "0 0 4 0 0 0 0 "},
        {"in another letter case, not loaded yet", u"A", onDisk, ask, "0 1062 1 0 0 0 0 "},
        {"by an alias", u"a", {"b.service", "active", "loaded", "", "a.service"}, ask, "0 0 4 0 0 0 0 "},
        {"by a name that units cannot have", u"A  - B", {"a-b.service", "active"}, ask, "0 0 4 0 0 0 0 "},
        {"by escapes", u"a\\x2dB@c", {"a\\x2dB@c.service", "active"}, ask, "0 0 4 0 0 0 0 "},
        {"an unknown name", u"a", {"ab.service", "active"}, ask, "1060"},
        {"only separators", u" -_ ", running, ask, "123"},
        {"a name beyond ASCII", u"\u65E5-a", running, ask, "123"},
        {"being frozen", u"a", A("active", {{"FreezerState", "freezing"}}), stop, "0 1061 6 0 0 1 500 "},
        {"starting", u"a", A("activating"), pause, "0 1061 2 0 0 1 500 "},
        {"stopping", u"a", A("deactivating"), stop, "0 1061 3 0 0 1 500 "},
        {"to be stopped", u"a", A("active", {}, "restart"), stop, "0 1061 3 0 0 1 500 "},
        {"failed", u"a", A("failed", {{"ExecMainCode", "1"}, {"ExecMainStatus", "7"}}), ask, "0 1062 1 1066 7 0 0 "},
        {"killed", u"a", A("failed", {{"ExecMainCode", "2"}, {"ExecMainStatus", "9"}}), ask, "0 1062 1 1067 0 0 0 "},
        {"start", u"a", A("inactive"), begin, "0 0 2 0 0 1 500 StartUnit a.service, "},
        {"start of a masked unit", u"a", A("inactive", {}, "", "masked"), begin, "0 1058 1 0 0 0 0 "},
        {"start of a deleted unit", u"a", A("active", {}, "", "not-found"), begin, "0 1060 4 0 0 0 0 "},
        {"stop", u"a", running, stop, "0 0 3 0 0 1 500 StopUnit a.service, "},
        {"stop of a needed unit", u"a", A("active", {{"BoundBy", "b.service"}}), stop, "0 1051 4 0 0 0 0 "},
        {"pause", u"a", running, pause, "0 0 7 0 0 0 0 FreezeUnit a.service, "},
        {"continue", u"a", frozen, resume, "0 0 4 0 0 0 0 ThawUnit a.service, "},
        {"a control that only the system sends", u"a", running, shutdown, "0 1052 4 0 0 0 0 "},
        {"without a bus", u"a", running, stop, "1722", {"bus", ""}},
        {"a bus that says nothing", u"a", running, stop, "1053", {"accept", ""}},
        {"a manager that says nothing", u"a", running, stop, "1053", {"GetFreezerState", ""}},
        {"an older manager", u"a", running, ask, "0 0 4 0 0 0 0 ", {"GetFreezerState", SD_BUS_ERROR_UNKNOWN_PROPERTY}},
        {"silent when told to stop", u"a", running, stop, "0 1053 4 0 0 0 0 ", {"StopUnit", ""}},
        {"not allowed", u"a", running, stop, "0 5 4 0 0 0 0 ", {"StopUnit", SD_BUS_ERROR_ACCESS_DENIED}},
        {"start against a stop that waits", u"a", running, begin, "0 1061 4 0 0 0 0 ", conflict},
        {"start without a dependency", u"a", running, begin, "0 1075 4 0 0 0 0 ", missingUnit},
        {"without a freezer", u"a", running, pause, "0 1052 4 0 0 0 0 ", {"FreezeUnit", SD_BUS_ERROR_NOT_SUPPORTED}},
        {"the connection breaks off", u"a", running, begin, "0 1722 4 0 0 0 0 ", {"StartUnit", "hang up"}},
    };
    for (const auto& row : rows) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
        std::optional<FakeSystemd> systemd;
        if (row.fault.at != "bus") systemd.emplace(std::vector<FakeUnit>{row.unit, {"b.service", "active"}}, row.fault);
        services = ManagerFor(row.fault);
        std::string text = std::to_string(Open(row.name));
        if (text == "0") {
            ServiceStatus status;
            const Error failure = row.control == begin ? services.StartServiceW(service)
                                                       : services.ControlService(service, row.control, status);
            EXPECT_EQ(services.QueryServiceStatusEx(service, status), 0u) << row.title;
            std::vector<std::u16string> names;
            EXPECT_EQ(services.ListServiceNames(manager, row.name, names), 0u) << row.title;
            const bool isAlias = !row.unit.alias.empty();
            EXPECT_EQ(names.at(0), WideFromUtf8(row.unit.id)) << row.title;
            EXPECT_EQ(names.size(), isAlias ? 2u : 3u) << "an alias is not a name of its own";
            text += fmt::format(" {} {} {} {} {:d} {} {}", failure, static_cast<int>(status.dwCurrentState),
                                status.dwWin32ExitCode, status.dwServiceSpecificExitCode, status.dwCheckPoint != 0,
                                status.dwWaitHint, systemd->Deeds());
        }
        EXPECT_EQ(text, row.expected) << row.title;
        Close();
    }
}

TEST(UnitStatus, AChangeHasProgressForHalfAMinute) {
    systemd::SeenPending seen;
    const auto checkPoint = [&seen](const char* active, std::uint64_t now) {
        systemd::UnitCondition condition;
        condition.activeState = active;
        return systemd::StatusOf(condition, false, now, seen).dwCheckPoint;
    };
    std::string text;
    for (const std::uint64_t now : {7'000'000u, 7'099'999u, 8'000'000u, 37'000'000u, 99'000'000u})
        text += std::to_string(checkPoint("activating", now)) + " ";
    EXPECT_EQ(text, "1 1 11 301 301 ");
    EXPECT_EQ(checkPoint("deactivating", 99'000'000), 1u) << "another change";
    EXPECT_EQ(checkPoint("active", 99'000'000), 0u);
}

TEST_F(ServiceManagerTest, OutlivesUnitsAndManagers) {
    ServiceStatus status;
    services = ManagerFor({"accept", ""});
    {
        const FakeSystemd systemd({A("active")});
        ASSERT_EQ(Open(u"a"), 0u);
    }
    {
        const FakeSystemd systemd({A("inactive", {}, "", "not-found")});
        EXPECT_EQ(services.QueryServiceStatusEx(service, status), error::success) << "of another manager";
        EXPECT_EQ(status.dwCurrentState, ServiceState::stopped) << "the unit is gone";
        EXPECT_EQ(services.StartServiceW(service), error::serviceDoesNotExist);
    }
    const FakeSystemd silent({}, {"accept", ""});
    const auto start = std::chrono::steady_clock::now();
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(services.QueryServiceStatusEx(service, status), error::serviceRequestTimeout);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST_F(ServiceManagerTest, ListsDependentsInTheOrderOfTheirStops) {
    const FakeSystemd systemd(
        {A("active", {{"RequiredBy", "b.service d.service t.target"}}),
         {.id = "b.service", .active = "active", .properties = {{"RequisiteOf", "c.service"}}},
         {.id = "c.service", .active = "activating", .properties = {{"RequiredBy", "a.service"}}},
         {.id = "d.service", .active = "failed", .properties = {{"BoundBy", "e.service f.service"}}},
         {.id = "f.service", .active = "inactive", .job = "start"},
         {.id = "e.service", .active = "deactivating"},
         {.id = "t.target", .properties = {{"BoundBy", "c.service"}}}});
    ASSERT_EQ(Open(u"a"), 0u);
    std::vector<DependentService> found;
    std::size_t size = 0;
    std::string text;
    for (const std::size_t missing : {9999u, 1u, 0u}) {
        text +=
            std::to_string(services.EnumDependentServicesW(service, size - std::min(missing, size), found, size)) + " ";
        for (const auto& dependent : found) text += Utf8FromWide(dependent.name) + " ";
    }
    EXPECT_EQ(text, "234 234 0 c f e b ");
}

TEST_F(ServiceManagerTest, MakesAndRemovesUnits) {
    Write(work / "a $b %c", "");
    std::filesystem::permissions(work / "a $b %c", std::filesystem::perms::owner_all);
    const ServiceDefinition good{
        u"Some Agent - Host",        u"100%\n\\", 16,
        ServiceStartType::automatic, {},          u"\"" + (work / "a $b %c.EXE").u16string() + u"\"",
        {u"A", u"Other Agent"}};
    const std::string unit = "some-agent-host.service";
    const std::tuple<const char*, BusFault, Error, void (*)(ServiceDefinition&)> refusals[] = {
        {"refused", {"EnableUnitFiles", SD_BUS_ERROR_ACCESS_DENIED}, 5, [](auto&) {}},
        {"a service of that name", {}, 1073, [](auto& made) { made.name = u"A"; }},
        {"an empty name", {}, 123, [](auto& made) { made.name = u"-"; }},
        {"a missing program", {}, 2, [](auto& made) { made.binaryPath.insert(3, u"x"); }},
        {"a program without quotes", {}, 87, [](auto& made) { made.binaryPath.pop_back(); }},
        {"a dependency without a name", {}, 87, [](auto& made) { made.dependencies = {u""}; }},
    };
    for (const auto& [title, fault, failure, change] : refusals) {
        const FakeSystemd systemd({A("inactive")}, fault);
        ServiceDefinition definition = good;
        change(definition);
        services = ManagerFor(fault);
        EXPECT_EQ(Open(u"", &definition), failure) << title;
        EXPECT_EQ(FilesIn(units).size(), 0u) << title;
        Close();
    }
    FakeSystemd systemd({A("inactive"), {.id = unit, .load = "not-found", .file = units / unit}});
    ASSERT_EQ(Open(u"", &good), 0u);
    EXPECT_EQ(systemd.Deeds(), "EnableUnitFiles some-agent-host.service, Reload, ");
    constexpr RecoveryStep none, restart{RecoveryAction::restart, 1500};
    const ServiceFailureActions twice{neverReset, {restart, restart, none}};
    const std::string again = "Restart=on-failure\nRestartSec=1500ms\n",
                      reset = "ExecStop=-systemctl reset-failed %n\n";
    const std::tuple<const char*, ServiceFailureActions, std::string, std::string> recoveries[] = {
        {"twice", twice, "StartLimitIntervalSec=infinity\nStartLimitBurst=3\n", again + reset},
        {"once a day", {86400, {restart, none}}, "StartLimitIntervalSec=86400\nStartLimitBurst=2\n", again + reset},
        {"always", {neverReset, {restart}}, "StartLimitIntervalSec=0\n", again},
        {"never", {neverReset, {none, restart}}, "", ""},
    };
    for (const auto& [title, actions, limits, restarts] : recoveries) {
        EXPECT_EQ(services.ChangeServiceConfig2W(service, actions), 0u) << title;
        EXPECT_EQ(systemd.Deeds(), "Reload, ") << title;
        EXPECT_EQ(Read(units / unit),
                  fmt::format("{}\n[Unit]\nDescription=100%% \\ \nRequires=a.service\nAfter=a.service\n"
                              "Requires=other-agent.service\nAfter=other-agent.service\nWants=network-online."
                              "target\nAfter=network-online.target dbus.service\n{}\n"
                              "[Service]\nType=notify\nNotifyAccess=main\nExecStart=:\"{}/a $b %%c\"\n"
                              "Environment=\"KVAGENT_STATE_DIR={}\"\nUMask=0077\nTimeoutStartSec=infinity\nKillMode="
                              "mixed\nTimeoutStopSec=30\n{}\n"
                              "[Install]\nWantedBy=multi-user.target\n",
                              systemd::unitFileMark, limits, work.string(), StateDirectory(), restarts))
            << title;
    }
    EXPECT_EQ(Open(u"", &good), error::serviceExists) << "the manager has not read the file yet";
}

TEST_F(ServiceManagerTest, RemovesOnlyItsOwnUnits) {
    Write(units / "a.service", systemd::unitFileMark);
    Write(units / "d.service", "[Unit]\n");
    std::filesystem::create_symlink("a.service", units / "b.service");
    FakeSystemd systemd({{.id = "a.service", .file = units / "a.service"},
                         {.id = "b.service", .file = units / "b.service"},
                         {.id = "c.service", .file = "/lib/c.service"},
                         {.id = "d.service", .file = units / "d.service"}});
    for (const std::u16string_view name : {u"b", u"c", u"d", u"a"}) {
        ASSERT_EQ(Open(name), 0u);
        EXPECT_EQ(services.ChangeServiceConfig2W(service, {}), error::notSupported);
        EXPECT_EQ(services.DeleteService(service), name == u"a" ? 0u : error::accessDenied);
    }
    EXPECT_EQ(systemd.Deeds(), "DisableUnitFiles a.service, Reload, ");
    EXPECT_EQ(FilesIn(units), (std::vector<std::string>{"b.service", "d.service"}));
}

}  // namespace
}  // namespace platform::test
