// Enrolment against a real server, in virtual time.

#include "agent/enrolment.h"
#include "agent/health_report.h"
#include "agent/main_thread.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "lab/server/server.h"
#include "lab/store/store.h"
#include "platform/registry.h"
#include "platform/threads.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

class Enrolment : public TestAgent {
  protected:
    Enrolment() : server_(Options(folder)) {
        agentState.gv_httpsEnabled = 0;
        agentState.gv_ServerPort = server_.port();
        agentState.gv_LastAccessName.Publish(u"127.0.0.1");
        agentState.gv_agentKey.Publish(u"HUBCENTER");
        agentState.gv_agentID = u"pc & more";
        agentState.gv_custID = u"M\u00fcller + S\u00f6hne #1 100%";
        clock_.endMilliseconds = VirtualClock::startMilliseconds + 3600 * 1000;
    }

    static lab::ServerOptions Options(const std::filesystem::path& folder) {
        lab::ServerOptions options;
        options.database = (folder / "lab.db").string();
        options.timeDiff = -75;
        options.refusedKeys = {"BANNED"};
        return options;
    }

    void OrderFaults(int status, int count) const {
        lab::Store store = lab::OpenStore((folder / "lab.db").string());
        lab::AddFault(store, {0, "RegisterAgent", lab::FaultKind::status, status, count});
    }

    bool ReportsItsEnd() const {
        OptionalText enabled;
        return GetEnableSendAgentStatus(enabled) == 0 && enabled == u"yes";
    }

    VirtualClock clock_;
    lab::LabServer server_;
    std::vector<platform::ThreadStart> started;  // threads that the test does not start
    const Replaced<platform::ThreadOperations> threads_{
        &platform::ThreadOperations::CreateThread,
        [this, create = platform::Threads().CreateThread](auto start, void* argument) {
            if (argument != nullptr) return create(start, argument);
            started.push_back(start);
            return platform::ThreadHandle{1};
        }};
};

TEST_F(Enrolment, WithoutAKeyAsksEveryMinuteAndTakesTheServersAnswer) {
    OrderFaults(503, 3);
    Write(conf / "slaves" / "old" / "queryconf.txt", "x");
    InitLicenseParams();
    EXPECT_EQ(clock_.nowMilliseconds(), VirtualClock::startMilliseconds + 3 * 60000);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"LAB1");
    EXPECT_EQ(agentState.gv_timeDiff, -75);
    EXPECT_EQ(agentState.gv_agentRunFlag, 1);
    OptionalText stored;
    EXPECT_EQ(GetOCAgentKey(stored), 0U);
    EXPECT_EQ(stored, u"LAB1");
    EXPECT_FALSE(std::filesystem::exists(conf / "slaves")) << "of an earlier agent";
    lab::Store store = lab::OpenStore((folder / "lab.db").string());
    const std::vector<lab::Agent> agents = lab::Agents(store);
    ASSERT_EQ(agents.size(), 1U);
    EXPECT_EQ(agents[0].details.id, "pc & more");
    EXPECT_EQ(agents[0].details.customer, "M\u00fcller + S\u00f6hne #1 100%");
}

TEST_F(Enrolment, WithAKeyGoesOnAndAsksUntilItIsAnswered) {
    agentState.gv_agentKey.Publish(u"K7");
    OrderFaults(503, 4);
    const std::filesystem::path copies[] = {conf / "queryconf.txt.restored", conf / "backup" / "queryconf.txt.new",
                                            conf / "slaves" / "S1" / "queryconf.txt.restored",
                                            conf / "backup" / "S1" / ".copy-queryconf.txt.new"};
    for (const std::filesystem::path& copy : copies) Write(copy, "half");
    Write(conf / "queryconf.txt.new", "an administrator's");
    Write(data / "Agent_K7_9.txt", "{}");
    Write(data / "Agent_K7_10.tmp", "half");
    InitLicenseParams();
    EXPECT_EQ(clock_.nowMilliseconds(), VirtualClock::startMilliseconds);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 9U);
    EXPECT_FALSE(std::filesystem::exists(data / "Agent_K7_10.tmp"));
    for (const std::filesystem::path& copy : copies) EXPECT_FALSE(std::filesystem::exists(copy)) << copy;
    EXPECT_TRUE(std::filesystem::exists(conf / "queryconf.txt.new"));
    EXPECT_FALSE(ReportsItsEnd()) << "the server has not allowed it yet";
    EXPECT_TRUE(ReadLastEvents().registration.ends_with("refused with HTTP status 503"));
    ASSERT_EQ(started.size(), 1U);
    EXPECT_EQ(started[0](nullptr), 0U);
    EXPECT_EQ(clock_.nowMilliseconds(), VirtualClock::startMilliseconds + 4 * 60000);
    EXPECT_TRUE(ReportsItsEnd());
}

TEST_F(Enrolment, WithAKeyDoesNotWaitForASlowServer) {
    agentState.gv_agentKey.Publish(u"K7");
    lab::Store store = lab::OpenStore((folder / "lab.db").string());
    lab::AddFault(store, {0, "RegisterAgent", lab::FaultKind::delay, 500, 1});
    platform::ThreadHandle registration = 0;
    const auto wait = platform::Threads().WaitForThread;
    const Replaced waits(&platform::ThreadOperations::WaitForThread, [&](auto thread, std::uint32_t milliseconds) {
        if (milliseconds != 10000) return wait(thread, milliseconds);  // not for the registration
        registration = thread;
        return platform::Error{platform::error::waitTimeout};
    });
    InitLicenseParams();
    EXPECT_TRUE(Logged("Going on with the agent key of an earlier run"));
    EXPECT_FALSE(ReportsItsEnd());
    EXPECT_TRUE(started.empty()) << "the thread that asked first goes on asking";
    EXPECT_EQ(wait(registration, 60000), platform::error::success);
    EXPECT_TRUE(ReportsItsEnd());
}

TEST_F(Enrolment, ARefusalWhileItRunsCountsFromTheNextStart) {
    agentState.gv_agentKey.Publish(u"BANNED");
    OrderFaults(503, 1);
    InitLicenseParams();
    ASSERT_EQ(started.size(), 1U);
    started[0](nullptr);
    EXPECT_TRUE(Logged("not to run, which counts from its next start on"));
    EXPECT_FALSE(Logged("StopService"));
    EXPECT_FALSE(ReportsItsEnd());
}

TEST_F(Enrolment, ARefusedAgentLoadsNoPlanAndStartsNoWork) {
    agentState.gv_agentKey.Publish(u"BANNED");
    EXPECT_EQ(InvokeMainThread(nullptr), 0U);
    EXPECT_EQ(agentState.gv_agentRunFlag, 0);
    EXPECT_TRUE(Logged("gv_agentRunFlag is set to FALSE. Shutting the agent service \n"));
    EXPECT_TRUE(Logged("StopService"));
    EXPECT_EQ(agentState.gv_loadqueryconf, 0);
    EXPECT_EQ(started, std::vector<platform::ThreadStart>{ReportHealth}) << "which only tells of it";
}

TEST_F(Enrolment, ReplacesOnlyAnAbsentKey) {
    constexpr bool keepsSlaves = true;
    const struct {
        const char* title;
        platform::Error failure;          // of the first two reads
        std::u16string_view stored, key;  // before and after
        int minutes = 0;                  // until it has a key
        bool hasSlaves = false;
    } rows[] = {
        {"an absent key", platform::error::fileNotFound, u"", u"LAB1"},
        {"the placeholder in another case", platform::error::success, u"HubCenter", u"LAB1"},
        {"a key that may not be read at first", platform::error::accessDenied, u"K7", u"K7", 2, keepsSlaves},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        Write(conf / "slaves" / "S1" / "queryconf.txt", "x");
        if (!row.stored.empty()) SetOCAgentKey(row.stored);
        agentState.gv_agentKey.Publish(row.failure == 0 ? row.stored : u"HUBCENTER");
        int reads = 0;
        const Replaced queries(&platform::RegistryOperations::RegQueryValueExW,
                               [&, query = platform::Registry().RegQueryValueExW](auto key, auto name, auto&&... rest) {
                                   const bool fails = name == u"MonitoringAgentKey" && ++reads <= 2 && row.failure != 0;
                                   return fails ? row.failure : query(key, name, rest...);
                               });
        const std::int64_t before = clock_.nowMilliseconds();
        InitLicenseParams();
        EXPECT_EQ(clock_.nowMilliseconds() - before, row.minutes * 60000);
        EXPECT_EQ(agentState.gv_agentKey.view(), row.key);
        EXPECT_EQ(std::filesystem::exists(conf / "slaves" / "S1"), row.hasSlaves);
    }
}

}  // namespace
}  // namespace kv::test
