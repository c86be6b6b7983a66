// The real program and a real server: enrolment, collection, and two agents beside each other.
#include <gtest/gtest.h>
#include <set>

#include "foundation/file_utils.h"
#include "lab/server/server.h"
#include "platform/utf.h"
#include "tests/end_to_end/installed_agent.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* onePlan =
    R"({ "WorkFlows": [ { "wfname": "w", "interval": 1, "recordSetName": [)"
    R"({ "script": "one.sh", "Name": "One", "params": "", "response_needed": "true" },)"
    R"({ "script": "one.sh", "Name": "Two", "params": "", "response_needed": "true" } ] } ] })";
constexpr const char* oneScript = R"(printf '{ "AGENTKEY": "%s", "%s": [ { "Value": "caf\303\251" } ] }' "$1" "$2")";

std::set<fs::path> RecordFiles(const InstalledAgent& agent) {
    std::set<fs::path> files;
    if (!fs::exists(agent.data)) return files;
    for (const auto& entry : fs::directory_iterator(agent.data)) {
        if (entry.path().extension() == ".txt") files.insert(entry.path());
    }
    return files;
}

/// It has the key of an earlier run, and no server.
struct EnrolledAgent : InstalledAgent {
    EnrolledAgent() {
        SetText(u"\\Monitoring", u"MonitoringAgentKey", u"K7");
        WritePlan(onePlan);
        WriteScript("one.sh", oneScript);
    }
};

TEST(AgentRun, EnrolsAndCollectsByThePlan) {
    InstalledAgent agent;
    lab::ServerOptions options;
    options.database = agent.database;
    MakeCertificate(agent.folder, options.certificate, options.privateKey);
    const lab::LabServer server(options);
    agent.SetServer(server.port(), u"HTTPS");
    agent.WritePlan(onePlan);
    agent.WriteScript("one.sh", oneScript);
    agent.Start({"/t"});
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return RecordFiles(agent).size() == 2; })) << agent.ReadLog();
    EXPECT_EQ(agent.ReadSetting(u"\\Monitoring", u"MonitoringAgentKey"), "LAB1");
    EXPECT_EQ(agent.ReadSetting(u"", u"EnableSendAgentStatus"), "yes");
    EXPECT_EQ(TestAgent::Read(agent.data / "Agent_LAB1_2.txt"),
              Utf16LittleEndianBytes(u"{ \"AGENTKEY\": \"LAB1\", \"One\": [ { \"Value\": \"caf\u00e9\" } ] }"));
    const auto status = [&](const char* option) {
        return RunShell("KVAGENT_STATE_DIR='" + agent.state.string() + "' '" KV_CONTROL_PROGRAM "' status " + option);
    };
    EXPECT_TRUE(InstalledAgent::Eventually([&] {
        return status("").output.find("): registered") != std::string::npos;
    })) << status("").output;
    EXPECT_EQ(status("--plugin").output.find("KVAGENT OK - LAB1 at https://"), 0U) << status("--plugin").output;
    agent.Kill();
    EXPECT_EQ(status("--plugin").exitCode, 2);
}

TEST(AgentRun, WaitsForAnotherOneAndTakesOverAsThingsAreThen) {
    InstalledAgent second;  // ends first
    EnrolledAgent first;    // both have its registry
    first.Start({"/t"});
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return !RecordFiles(first).empty(); })) << first.ReadLog();
    const fs::path lock = first.monitoring / "bin" / "agent.lock";
    const fs::path log = first.monitoring / "logs" / "agent.log";
    const std::string holder = TestAgent::Read(lock);
    const auto logged = [&](const std::string& words) { return first.ReadLog().find(words) != std::string::npos; };
    fs::remove_all(first.monitoring / "bin");
    second.program = KV_HASTY_AGENT_PROGRAM;  // looks thirty times a second
    second.Start({"/t"});
    EXPECT_TRUE(InstalledAgent::Eventually([&] {
        return logged("The agent of process " + holder.substr(0, holder.find(' ')) + " works in ");
    })) << first.ReadLog();

    fs::remove_all(first.monitoring / "bin");  // in which the second one stands by now
    const fs::path rotated = first.monitoring / "logs" / "agent1.log";
    fs::rename(log, rotated);
    lab::ServerOptions options;
    options.database = first.database;
    const lab::LabServer server(options);
    first.SetServer(server.port(), u"http");
    InstalledAgent::Pause(200);
    EXPECT_FALSE(fs::exists(lock)) << "the first one has the lock without file and directory, too";
    const std::string before = TestAgent::Read(rotated);
    first.Kill();
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return logged("Registered with agent key"); })) << first.ReadLog();
    EXPECT_EQ(LastStatus(first.database), "") << "at the server that was set meanwhile";
    EXPECT_EQ(TestAgent::Read(rotated), before);
    EXPECT_NE(before.find("Unable to locate the directory"), before.npos);
    EXPECT_NE(TestAgent::Read(lock), "");
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return !RecordFiles(first).empty(); })) << first.ReadLog();
    for (const char* words : {"That agent has ended. This one begins its work", "sleeping for 1 minute before"})
        EXPECT_TRUE(InstalledAgent::Eventually([&] { return logged(words); })) << words << first.ReadLog();
    second.Kill();
}

}  // namespace
}  // namespace kv::test
