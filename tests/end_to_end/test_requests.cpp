// Requests and new plans, from the kvlab command that orders them to the agent that carries them out.
#include <fstream>
#include <gtest/gtest.h>
#include <optional>

#include "foundation/file_utils.h"
#include "lab/server/server.h"
#include "lab/store/store.h"
#include "tests/end_to_end/installed_agent.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

/// The master agent K7 and its server. Its scripts note their runs in a file.
struct ServedAgent : InstalledAgent {
    ServedAgent() {
        program = KV_HASTY_AGENT_PROGRAM;
        lab::ServerOptions options;
        options.database = database;
        server.emplace(options);
        SetServer(server->port(), u"http");
        SetText(u"\\Monitoring", u"MonitoringAgentKey", u"K7");
        SetText(u"\\Monitoring", u"MasterAgent", u"YES");
        SetText(u"\\Monitoring", u"RequestAvailable", u"NO");  // it fetches nothing before it is told to
        SetNumber(u"\\Monitoring", u"writeInterval", 1);
        const std::string record = R"(printf '{ "Name": "%s" }' "$2"; echo "$2" >> )" + runs.string();
        WriteScript("quick.sh", record);
        WriteScript("slow.sh", "until [ -e " + (folder / "go").string() + " ]; do sleep 0.02; done; " + record);
        WritePlan(OnePlan("WorkFlows", "quick.sh", "Own"));
        for (const char* slave : {"S1", "S2"}) {
            fs::create_directories(slaves / slave);
            TestAgent::Write(slaves / slave / "queryconf.txt",
                             OnePlan("WorkFlows_" + std::string(slave), "quick.sh", slave));
        }
    }

    static std::string OnePlan(const std::string& member, const std::string& script, const std::string& name) {
        return R"({ ")" + member + R"(": [ { "wfname": "w", "interval": 60, "recordSetName": [ { "script": ")" +
               script + R"(", "Name": ")" + name + R"(", "params": "", "response_needed": "true" } ] } ] })";
    }

    /// Orders a new plan for an agent; the id of the request.
    std::string PushPlan(const std::string& key, const std::string& plan, const std::string& options = "") const {
        TestAgent::Write(folder / "new.json", plan);
        return RunKvlab("conf push --agent K7 " + options + " " + key + " " + (folder / "new.json").string())
            .value_or("failed");
    }

    std::string AddRequest(const std::string& options) const {
        return RunKvlab("request add --agent K7 " + options).value_or("failed");
    }

    /// The states of all requests in order, with a blank after each.
    std::string RequestStates() const {
        std::string text;
        const lab::Store store = lab::OpenStore(database);
        lab::Statement rows(*store.database, "SELECT state FROM request ORDER BY number");
        while (rows.Step()) text += rows.text(0) + " ";
        return text;
    }

    int TimesRun(const std::string& name) const {
        std::ifstream file(runs);
        int count = 0;
        for (std::string line; std::getline(file, line);) count += line == name ? 1 : 0;
        return count;
    }

    /// Starts it and waits until the lab knows it and all three plans have run.
    void StartEnrolled() {
        Start({"/t"});
        ASSERT_TRUE(Eventually([&] { return TimesRun("S2") >= 1 && LastStatus(database) != "unknown"; })) << ReadLog();
    }
    std::optional<lab::LabServer> server;
    fs::path slaves = monitoring / "conf" / "slaves";
    fs::path runs = folder / "runs.txt";
};

TEST(Requests, ANewPlanTakesOverAfterTheRunningCollection) {
    ServedAgent agent;
    agent.WritePlan(ServedAgent::OnePlan("WorkFlows", "slow.sh", "Slow"));
    agent.Start({"/t"});
    const auto collecting = [&] { return fs::exists(agent.data) && !fs::is_empty(agent.data); };
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return collecting() && LastStatus(agent.database) == ""; }))
        << agent.ReadLog();
    ASSERT_NE(agent.PushPlan("K7", ServedAgent::OnePlan("WorkFlows", "quick.sh", "New")), "failed");
    const auto planHolds = [&](const char* directory, std::u16string_view name) {
        const std::string plan = TestAgent::Read(agent.monitoring / "conf" / directory / "queryconf.txt");
        return plan.find(Utf16LittleEndianBytes(name)) != std::string::npos;
    };
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return planHolds("", u"New"); })) << agent.ReadLog();
    EXPECT_EQ(agent.ReadLog().find("reloaded and scheduled"), std::string::npos) << "the collection still runs";
    TestAgent::Write(agent.folder / "go", "");
    ASSERT_TRUE(InstalledAgent::Eventually([&] {
        return agent.ReadLog().find("Query conf reloaded and scheduled successfully") != std::string::npos;
    })) << agent.ReadLog();
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return agent.TimesRun("New") == 1; }));
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return agent.RequestStates() == "answered "; }))
        << agent.RequestStates();
    EXPECT_EQ(agent.TimesRun("Slow"), 1);
    EXPECT_TRUE(planHolds("backup", u"Slow"));
    // The own plan, S1 and S2 before the change; the new plan, S1 and S2 after it.
    std::vector<std::string> expected;
    for (const char* name : {"New", "S1", "S1", "S2", "S2", "Slow"})
        expected.push_back(R"({ "Name": ")" + std::string(name) + R"(" })");
    InstalledAgent::Eventually([&] { return AcceptedTexts(agent.database).size() >= 6; });
    EXPECT_EQ(AcceptedTexts(agent.database), expected);
}

TEST(Requests, AMasterReplacesASlavesPlanAndDeletesASlave) {
    ServedAgent agent;
    agent.StartEnrolled();
    agent.PushPlan("S1", ServedAgent::OnePlan("WorkFlows_S1", "quick.sh", "S1new"), "--no-flag");
    agent.PushPlan("S1", R"({ "WorkFlows_S1": [ { "interval": )", "--force --no-flag");
    agent.AddRequest("--type DELETE_DEVICE --set DEVICE_NAME=k7 --no-flag");
    agent.AddRequest("--type DELETE_DEVICE --set DEVICE_NAME=S2");
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return !fs::exists(agent.slaves / "S2"); })) << agent.ReadLog();
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return agent.TimesRun("S1new") >= 1; })) << agent.ReadLog();
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return agent.RequestStates() == "answered answered done done "; }))
        << agent.RequestStates();
    EXPECT_EQ(agent.TimesRun("S1"), 1) << "only before the change";
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return agent.TimesRun("S2") > 1; })) << "they run until the restart";
    EXPECT_TRUE(fs::exists(agent.monitoring / "conf" / "queryconf.txt")) << "the master's own plan stays";
    EXPECT_TRUE(fs::exists(agent.monitoring / "conf" / "download" / "queryconf.txt.refused"));
}

}  // namespace
}  // namespace kv::test
