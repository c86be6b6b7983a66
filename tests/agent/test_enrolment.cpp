// Enrolment against a real server, in virtual time.
#include <gtest/gtest.h>

#include "agent/enrolment.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "lab/server.h"
#include "lab/store.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

class Enrolment : public TestAgent {
  protected:
    Enrolment() : server_(Options(folder)) {
        agentState.gv_httpsEnabled = 0;
        agentState.gv_ServerPort = server_.port();
        agentState.gv_LastAccessName.publish(u"127.0.0.1");
        agentState.gv_agentKey.publish(u"HUBCENTER");
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

    void orderFault(int status, int count) const {
        lab::Store store = lab::OpenStore((folder / "lab.db").string());
        lab::AddFault(store, {0, "RegisterAgent", lab::FaultKind::status, status, count});
    }

    VirtualClock clock_;
    lab::LabServer server_;
};

TEST_F(Enrolment, WithoutAKeyItAsksEveryMinuteAndTakesWhatTheServerSays) {
    orderFault(503, 3);
    Write(conf / "slaves" / "old" / "queryconf.txt", "x");
    InitLicenseParams();
    EXPECT_EQ(clock_.nowMilliseconds(), VirtualClock::startMilliseconds + 3 * 60000);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"LAB1");
    EXPECT_EQ(agentState.gv_timeDiff, -75);
    EXPECT_EQ(agentState.gv_agentRunFlag, 1);
    OptionalText stored;
    EXPECT_EQ(GetOCAgentKey(stored), 0U);
    EXPECT_EQ(stored, u"LAB1");
    EXPECT_FALSE(std::filesystem::exists(conf / "slaves")) << "a new agent starts without old slaves";
    lab::Store store = lab::OpenStore((folder / "lab.db").string());
    const std::vector<lab::Agent> agents = lab::Agents(store);
    ASSERT_EQ(agents.size(), 1U);
    EXPECT_EQ(agents[0].details.id, "pc & more");
    EXPECT_EQ(agents[0].details.customer, "M\u00fcller + S\u00f6hne #1 100%");
}

TEST_F(Enrolment, WithAKeyItGoesOnAfterOneFailedAttempt) {
    agentState.gv_agentKey.publish(u"K7");
    orderFault(503, 1);
    Write(data / "Agent_K7_9.txt", "{}");
    Write(data / "Agent_K7_10.tmp", "half");
    InitLicenseParams();
    EXPECT_EQ(clock_.nowMilliseconds(), VirtualClock::startMilliseconds);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
    EXPECT_EQ(agentState.gv_ocLastCreatedJSONNum, 9U);
    EXPECT_FALSE(std::filesystem::exists(data / "Agent_K7_10.tmp"));
    OptionalText enabled;
    EXPECT_NE(GetEnableSendAgentStatus(enabled), 0U) << "only a server's answer allows status reports";
}

TEST_F(Enrolment, ARefusedAgentDoesNotRun) {
    agentState.gv_agentKey.publish(u"BANNED");
    InitLicenseParams();
    EXPECT_EQ(agentState.gv_agentRunFlag, 0);
    EXPECT_TRUE(Logged("StopService"));
}

}  // namespace
}  // namespace kv::test
