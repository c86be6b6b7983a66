// The service between a scripted manager and a real server: states, controls, and the stop.
#include <future>
#include <optional>
#include <utility>

#include "agent/log_file.h"
#include "agent/main_thread.h"
#include "agent/service.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "platform/http.h"
#include "snmp/toolkit_log.h"
#include "tests/http/http_peers.h"

namespace kv {
namespace {

using platform::Error;
namespace control = platform::service_control;
namespace error = platform::error;

/// Plays the service manager. A thread that reads the state and logs stands in for the main thread.
class Service : public test::HttpTest {
  protected:
    ~Service() override { End(); }

    /// Runs the service from its start to its end; other threads go on.
    void Run(std::uint32_t controlOnceItRuns) {
        End();
        control_ = controlOnceItRuns;
        StopLogging();
        Write(folder / "monitoring" / "logs" / "agent.log", "");
        RotateLogger(std::nullopt);
        logState.gv_logLevel = 4;
        agentState.gv_isMainThreadStarted = false;
        agentState.gv_custID = u"customer";
        steps_ = 0;
        reports.clear();
        ServiceMain();
    }

    void End() {
        works_ = false;
        for (const platform::ThreadHandle thread : threads) real_.WaitForThread(thread, platform::infinite);
        threads.clear();
        works_ = true;
        if (const auto event = std::exchange(agentState.gv_stopEvent, 0)) real_.CloseEvent(event);
    }

    std::string reports;  // the digits of the states
    platform::ServiceStatus lastReport;
    int failingStep = -1;  // 0: the event, 1: the handler, from 2 on: the reports
    bool hasWorkers = true;
    std::vector<platform::ThreadHandle> threads;
    std::function<Error(platform::ThreadHandle, std::uint32_t)> waitForThread = platform::Threads().WaitForThread;

  private:
    static std::uint32_t Work(void* self) {
        while (static_cast<Service*>(self)->works_) Log1("%s works\n", agentState.gv_custID);
        return 0;
    }

    Error Step() { return steps_++ == failingStep ? error::accessDenied : error::success; }

    platform::ServiceHostOperations Host() {
        return {.StartServiceCtrlDispatcherW = {},
                .RegisterServiceCtrlHandlerExW =
                    [this](auto name, auto handler, void*, auto& handle) {
                        handle = 77;
                        const bool known = name == u"Corvinel Monitoring Agent" && handler == HandlerEx;
                        return known ? Step() : error::invalidName;
                    },
                .SetServiceStatus =
                    [this](auto handle, const platform::ServiceStatus& status) {
                        const Error failure = handle == 77 ? Step() : error::invalidHandle;
                        if (!failure) reports += std::to_string(static_cast<int>(status.dwCurrentState));
                        lastReport = status;
                        return failure;
                    },
                .SetStatusText = {}};
    }

    platform::ThreadOperations Threads() {
        platform::ThreadOperations operations = real_;
        operations.CreateEventW = [this](auto& event) {
            const Error failure = Step();
            return failure ? failure : real_.CreateEventW(event);
        };
        operations.CreateThread = [this](auto start, void* argument) {
            if (start == InvokeMainThread) return threads.emplace_back(real_.CreateThread(Work, this));
            return hasWorkers ? threads.emplace_back(real_.CreateThread(start, argument)) : platform::ThreadHandle{0};
        };
        operations.WaitForThread = [this](auto thread, auto time) { return waitForThread(thread, time); };
        operations.WaitForEvent = [this](auto event, auto) {
            HandlerEx(control_, 0, nullptr, nullptr);
            EXPECT_EQ(real_.WaitForEvent(event, 0), error::success) << "the handler sets it";
            return error::success;
        };
        return operations;
    }

    std::uint32_t control_ = 0;
    int steps_ = 0;
    std::atomic<bool> works_{true};
    platform::ThreadOperations real_ = platform::Threads();
    platform::ScopedOperations<platform::ServiceHostOperations> host_{Host()};
    platform::ScopedOperations<platform::ThreadOperations> threads_{Threads()};
};

TEST_F(Service, AnswersControlsWithItsState) {
    const std::pair<std::uint32_t, const char*> rows[] = {{control::pause, "7"},        {control::interrogate, "4"},
                                                          {control::resume, "4"},       {128, "4"},
                                                          {control::sessionChange, ""}, {200, "4"}};
    agentState.gv_serviceStatusHandle = 77;
    SetEnableSendAgentStatus(u"yes");
    for (const auto& [code, report] : rows) {
        reports.clear();
        EXPECT_EQ(HandlerEx(code, 0, nullptr, nullptr), 0U);
        EXPECT_EQ(reports, report) << code;
    }
    EXPECT_TRUE(threads.empty()) << "no control was a stop";
    EXPECT_FALSE(Logged("SendAgentStatus"));
    EXPECT_TRUE(Logged(" HandlerEx : Service Control Pause notification is received \n"));
    EXPECT_EQ(lastReport.dwServiceType, 48U) << "own or shared process";
    EXPECT_EQ(lastReport.dwControlsAccepted, 135U) << "stop, pause and continue, shutdown, session change";
    agentState.gv_isWin2k = true;
    EXPECT_TRUE(ChangeServiceStatus(platform::ServiceState::paused));
    EXPECT_EQ(lastReport.dwControlsAccepted, 7U) << "no session change";
}

TEST_F(Service, EndsAtOnceIfAStepOfItsStartFails) {
    constexpr bool isFreed = true;
    const struct {
        const char* logged;
        const char* reports;
        std::size_t threads;
        bool freed = false;
    } rows[] = {
        {"Create event failed due to the following error !! \n", "", 0, isFreed},
        {"RegisterServiceCtrlHandlerEx failed to register the callback due to the following error !! \n", "", 0,
         isFreed},
        {"ChangeServiceStatus : SetServiceStatus is failed due to following error !! \n", "", 0},
        {"ChangeServiceStatus : SetServiceStatus is failed due to following error !! \n", "2", 1},
    };
    for (const auto& row : rows) {
        ++failingStep;
        Run(control::stop);
        EXPECT_TRUE(Logged(row.logged)) << failingStep;
        EXPECT_EQ(reports, row.reports);
        EXPECT_EQ(threads.size(), row.threads);
        EXPECT_EQ(agentState.gv_custID == std::nullopt, row.freed);
        EXPECT_EQ(agentState.gv_stopEvent == 0, row.freed);
    }
}

TEST_F(Service, TellsTheServerAndSavesTheCountersWhenItStops) {
    const struct {
        std::optional<std::u16string_view> enabled;
        std::uint32_t control;
        int answer;
        std::string told;
        const char* logged;
    } rows[] = {
        {std::nullopt, control::stop, 200, "", "Service Control Stop notification is received \n"},
        {u"no", control::shutdown, 200, "", "Service Control Machine shutdown notification is received \n"},
        {u"YES", control::stop, 200, "AGENT_DOWN", "\t SendAgentStatus :: Data Posted Successfully\n"},
        {u"yes", control::shutdown, 503, "DEVICE_DOWN",
         "\t SendAgentStatus :: Failed to post the data to server with error code [13]\n"},
    };
    test::RunningServer peer;
    std::string query;
    int answer = 0;
    peer.server->Get("/servlets/StatusUpdateServlet",
                     [&](const httplib::Request& request, httplib::Response& response) {
                         query = request.target.substr(request.path.size());
                         response.status = answer;
                     });
    agentState.gv_ServerPort = peer.port;
    agentState.gv_agentKey.Publish(u"K7");
    SetMALastCreatedZIPNum(40);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        query.clear();
        answer = row.answer;
        if (row.enabled) SetEnableSendAgentStatus(*row.enabled);
        ++agentState.gv_ocLastCreatedJSONNum;
        Run(row.control);
        EXPECT_EQ(reports, "2431");
        const std::string told = "?agentKey=K7&agentStatus=" + row.told + "&serviceName=Corvinel%20Monitoring%20Agent";
        EXPECT_EQ(query, row.told.empty() ? "" : told);
        for (const char* line : {row.logged, "getCSDetails returned ERROR_INVALID_DATA\n", "LOGGING STOPPED",
                                 "ServiceMain : Tallowmere OnCall Agent Service is started successfully \n"})
            EXPECT_TRUE(Logged(line)) << line;
        std::uint32_t stored = 0;
        GetMALastCreatedJSONNum(stored);
        EXPECT_EQ(stored, agentState.gv_ocLastCreatedJSONNum);
        GetMALastCreatedZIPNum(stored);
        EXPECT_EQ(stored, 40U) << "the agent has not set its own number yet";
    }
    hasWorkers = false;
    Run(control::stop);
    EXPECT_EQ(reports, "2431") << "without a worker";
}

TEST_F(Service, ASilentServerAndASecondStopDoNotDelayTheStop) {
    std::promise<void> asked, hangUp;
    std::atomic<int> connections{0};
    const std::shared_future<void> mayHangUp = hangUp.get_future().share();
    std::vector<std::uint32_t> waits;
    test::RawServer server([&](auto, const std::string&) {
        if (++connections == 1) asked.set_value();
        mayHangUp.wait();
    });
    agentState.gv_ServerPort = server.port;
    SetEnableSendAgentStatus(u"yes");
    agentState.gv_ocLastCreatedJSONNum = 50;
    agentState.gv_ocLastCreatedZIPNum = 60;
    waitForThread = [&](auto, std::uint32_t milliseconds) {
        waits.push_back(milliseconds);
        if (waits.size() > 1) return error::waitTimeout;
        asked.get_future().wait();
        std::uint32_t stored = 0;
        GetMALastCreatedJSONNum(stored);
        EXPECT_EQ(stored, 50U) << "saved before the report to the server";
        GetMALastCreatedZIPNum(stored);
        EXPECT_EQ(stored, 60U);
        HandlerEx(control::shutdown, 0, nullptr, nullptr);
        return error::waitTimeout;
    };
    Run(control::stop);
    EXPECT_EQ(reports, "24331");
    EXPECT_EQ(waits, std::vector<std::uint32_t>(2, 20000));
    hangUp.set_value();
    End();
    EXPECT_EQ(agentState.gv_custID, u"customer") << "other threads still read the state";
    logState.gv_logMaxSize = 1;
    Log1("late\n");
    EXPECT_FALSE(snmp::OpenToolkitLog("logs\\SNMP_agent.log"));
    const std::string log = LogText();
    EXPECT_EQ(log.find("LOGGING STOPPED"), log.rfind("LOGGING STOPPED"));
    EXPECT_TRUE(log.ends_with("LOGGING STOPPED==============================================\n"));
    EXPECT_EQ(FilesIn(folder / "monitoring" / "logs"), std::vector<std::string>{"agent.log"});
}

TEST_F(Service, AFailedStepOfTheStopDoesNotPreventTheOthers) {
    SetEnableSendAgentStatus(u"yes");
    agentState.gv_ocLastCreatedJSONNum = 5;
    agentState.gv_ocLastCreatedZIPNum = 6;
    const test::Replaced noTransport(&platform::HttpOperations::WinHttpOpen,
                                     [](auto&&...) -> Error { throw std::runtime_error("no transport"); });
    const test::Replaced full(&platform::RegistryOperations::RegSetValueExW, [](auto&&...) { return error::diskFull; });
    EXPECT_EQ(AgentShutdownWorker(nullptr), 1U);
    for (const char* line : {"SendAgentStatus :: ended early : no transport", "LOGGING STOPPED",
                             "MALastCreatedJSONNum 5 cannot be stored. Error is [112]\n",
                             "MALastCreatedZIPNum 6 cannot be stored. Error is [112]\n"})
        EXPECT_TRUE(Logged(line)) << line;
}

}  // namespace
}  // namespace kv
