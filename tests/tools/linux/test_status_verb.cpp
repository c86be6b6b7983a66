// kvagentctl status over the state that an agent leaves, whatever of it is there.
#include <fstream>
#include <regex>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/health_file.h"
#include "foundation/time_utils.h"
#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {
namespace {

using ::testing::AllOf;
using ::testing::StartsWith;
using namespace std::chrono_literals;

class StatusVerb : public AgentToolTest {
  protected:
    static void Set(std::u16string_view key, std::u16string_view name, std::u16string_view text,
                    platform::RegistryType type = platform::RegistryType::text) {
        writeValue(platform::RootKey::localMachine, key, name, text, type);
    }

    /// An agent that has enrolled and uploads, which this process stands for.
    void Install() {
        prctl(PR_SET_NAME, "MonitoringAgent");
        fs::remove_all(monitoring);
        fs::create_directories(bin / "zipdata");
        fs::create_directories(monitoring / "logs");
        Run({"setup", "--server", "https://cs:8443", "--ip", "192.0.2.1", "--customer", "c", "--office", "o"});
        Set(monitoringKeyPath, u"MonitoringAgentKey", u"LAB1");
        SetInstallDirectory();
        Write(plan,
              R"({ "WorkFlows": [ { "interval": 1, "recordSetName": [ {}, {} ] } ],
                  "disabled": [ { "interval": 1, "recordSetName": [] } ] })");
        health = HealthSnapshot();
        health.version = "0.0.9";
        health.processId = getpid();
        health.lastAddress = "cs:8443";
        health.lastUploadTime = health.registrationTime = health.lastFailureTime = GetNowSeconds() - 180;
        health.registration = "registered";
        health.lastFailure = "refused | twice";
        health.counts = {{"recordsWritten", 7}, {"recordsLost", 2}};
        health.directory = (bin / "").string();
        WriteHealth();
    }

    void WriteHealth() const { EXPECT_EQ(WriteHealthFile(platform::WideFromUtf8(status.string()), health), 0U); }

    /// Sending fails: how many seconds ago it did so first, and last.
    void FailSending(int first, int last, bool isTrustFailure = false) {
        health.sendingFailsSince = GetNowSeconds() - first;
        health.sendingFailureTime = GetNowSeconds() - last;
        health.isTrustFailure = isTrustFailure;
        health.sendingFailure = "cs: refused";
        WriteHealth();
    }

    /// The number of a process that has ended, and that its parent, this one, does not ask for.
    static pid_t DeadChild() {
        const pid_t child = fork();
        if (child == 0) _exit(0);
        siginfo_t unused{};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(child), &unused, WEXITED | WNOWAIT), 0);
        return child;
    }

    static fs::file_time_type TimeBefore(std::chrono::minutes age) { return fs::file_time_type::clock::now() - age; }

    void AddWaiting(const char* name, std::chrono::minutes age) const {
        Write(bin / name, "1234");
        fs::last_write_time(bin / name, TimeBefore(age));
    }
    void AddZip(std::chrono::minutes age) const { AddWaiting("zipdata/a.zip", age); }

    /// As a working agent does.
    void Lock(platform::DirectoryLock& lock) const {
        const std::u16string name = platform::WideFromUtf8(bin.string());
        EXPECT_EQ(platform::Files().LockDirectory(name, u"", u"", lock), platform::error::success);
    }

    const fs::path monitoring = folder / "monitoring";
    const fs::path bin = monitoring / "bin";
    const fs::path status = monitoring / "logs/status.json";
    const fs::path plan = monitoring / "conf/queryconf.txt";
    const fs::path refusedPlan = monitoring / "conf/download/queryconf.txt.refused";
    HealthSnapshot health;
};

TEST_F(StatusVerb, TellsPeopleAndPrograms) {
    Install();
    Write(bin / "data/a.txt", "12");
    const Outcome outcome = Run({"status"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.errors;
    for (const char* line :
         {"version:      0.0.9; kvagentctl ", "agent:        runs, process ", "key:          LAB1\n",
          "server:       https://cs:8443\n", "(3 minutes ago) at cs:8443\n", "(3 minutes ago): registered\n",
          "collection:   on\n", "(3 minutes ago): refused | twice\n",
          ": 2 workflows, 2 records, with those of disabled\n",
          "records:      1 record waits, 2 bytes, the oldest for ", "zips:         no zip waits\n", "disk room:    "})
        EXPECT_THAT(outcome.output, HasSubstr(line));
    EXPECT_EQ(outcome.output.find("attention"), std::string::npos);
    EXPECT_THAT(Run({"status", "--json"}).output, AllOf(HasSubstr("\"isRunning\": true"), HasSubstr("\"bytes\": 2,")));
    health.processId = 0;
    WriteHealth();
    EXPECT_THAT(Run({"status"}).output, AllOf(HasSubstr("does not run, stopped "), HasSubstr("attention:")));
}

TEST_F(StatusVerb, EndsAsAMonitoringPlugin) {
    std::ofstream log;
    platform::DirectoryLock lock;
    const struct {
        const char* title;
        std::function<void()> change;
        int exitCode;
        std::string text;
        Words options = {};
    } rows[] = {
        {"fine", [] {}, 0, "LAB1 at https://cs:8443, no zip waits, last upload 3 minutes ago | zips=0;"},
        {"a zip for 40 minutes", [&] { AddZip(40min); }, 1, "the oldest of 1 zip has waited for 40"},
        {"which is fine", [&] { AddZip(40min); }, 0, "", {"--warning-age", "60"}},
        {"a zip for 7 hours", [&] { AddZip(420min); }, 2, "the oldest of 1 zip has waited for 7 h"},
        {"a zip of tomorrow", [&] { AddZip(-24h); }, 1, "the zips are of a time in the future"},
        {"a record for 36 minutes", [&] { AddWaiting("data/a.txt", 36min); }, 1,
         "1 record has waited for 36 minutes to"},
        {"and for 34", [&] { AddWaiting("data/a.txt", 34min); }, 0, ""},
        {"stopped", [&] { health.isCollecting = false, WriteHealth(); }, 2, "collection is stopped since "},
        {"ended", [&] { health.processId = 1, WriteHealth(); }, 2, "the agent does not run: pro"},
        {"frozen", [&] { health.writeTime -= 960, WriteHealth(); }, 1, "the agent has told nothing of itself since "},
        {"never ran", [&] { fs::remove(status); }, 2, "does not run, and has not run here"},
        {"copied", [&] { health.directory = "/x", WriteHealth(); }, 2, "status.json is a copy from the agent of /x"},
        {"a link to it", [&] { health.directory = (monitoring / "logs/../bin").string(), WriteHealth(); }, 0, ""},
        {"dead, and not asked for", [&] { health.processId = DeadChild(), WriteHealth(); }, 2, "ended without a stop"},
        {"another certificate", [&] { FailSending(1, 1, true); }, 2,
         "nothing reaches the server, last contact never: cs: refused"},
        {"the right one since", [&] { health.lastContactTime = GetNowSeconds(), FailSending(1, 1, true); }, 0, ""},
        {"no upload for ten minutes", [&] { FailSending(700, 5); }, 1, "sending fails since 2"},
        {"one lost packet", [&] { FailSending(700, 700); }, 0, ""},
        {"no upload for five minutes", [&] { FailSending(300, 5); }, 0, ""},
        {"ended in the console", [&] { health.isInConsole = true, health.processId = 1, WriteHealth(); }, 2,
         "process 1 in the console (/t) was ended after "},
        {"runs untold", [&] { fs::remove(status), log.open(monitoring / "logs/agent.log"); }, 3,
         "status.json is missing, although the agent runs"},
        {"its folder is locked", [&] { fs::remove_all(monitoring / "logs"), Lock(lock); }, 3,
         "status.json is missing, although the agent runs"},
        {"a file for the zips", [&] { fs::remove(bin / "zipdata"), Write(bin / "zipdata", ""); }, 3,
         "zipdata cannot be looked at: it is not a directory"},
        {"a refused plan", [&] { Write(refusedPlan, ""); }, 0, ""},
        {"a newer one", [&] { Write(refusedPlan, ""), fs::last_write_time(plan, TimeBefore(2min)); }, 1,
         "a newer plan was refused"},
        {"no plan", [&] { fs::remove(plan); }, 1, "/queryconf.txt: it does not exist; the agent goes on with"},
        {"a plan that runs in part",
         [&] { Write(plan, R"({ "WorkFlows": [ 5, 6 ], "off": [ { "interval": 1, "recordSetName": [] } ] })"); }, 1,
         "1 of 3 workflows run: kvagentctl check says why"},
        {"half a plan", [&] { Write(plan, "{ \"WorkFlows\": ["); }, 1, "in JSON: unexpected end"},
        {"damage", [&] { Write(status, "{"); }, 3, "status.json"},
        {"no customer",
         [&] {
             Registry({"delete", agentKey, "CustomerName"});
         },
         2, "CustomerName is missing"},
        {"a number", [] { Set(agentKeyPath, u"CustomerName", u"5", platform::RegistryType::dword); }, 2,
         "CustomerName has to be a text"},
        {"no directory", [&] { fs::remove_all(bin); }, 2, "bin/ does not exist, so nothing is collected"},
        {"began without a plan", [&] { health.obstacle = "no plan", WriteHealth(); }, 2, "collected: no plan |"},
        {"a lost record", [&] { health.lostRecordTime = GetNowSeconds() - 3000, WriteHealth(); }, 1,
         "2 records lost since the start of the agent, the last at "},
        {"two hours ago", [&] { health.lostRecordTime = GetNowSeconds() - 7200, WriteHealth(); }, 0, ""},
        {"no install directory", [] { Set(agentKeyPath, u"KVAgentInstallDir", u"/no/such/"); }, 2,
         "KVAgentInstallDir names a directory that does not exist"},
        {"no key", [] { Set(monitoringKeyPath, u"MonitoringAgentKey", u"NULL"); }, 1,
         "MonitoringAgentKey is missing, al"},
        {"full", [] {}, 1, "the disk has room for ", {"--warning-free", "1000000000"}},
    };
    constexpr const char* states[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
    static const std::regex line(
        "KVAGENT [A-Z]+ - [^|\n]+( \\|( [A-Za-z_]+=[0-9]+[sBc]?;([0-9]+:?)?;([0-9]+:?)?;0)+)?\n");
    for (const auto& [title, change, exitCode, text, options] : rows) {
        SCOPED_TRACE(title);
        Install();
        change();
        const Outcome outcome = Run(Line("status", Line("--plugin", options)));
        log.close();
        if (lock.directory != 0) platform::Files().CloseHandle(std::exchange(lock.directory, 0));
        EXPECT_EQ(outcome.exitCode, exitCode);
        EXPECT_THAT(outcome.output, StartsWith(std::string("KVAGENT ") + states[exitCode] + " - "));
        EXPECT_THAT(outcome.output, HasSubstr(text));
        EXPECT_TRUE(std::regex_match(outcome.output, line)) << outcome.output;
    }
    EXPECT_EQ(Run({"status", "--warning-age", "5"}).exitCode, 2);
    for (const Words& wrong :
         {Words{"--json"}, {"--warning-age", "999"}, {"--warning-free", "x"}, {"--warning-age"}, {"--port", "10"}})
        Expect(Line("status", Line("--plugin", wrong)), 3, "KVAGENT UNKNOWN - --");
}

TEST_F(StatusVerb, NamesWhatIsNotThereAndMakesNothing) {
    EXPECT_EQ(Run({"status"}).exitCode, 3) << "nothing is installed";
    EXPECT_TRUE(FilesIn(folder / "state").empty());
    fs::remove_all(folder / "state");
    const Outcome outcome = Run({"status"});
    EXPECT_EQ(outcome.exitCode, 3);
    for (const char* verb : {"log", "collect", "pin"}) EXPECT_EQ(Run({verb}).exitCode, 3) << verb;
    EXPECT_EQ(Run({"setup", "--port", "1"}).exitCode, 3);
    EXPECT_THAT(outcome.output, HasSubstr("settings:  not known: " + Utf8(folder / "state") + " does not exist"));
    EXPECT_THAT(Run({"status", "--json"}).output, HasSubstr("\"isRunning\": null"));
    EXPECT_THAT(Run({"status", "--plugin"}).output,
                StartsWith("KVAGENT UNKNOWN - settings: " + Utf8(folder / "state") + " does not exist"));
    EXPECT_FALSE(fs::exists(folder / "state"));
}

}  // namespace
}  // namespace kv::test
