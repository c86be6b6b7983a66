// The agent's own service at a service manager in memory: what is handed over, and what the log says.
#include <functional>

#include "agent/service_admin.h"
#include "foundation/agent_state.h"
#include "platform/system_facts.h"
#include "tests/support/fake_services.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

using namespace platform;
using enum ServiceState;
using ServiceAdmin = TestAgent;

TEST_F(ServiceAdmin, ServesItsOwnServiceAndSaysSo) {
    VirtualClock clock;
    FakeServices fake;
    FakeService& service = fake.services[std::u16string(serviceName)];
    const auto done = [](void (*operation)()) {
        return [operation] {
            operation();
            return 0U;
        };
    };
    using Operation = std::function<std::uint32_t()>;
    const Operation install = done(Install), remove = done(UnInstall), stop = done(StopService),
                    restart = done(RestartService), start = [] { return StartingService(serviceName); };
    const FakeService idle{.waitHint = 5000}, runs{.state = running, .waitHint = 5000};
    const struct {
        Operation operation;
        FakeService service;
        const char* failing;  // how the call begins that fails, with 5
        const char* logged;
        std::uint32_t result = 0;
    } rows[] = {
        {install, idle, "OpenSCManagerW", "OpenSCManager failed, errorCode = 5"},
        {install, idle, "CreateServiceW", "\t Install() :: Create Service failure, error code = 5"},
        {install, idle, "ChangeServiceConfig2W", "Install: ChangeServiceConfig2() is Failed! Error: 5 "},
        {install, idle, "", "Service Corvinel Monitoring Agent installed successfully"},
        {remove, idle, "OpenServiceW", "\t UnInstall() :: OpenService failed, error code = 5"},
        {remove, idle, "DeleteService", "\t UnInstall() :: Failed to delete service Corvinel Monitoring Agent"},
        {remove, idle, "", "\t UnInstall() :: service Corvinel Monitoring Agent removed"},
        {start, idle, "", "StartingService : StartService SUCCESS."},
        {start, idle, "StartServiceW", "StartingService : Service Started Successfully .", 1},
        {start, runs, "", "StartingService : StartServiceW failed (1056)"},
        {start, {.takes = UINT32_MAX}, "", "StartingService : Current State: 2", 2},
        {start, {.state = ServiceState{1066}}, "", "StartingService : Service Specific Exit Code: 0"},
        {start, idle, "OpenSC", "StartingService : Failed to open the ServiceControl Manager of This Computer :5 ", 5},
        {start, idle, "Query", "StartingService : QueryServiceStatusEx failed (5)", 5},
        {stop, runs, "", "StopService: Service stopped successfully"},
        {stop, {.state = running, .takes = UINT32_MAX}, "", "StopService: Wait timed out"},
        {stop, idle, "", "StopService: Service is already stopped."},
        {stop, {.pending = stopPending}, "", "StopService: Service stopped successfully."},
        {stop, {.pending = stopPending, .takes = UINT32_MAX}, "", "StopService: Service stop timed out."},
        {stop, runs, "OpenSe", "StopService : Failed to open the Corvinel Monitoring Agent Service :5 "},
        {stop, runs, "Query", "StopService: QueryServiceStatusEx failed (5)"},
        {stop, runs, "ControlService", "StopService: ControlService failed (5)"},
        {restart, runs, "", "Restart Service: About to restart service"},
        {restart, runs, "", "StartingService : StartService SUCCESS."},
    };
    agentState.gv_ocAgentBinPath = u"C:\\kv\\";
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        const std::size_t before = LogText().size();
        service = row.service;
        if (service.pending == stopPending) service.since = Clock().GetTickCount64();
        fake.calls.clear();
        fake.failing = row.failing;
        const std::int64_t began = clock.nowMilliseconds();
        EXPECT_EQ(row.operation(), row.result);
        const std::string log = LogText().substr(before);
        EXPECT_NE(log.find(" " + std::string(row.logged) + "\n"), log.npos) << log;
        if (log.find("timed out") != log.npos) {
            EXPECT_EQ(clock.nowMilliseconds() - began, 61000) << "the first look after a minute";
        }
        EXPECT_EQ(log.find("StopService: ") == log.npos,
                  log.find("StopService: Closing service handles\n") == log.npos);
        EXPECT_FALSE(fake.hasOpenHandles());
    }
    const ServiceDefinition& made = fake.definition;
    EXPECT_TRUE(made.name == serviceName && made.displayName == serviceName);
    EXPECT_EQ(made.type, 272U);
    EXPECT_EQ(made.start, ServiceStartType::automatic);
    EXPECT_EQ(made.errorControl, ServiceErrorControl::normal);
    EXPECT_EQ(made.binaryPath, u"\"C:\\kv\\MonitoringAgent.exe\"");
    EXPECT_EQ(made.dependencies, std::vector<std::u16string>{u"Corvinel Kestrova - Agent"});
    EXPECT_EQ(fake.actions.resetPeriodSeconds, neverReset);
    std::string steps;
    for (const auto& [action, delay] : fake.actions.steps)
        steps += std::to_string(static_cast<int>(action)) + ":" + std::to_string(delay) + " ";
    EXPECT_EQ(steps, "1:10000 1:10000 0:10000 ");
}

TEST_F(ServiceAdmin, TellsOldSystemsByTheirVersion) {
    const char* unknown = "\t IsWin2kOS : Problem in identifying the operating system !!!";
    const struct {
        std::uint32_t major, minor;
        Error result;
        bool isOld;
        const char* logged;
    } rows[] = {
        {5, 0, 0, true, "IsWin2kOS : Windows 2000 Operating system. "},
        {5, 1, 0, false, "\tbOsVersionInfoEx value is 1 "},
        {4, 0, 0, true, unknown},
        {5, 0, 5, false, "\tbOsVersionInfoEx value is 0 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        SystemFactOperations facts = SystemFacts();
        facts.GetVersionExW = [&row](SystemVersion& version) {
            version.family = SystemFamily::nt;
            version.major = row.major;
            version.minor = row.minor;
            return row.result;
        };
        const ScopedOperations scoped(facts);
        const std::size_t before = LogText().size();
        EXPECT_EQ(IsWin2kOS(), row.isOld);
        EXPECT_NE(LogText().find(row.logged + std::string("\n"), before), std::string::npos);
    }
}

}  // namespace kv::test
