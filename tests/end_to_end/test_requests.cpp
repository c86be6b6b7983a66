// One-off requests and new plans, from the command that orders them to what the agent does: the agent's program, a real
// server and kvlab.
#include <fstream>
#include <gtest/gtest.h>
#include <optional>

#include "foundation/file_utils.h"
#include "lab/server.h"
#include "lab/store.h"
#include "tests/end_to_end/installed_agent.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

/// The agent K7, a master, with a server that it has an account with. Its scripts note their runs in a file.
struct ServedAgent : InstalledAgent {
    ServedAgent() {
        program = KV_HASTY_AGENT_PROGRAM;
        startServer();
        setText(u"\\Monitoring", u"MonitoringAgentKey", u"K7");
        setText(u"\\Monitoring", u"MasterAgent", u"YES");
        setText(u"\\Monitoring", u"RequestAvailable", u"NO");  // nothing is fetched before all requests are queued
        setNumber(u"\\Monitoring", u"writeInterval", 1);
        const std::string record = R"(printf '{ "Name": "%s" }' "$2"; echo "$2" >> )" + runs.string();
        writeScript("quick.sh", record);
        writeScript("slow.sh", "until [ -e " + (folder / "go").string() + " ]; do sleep 0.02; done; " + record);
        writePlan(Plan("WorkFlows", "quick.sh", "Own"));
        for (const char* slave : {"S1", "S2"}) {
            fs::create_directories(slaves / slave);
            TestAgent::Write(slaves / slave / "queryconf.txt",
                             Plan("WorkFlows_" + std::string(slave), "quick.sh", slave));
        }
    }

    void startServer(int port = 0) {
        lab::ServerOptions options;
        options.database = database;
        options.port = port;
        server.emplace(options);
        setServer(server->port(), u"http");
    }

    static std::string Plan(const std::string& member, const std::string& script, const std::string& name) {
        return R"({ ")" + member + R"(": [ { "wfname": "w", "interval": 60, "recordSetName": [ { "script": ")" +
               script + R"(", "Name": ")" + name + R"(", "params": "", "response_needed": "true" } ] } ] })";
    }

    /// Orders a new plan for an agent; the request's id.
    std::string pushPlan(const std::string& key, const std::string& plan, const std::string& options = "") const {
        TestAgent::Write(folder / "new.json", plan);
        return kvlab("conf push --agent K7 " + options + " " + key + " " + (folder / "new.json").string())
            .value_or("failed");
    }

    std::string request(const std::string& options) const {
        return kvlab("request add --agent K7 " + options).value_or("failed");
    }

    /// The states of all requests so far, in order, each with a blank behind it.
    std::string states() const {
        std::string text;
        const lab::Store store = lab::OpenStore(database);
        sqlite::Statement rows(store.connection.get(), "SELECT state FROM request ORDER BY number");
        while (rows.Step()) text += rows.text(0) + " ";
        return text;
    }

    int timesRun(const std::string& name) const {
        std::ifstream file(runs);
        int count = 0;
        for (std::string line; std::getline(file, line);) count += line == name ? 1 : 0;
        return count;
    }

    /// Starts it and waits until the lab knows it and all three plans have been collected by.
    void startEnrolled() {
        start({"/t"});
        ASSERT_TRUE(eventually([&] { return timesRun("S2") >= 1 && LastWord(database) != "unknown"; })) << log();
    }
    bool serves(const std::string& id) const { return text(u"\\Monitoring", u"RequestID") == id; }
    /// The list is through, the notice at its end too.
    bool idle() const {
        return serves("NONE") && text(u"\\Monitoring", u"RequestAvailable") == "NO" &&
               !fs::exists(monitoring / "conf" / "download" / "RequestList.txt");
    }

    std::optional<lab::LabServer> server;
    fs::path slaves = monitoring / "conf" / "slaves";
    fs::path runs = folder / "runs.txt";
};

TEST(Requests, APushedPlanTakesOverWhileACollectionRunsAndNothingIsLost) {
    ServedAgent agent;
    agent.writePlan(ServedAgent::Plan("WorkFlows", "slow.sh", "Slow"));
    agent.start({"/t"});
    const auto collecting = [&] { return fs::exists(agent.data) && !fs::is_empty(agent.data); };
    ASSERT_TRUE(InstalledAgent::eventually([&] { return collecting() && LastWord(agent.database) == ""; }))
        << agent.log();
    ASSERT_NE(agent.pushPlan("K7", ServedAgent::Plan("WorkFlows", "quick.sh", "New")), "failed");
    const auto planHolds = [&](const char* directory, std::u16string_view name) {
        const std::string plan = TestAgent::Read(agent.monitoring / "conf" / directory / "queryconf.txt");
        return plan.find(Utf16LittleEndianBytes(name)) != std::string::npos;
    };
    ASSERT_TRUE(InstalledAgent::eventually([&] { return planHolds("", u"New"); })) << agent.log();
    EXPECT_EQ(agent.log().find("reloaded and scheduled"), std::string::npos) << "it waits for the collection";
    TestAgent::Write(agent.folder / "go", "");
    ASSERT_TRUE(InstalledAgent::eventually([&] {
        return agent.log().find("Query conf reloaded and scheduled successfully") != std::string::npos;
    })) << agent.log();
    EXPECT_TRUE(InstalledAgent::eventually([&] { return agent.timesRun("New") == 1; }));
    EXPECT_TRUE(InstalledAgent::eventually([&] { return agent.states() == "answered "; })) << agent.states();
    EXPECT_EQ(agent.timesRun("Slow"), 1);
    EXPECT_TRUE(planHolds("backup", u"Slow"));
    // Own plan, S1 and S2 before the change; new plan, S1 and S2 after it.
    std::vector<std::string> expected;
    for (const char* name : {"New", "S1", "S1", "S2", "S2", "Slow"})
        expected.push_back(R"({ "Name": ")" + std::string(name) + R"(" })");
    InstalledAgent::eventually([&] { return AcceptedTexts(agent.database).size() >= 6; });
    EXPECT_EQ(AcceptedTexts(agent.database), expected);
}

TEST(Requests, AMasterAgentGetsASlavesPlanAndLosesASlave) {
    ServedAgent agent;
    agent.startEnrolled();
    agent.pushPlan("S1", ServedAgent::Plan("WorkFlows_S1", "quick.sh", "S1new"), "--no-flag");
    agent.pushPlan("S1", R"({ "WorkFlows_S1": [ { "interval": )", "--force --no-flag");
    agent.request("--type DELETE_DEVICE --set DEVICE_NAME=k7 --no-flag");
    agent.request("--type DELETE_DEVICE --set DEVICE_NAME=S2");
    EXPECT_TRUE(InstalledAgent::eventually([&] { return !fs::exists(agent.slaves / "S2"); })) << agent.log();
    EXPECT_TRUE(InstalledAgent::eventually([&] { return agent.timesRun("S1new") >= 1; })) << agent.log();
    EXPECT_TRUE(InstalledAgent::eventually([&] { return agent.states() == "answered answered done done "; }))
        << agent.states();
    EXPECT_EQ(agent.timesRun("S1"), 1) << "only before the change";
    EXPECT_GT(agent.timesRun("S2"), 1) << "a lost slave's workflows run until the restart";
    EXPECT_TRUE(fs::exists(agent.monitoring / "conf" / "queryconf.txt")) << "the master's own plan stays";
    EXPECT_TRUE(fs::exists(agent.monitoring / "conf" / "download" / "queryconf.txt.refused"));
    agent.kill();
    const int before = agent.timesRun("S2"), newBefore = agent.timesRun("S1new");
    agent.start({"/t"});
    EXPECT_TRUE(InstalledAgent::eventually([&] { return agent.timesRun("S1new") > newBefore; })) << agent.log();
    InstalledAgent::pause(200);  // S2 would come next
    EXPECT_EQ(agent.timesRun("S2"), before);
}

TEST(Requests, AServerThatGoesAwayInTheMiddleOfAListCostsNothing) {
    ServedAgent agent;
    agent.startEnrolled();
    ASSERT_TRUE(agent.kvlab("fault set --servlet conf --delay 60000"));
    const std::string hanging = agent.pushPlan("K7", ServedAgent::Plan("WorkFlows", "quick.sh", "New"), "--no-flag");
    agent.request("--type DELETE_DEVICE --set DEVICE_NAME=S2");
    ASSERT_TRUE(InstalledAgent::eventually([&] { return agent.serves(hanging); })) << agent.log();
    const int port = agent.server->port();
    agent.server.reset();
    EXPECT_TRUE(InstalledAgent::eventually([&] { return !fs::exists(agent.slaves / "S2") && agent.idle(); }))
        << agent.log();
    EXPECT_TRUE(agent.running());
    EXPECT_TRUE(agent.kvlab("fault clear"));  // the download may not even have reached it
    agent.startServer(port);
    agent.request("--type NOTHING_KNOWN");
    EXPECT_TRUE(InstalledAgent::eventually([&] { return agent.timesRun("New") == 1; })) << agent.log();
}

}  // namespace
}  // namespace kv::test
