// The real program against a real server: enrolment, collection, and what a kill leaves behind.
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>

#include "foundation/file_utils.h"
#include "jsontext/hash_json.h"
#include "lab/server.h"
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

bool IsCompleteRecord(const std::string& bytes) {
    const HashTablePtr table = MakeHashTable();
    return JSONTextToHash(table.get(), TextFromUtf16LittleEndian(bytes)).ok;
}

/// With a key of an earlier run, and no server.
struct EnrolledAgent : InstalledAgent {
    EnrolledAgent() {
        setText(u"\\Monitoring", u"MonitoringAgentKey", u"K7");
        writePlan(onePlan);
        writeScript("one.sh", oneScript);
    }
};

TEST(AgentRun, EnrolsAndCollectsByThePlan) {
    InstalledAgent agent;
    lab::ServerOptions options;
    options.database = agent.database;
    MakeCertificate(agent.folder, options.certificate, options.privateKey);
    const lab::LabServer server(options);
    agent.setServer(server.port(), u"HTTPS");
    agent.writePlan(onePlan);
    agent.writeScript("one.sh", oneScript);
    agent.start({"/t"});
    ASSERT_TRUE(InstalledAgent::eventually([&] { return RecordFiles(agent).size() == 2; })) << agent.log();
    EXPECT_EQ(agent.text(u"\\Monitoring", u"MonitoringAgentKey"), "LAB1");
    EXPECT_EQ(agent.text(u"", u"EnableSendAgentStatus"), "yes");
    EXPECT_EQ(TestAgent::Read(agent.data / "Agent_LAB1_2.txt"),
              Utf16LittleEndianBytes(u"{ \"AGENTKEY\": \"LAB1\", \"One\": [ { \"Value\": \"caf\u00e9\" } ] }"));
}

TEST(AgentRun, WithNeitherItsFolderNorAServerItRunsOn) {
    EnrolledAgent agent;
    fs::remove(agent.monitoring / "bin");
    agent.start({"/t"});
    EXPECT_TRUE(InstalledAgent::eventually([&] {
        const std::string log = agent.log();
        return log.find("Unable to locate the directory") != log.npos && log.find("sleeping for 1 minute") != log.npos;
    })) << agent.log();
    EXPECT_TRUE(agent.running());
}

TEST(AgentRun, KilledAtRandomMomentsItLosesNoCompleteRecord) {
    EnrolledAgent agent;
    std::mt19937 random(20261124);
    std::uniform_int_distribution<int> moment(1, 120);
    std::map<fs::path, std::string> records;
    for (int round = 0; round < 10; ++round) {
        agent.start({"/t"});
        const std::size_t before = records.size();
        // Half of the rounds are killed while the agent starts, half while it writes.
        if (round % 2 == 1) InstalledAgent::eventually([&] { return RecordFiles(agent).size() > before; });
        InstalledAgent::pause(moment(random));
        agent.kill();
        for (const auto& [path, bytes] : records) ASSERT_EQ(TestAgent::Read(path), bytes) << path;
        for (const fs::path& path : RecordFiles(agent)) {
            const std::string bytes = TestAgent::Read(path);
            EXPECT_TRUE(IsCompleteRecord(bytes)) << path;
            records[path] = bytes;
        }
    }
    EXPECT_GE(records.size(), 5U);
}

}  // namespace
}  // namespace kv::test
