// The agent's own service at a service manager in memory: what is handed over, and what the log says.
#include "agent/service_admin.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "platform/system_facts.h"
#include "tests/support/fake_services.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

using namespace platform;
using enum ServiceState;
using enum SystemFamily;
using ServiceAdmin = TestAgent;

template <SystemFamily family, std::uint32_t major, std::uint32_t minor, Error result = 0>
std::uint32_t IsOld() {
    SystemFactOperations facts = SystemFacts();
    facts.GetVersionExW = [](SystemVersion& version) {
        version.family = family, version.major = major, version.minor = minor;
        return result;
    };
    const ScopedOperations scoped(facts);
    return IsWin2kOS() ? 1 : 0;
}

TEST_F(ServiceAdmin, ServesItsOwnServiceAndSaysSo) {
    VirtualClock clock;
    FakeServices fake;
    FakeService& service = fake.services[u"Corvinel Monitoring Agent"];
    agentState.gv_ocAgentBinPath = u"C:\\kv\\";
    constexpr auto start = [] { return StartingService(serviceName); };
    constexpr auto stop = [] { return StopService(), 0U; };
    constexpr auto install = [] { return Install(), 0U; };
    constexpr auto remove = [] { return UnInstall(), 0U; };
    constexpr auto restart = [] { return RestartService(), 0U; };
    constexpr auto none = SIZE_MAX;
    constexpr auto isUnknown = "\t IsWin2kOS : Problem in identifying the operating system !!!";
    const FakeService idle{.waitHint = 5000}, runs{.state = running, .waitHint = 5000};
    const struct {
        std::uint32_t (*operation)();
        FakeService service;
        std::size_t failingCall;  // with 5
        const char* logged;
        std::uint32_t result = 0;
    } rows[] = {
        {install, idle, 0, "OpenSCManager failed, errorCode = 5"},
        {install, idle, 1, "\t Install() :: Create Service failure, error code = 5"},
        {install, idle, 2, "Install: ChangeServiceConfig2() is Failed! Error: 5 "},
        {install, idle, 2, "Install: errorCode for OC Agent is 5"},
        {install, idle, none, "Service Corvinel Monitoring Agent installed successfully"},
        {install, idle, none, "Install: errorCode for OC Agent is 0"},
        {remove, idle, 0, "\t UnInstall() :: OpenSCManager failed, error code = 5"},
        {remove, idle, 1, "\t UnInstall() :: OpenService failed, error code = 5"},
        {remove, idle, 2, "\t UnInstall() :: Failed to delete service Corvinel Monitoring Agent"},
        {remove, idle, none, "\t UnInstall() :: service Corvinel Monitoring Agent removed"},
        {start, idle, none, "StartingService : Service start pending."},
        {start, idle, none, "StartingService : StartService SUCCESS."},
        {start, idle, 2, "StartingService : Service Started Successfully .", 1},
        {start, runs, none, "StartingService : StartServiceW failed (1056)"},
        {start, {.takes = UINT32_MAX}, none, "StartingService : Current State: 2", 2},
        {start, {.state = ServiceState{1066}}, none, "StartingService : Service Specific Exit Code: 0", 0},
        {start, idle, 0, "StartingService : Failed to open the ServiceControl Manager of This Computer :5 ", 5},
        {start, idle, 1, "StartingService : Failed to open the Corvinel Monitoring Agent Service :5 ", 5},
        {start, idle, 3, "StartingService : QueryServiceStatusEx failed (5)", 5},
        {stop, runs, none, "StopService: Service stopped successfully"},
        {stop, {.state = running, .takes = UINT32_MAX}, none, "StopService: Wait timed out"},
        {stop, idle, none, "StopService: Service is already stopped."},
        {stop, {.pending = stopPending}, none, "StopService: Service stopped successfully."},
        {stop, {.pending = stopPending, .takes = UINT32_MAX}, none, "StopService: Service stop timed out."},
        {stop, runs, 0, "StopService : Failed to open the ServiceControl Manager of This Computer :5 "},
        {stop, runs, 1, "StopService : Failed to open the Corvinel Monitoring Agent Service :5 "},
        {stop, runs, 2, "StopService: QueryServiceStatusEx failed (5)"},
        {stop, runs, 3, "StopService: ControlService failed (5)"},
        {stop, runs, 4, "StopService: QueryServiceStatusEx failed (5)"},
        {restart, runs, none, "Restart Service: About to stop service"},
        {restart, runs, none, "StopService: Service stopped successfully"},
        {restart, runs, none, "Restart Service: About to restart service"},
        {restart, runs, none, "StartingService : StartService SUCCESS."},
        {IsOld<nt, 5, 0>, runs, none, "IsWin2kOS : Windows 2000 Operating system. ", 1},
        {IsOld<nt, 5, 1>, runs, none, "\tbOsVersionInfoEx value is 1 "},
        {IsOld<nt, 10, 0>, runs, none, "\tbOsVersionInfoEx value is 1 "},
        {IsOld<nt, 4, 0>, runs, none, isUnknown, 1},
        {IsOld<other, 6, 1>, runs, none, isUnknown, 1},
        {IsOld<nt, 5, 0, 5>, runs, none, "\tbOsVersionInfoEx value is 0 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        const std::size_t before = LogText().size();
        service = row.service;
        if (service.pending == stopPending) service.since = Clock().GetTickCount64();
        fake.calls.clear();
        fake.failingCall = row.failingCall;
        const std::int64_t began = clock.nowMilliseconds();
        EXPECT_EQ(row.operation(), row.result);
        if (std::string_view(row.logged).find("timed out") != std::string_view::npos) {
            EXPECT_EQ(clock.nowMilliseconds() - began, 61000) << "the first look after a minute";
        }
        const std::string log = LogText().substr(before);
        EXPECT_NE(log.find(" " + std::string(row.logged) + "\n"), log.npos) << log;
        EXPECT_EQ(log.find("StopService: ") == log.npos,
                  log.find("StopService: Closing service handles\n") == log.npos);
        EXPECT_TRUE(fake.open.empty()) << "handles";
    }
    const auto& [name, display, type, when, errors, path, dependencies] = fake.definition;
    std::string made = kv::LogText("%s, %s, %d %d %d, %s, %s, %u", name, display, type, when, errors, path,
                                   dependencies.at(0), fake.actions.resetPeriodSeconds);
    for (const auto& [action, delay] : fake.actions.steps) made += kv::LogText(" %d:%d", action, delay);
    EXPECT_EQ(made,
              "Corvinel Monitoring Agent, Corvinel Monitoring Agent, 272 2 1, \"C:\\kv\\MonitoringAgent.exe\", "
              "Corvinel Kestrova - Agent, 4294967295 1:10000 1:10000 0:10000");
}

}  // namespace kv::test
