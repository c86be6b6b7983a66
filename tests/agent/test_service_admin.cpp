// The agent's own service in a service manager in memory: the calls, and what the log says about them.
#include "agent/service_admin.h"
#include "foundation/agent_state.h"
#include "platform/system_facts.h"
#include "tests/support/fake_services.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

using namespace platform;
using enum ServiceState;

constexpr std::uint32_t never = UINT32_MAX;

struct ServiceAdmin : TestAgent {
    ServiceAdmin() { agentState.gv_ocAgentBinPath = u"C:\\kv\\"; }

    /// Puts the service into a state. A call that begins with `failing` fails with error 5; empty: no call does.
    void Set(const FakeService& state, const char* failing) {
        FakeService& service = fake.services[std::u16string(serviceName)] = state;
        if (service.pending == stopPending) service.since = Clock().GetTickCount64();
        fake.calls.clear();
        fake.failing = failing;
        logBefore_ = LogText().size();
    }
    std::string NewLog() const { return LogText().substr(logBefore_); }
    /// Whether a line of the new log ends with a text.
    bool HasLogged(const char* text) const {
        return NewLog().find(" " + std::string(text) + "\n") != std::string::npos;
    }

    VirtualClock clock;
    FakeServices fake;
    const FakeService idle{.waitHint = 5000};
    const FakeService runs{.state = running, .waitHint = 5000};

  private:
    std::size_t logBefore_ = 0;
};

TEST_F(ServiceAdmin, LogsHowInstallingAndRemovingWent) {
    const struct {
        void (*operation)();
        const char* failing;
        const char* logged;
    } rows[] = {
        {Install, "OpenSCManagerW", "OpenSCManager failed, errorCode = 5"},
        {Install, "CreateServiceW", "\t Install() :: Create Service failure, error code = 5"},
        {Install, "ChangeServiceConfig2W", "Install: ChangeServiceConfig2() is Failed! Error: 5 "},
        {Install, "", "Service Corvinel Monitoring Agent installed successfully"},
        {UnInstall, "OpenServiceW", "\t UnInstall() :: OpenService failed, error code = 5"},
        {UnInstall, "DeleteService", "\t UnInstall() :: Failed to delete service Corvinel Monitoring Agent"},
        {UnInstall, "", "\t UnInstall() :: service Corvinel Monitoring Agent removed"},
    };
    for (const auto& row : rows) {
        Set(idle, row.failing);
        row.operation();
        EXPECT_TRUE(HasLogged(row.logged)) << NewLog();
        EXPECT_FALSE(fake.hasOpenHandles()) << row.logged;
    }
}

TEST_F(ServiceAdmin, InstallsAnAutomaticServiceThatIsRestarted) {
    Install();
    const ServiceDefinition& made = fake.definition;
    EXPECT_TRUE(made.name == serviceName && made.displayName == serviceName);
    EXPECT_EQ(made.type, 272U) << "its own process, with a desktop";
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

TEST_F(ServiceAdmin, LogsHowAStartWent) {
    const struct {
        FakeService service;
        const char* failing;
        std::uint32_t result;
        const char* logged;
    } rows[] = {
        {idle, "", 0, "StartingService : StartService SUCCESS."},
        {idle, "StartServiceW", 1, "StartingService : Service Started Successfully ."},
        {runs, "", 0, "StartingService : StartServiceW failed (1056)"},
        {{.takes = never}, "", 2, "StartingService : Current State: 2"},
        {{.state = ServiceState{1066}}, "", 0, "StartingService : Service Specific Exit Code: 0"},
        {idle, "OpenSC", 5, "StartingService : Failed to open the ServiceControl Manager of This Computer :5 "},
        {idle, "Query", 5, "StartingService : QueryServiceStatusEx failed (5)"},
    };
    for (const auto& row : rows) {
        Set(row.service, row.failing);
        EXPECT_EQ(StartingService(serviceName), row.result) << row.logged;
        EXPECT_TRUE(HasLogged(row.logged)) << NewLog();
        EXPECT_FALSE(fake.hasOpenHandles()) << row.logged;
    }
}

TEST_F(ServiceAdmin, LogsHowAStopWent) {
    const std::tuple<FakeService, const char*, const char*> rows[] = {
        {runs, "", "StopService: Service stopped successfully"},
        {{.state = running, .takes = never}, "", "StopService: Wait timed out"},
        {idle, "", "StopService: Service is already stopped."},
        {{.pending = stopPending}, "", "StopService: Service stopped successfully."},
        {{.pending = stopPending, .takes = never}, "", "StopService: Service stop timed out."},
        {runs, "OpenSe", "StopService : Failed to open the Corvinel Monitoring Agent Service :5 "},
        {runs, "Query", "StopService: QueryServiceStatusEx failed (5)"},
        {runs, "ControlService", "StopService: ControlService failed (5)"},
    };
    for (const auto& [service, failing, logged] : rows) {
        Set(service, failing);
        const std::int64_t began = clock.nowMilliseconds();
        StopService();
        const std::string log = NewLog();
        EXPECT_TRUE(HasLogged(logged)) << log;
        if (log.find("timed out") != log.npos) {
            EXPECT_EQ(clock.nowMilliseconds() - began, 61000) << logged;
        }
        EXPECT_EQ(log.find("StopService: ") == log.npos,
                  log.find("StopService: Closing service handles\n") == log.npos);
        EXPECT_FALSE(fake.hasOpenHandles()) << logged;
    }
}

TEST_F(ServiceAdmin, RestartStopsAndStarts) {
    Set(runs, "");
    RestartService();
    for (const char* line : {"Restart Service: About to restart service", "StopService: Service stopped successfully",
                             "StartingService : StartService SUCCESS."})
        EXPECT_TRUE(HasLogged(line)) << NewLog();
}

TEST_F(ServiceAdmin, RecognisesOldSystemsByTheirVersion) {
    const char* unknown = "\t IsWin2kOS : Problem in identifying the operating system !!!";
    const struct {
        std::uint32_t major, minor;
        Error result = 0;
        bool isOld = false;
        const char* logged;
    } rows[] = {
        {.major = 5, .minor = 0, .isOld = true, .logged = "IsWin2kOS : Windows 2000 Operating system. "},
        {.major = 5, .minor = 1, .logged = "\tbOsVersionInfoEx value is 1 "},
        {.major = 4, .minor = 0, .isOld = true, .logged = unknown},
        {.major = 5, .minor = 0, .result = 5, .logged = "\tbOsVersionInfoEx value is 0 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        const Replaced facts(&SystemFactOperations::GetVersionExW, [&row](SystemVersion& version) {
            version.family = SystemFamily::nt;
            version.major = row.major;
            version.minor = row.minor;
            return row.result;
        });
        const std::size_t before = LogText().size();
        EXPECT_EQ(IsWin2kOS(), row.isOld);
        EXPECT_NE(LogText().find(row.logged + std::string("\n"), before), std::string::npos);
    }
}

}  // namespace kv::test
