// The agent as a service of a real systemd.
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>

#include "tests/end_to_end/boxed_system.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;

const std::string unit = "corvinel-monitoring-agent.service";
const std::string unitFile = "/etc/systemd/system/" + unit;
const std::string enabledLink = "/etc/systemd/system/multi-user.target.wants/" + unit;

/// An agent that is not installed yet, and a lab's server, in a box.
class Service : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!box.isBooted() && std::getenv("KV_NEEDS_BOX")) FAIL() << box.ReadLog();
        if (!box.isBooted()) GTEST_SKIP() << "systemd cannot run here: " << box.ReadLog();
        fs::copy_file(KV_LAB_PROGRAM, agent.folder / "kvlab");
        UseProgram(KV_HASTY_AGENT_PROGRAM);
        agent.SetServer(8080, u"http");
        agent.SetNumber(u"\\Monitoring", u"writeInterval", 1);
        agent.SetText(u"\\Monitoring", u"RequestAvailable", u"NO");  // it fetches nothing before it is told to
        agent.WritePlan(R"({ "WorkFlows": [ { "wfname": "w", "interval": 60, "recordSetName": [)"
                        R"({ "script": "one.sh", "params": "", "response_needed": "true", "Name": "One" } ] } ] })");
        agent.WriteScript("one.sh", R"(printf "$2")");
        // At the power-off, the server stops after the agent.
        RunInBox("mkdir " + unitFile + ".d; printf '[Unit]\\nAfter=kvlab.service\\n[Service]\\nStandardError=append:" +
                 errors.string() + "\\n' >" + unitFile + ".d/lab.conf\n" + "systemd-run -q --unit=kvlab " +
                 (agent.folder / "kvlab").string() + " serve --port 8080 --database " + agent.database + "\n" +
                 "timeout 60 bash -c 'until (: </dev/tcp/127.0.0.1/8080) 2>/dev/null; do sleep 0.02; done'");
    }

    /// Expects no errors, also from a sanitizer.
    void TearDown() override { EXPECT_EQ(TestAgent::Read(errors), ""); }

    /// Replaces the program that the service's unit starts.
    void UseProgram(const char* program) const {
        fs::copy_file(program, agentProgram, fs::copy_options::overwrite_existing);
    }

    /// Runs commands in the box and expects their exit code.
    std::string RunInBox(const std::string& commands, int exitCode = 0) const {
        const ShellOutcome outcome = box.Run(commands);
        EXPECT_EQ(outcome.exitCode, exitCode) << commands << '\n' << outcome.output << agent.ReadLog();
        return outcome.output;
    }

    std::string Systemctl(const std::string& verb) const { return RunInBox("systemctl " + verb + " " + unit); }

    void StartDependency() const { RunInBox("systemd-run -q --unit=corvinel-kestrova-agent sleep infinity"); }

    /// Installs the service after the one that it depends on.
    void Install() const {
        StartDependency();
        RunInBox(agentProgram.string() + " /i", 1);
    }
    /// Also starts it and waits until the server knows the agent.
    void InstallAndStart() const {
        Install();
        Systemctl("start");
        ASSERT_TRUE(InstalledAgent::Eventually([&] { return LastStatus().empty(); })) << agent.ReadLog();
    }

    std::string ShowProperty(const std::string& property) const { return Systemctl("show --value -p " + property); }

    /// Waits for a property to have a value.
    testing::AssertionResult Becomes(const std::string& property, const std::string& value) const {
        if (InstalledAgent::Eventually([&] { return ShowProperty(property) == value; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << property << " is " << ShowProperty(property) << '\n' << agent.ReadLog();
    }

    std::string LastStatus() const { return test::LastStatus(agent.database); }
    bool Logged(const char* text) const { return agent.ReadLog().find(text) != std::string::npos; }

    InstalledAgent agent;
    BoxedSystem box{agent.folder};
    fs::path errors = agent.folder / "errors.txt";
    fs::path agentProgram = agent.monitoring / "bin" / "MonitoringAgent";
};

TEST_F(Service, WorksFromItsInstallationToItsRemoval) {
    UseProgram(KV_AGENT_PROGRAM);
    RunInBox(agentProgram.string() + " /i", 1);
    EXPECT_EQ(ShowProperty("UnitFileState"), "enabled");
    EXPECT_EQ(ShowProperty("ActiveState"), "inactive");
    EXPECT_NE(box.Run("systemctl start " + unit).exitCode, 0) << "the service that it depends on is not there";
    StartDependency();
    Systemctl("start");
    EXPECT_EQ(ShowProperty("ActiveState"), "active");
    const std::string running = "LAB1 at 127.0.0.1:8080, no upload yet";
    EXPECT_TRUE(Becomes("StatusText", running));
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return fs::exists(agent.data / "Agent_LAB1_2.txt"); }))
        << agent.ReadLog();

    Systemctl("kill --kill-whom=main -s USR1");
    EXPECT_TRUE(Becomes("StatusText", "Paused: collection goes on"));
    Systemctl("kill --kill-whom=main -s USR2");
    EXPECT_TRUE(Becomes("StatusText", running));

    RunInBox(agentProgram.string() + " /i", 1);
    EXPECT_TRUE(Logged("Create Service failure, error code = 1073")) << agent.ReadLog();
    EXPECT_EQ(ShowProperty("UnitFileState"), "enabled");
    RunInBox(agentProgram.string() + " /u", 1);
    RunInBox("test ! -e " + unitFile + " -a ! -L " + enabledLink);
    EXPECT_EQ(ShowProperty("ActiveState"), "active");

    Systemctl("stop");
    EXPECT_EQ(ShowProperty("ActiveState"), "inactive");
    EXPECT_EQ(LastStatus(), "AGENT_DOWN");
    EXPECT_TRUE(Logged("LOGGING STOPPED"));
}

TEST_F(Service, WaitsForAnAgentInTheConsoleAndIsSilentMeanwhile) {
    Install();
    RunInBox("systemd-run -q --unit=console --setenv=KVAGENT_STATE_DIR=" + agent.state.string() + " " +
             agentProgram.string() + " /t");
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return LastStatus().empty(); })) << agent.ReadLog();
    const std::string waits = "waits: the agent of process " + RunInBox("systemctl show --value -p MainPID console") +
                              " works in the same directory";
    for (const char* verb : {"stop", "status"}) {
        Systemctl("start");
        EXPECT_TRUE(Becomes("StatusText", waits));
        Systemctl(verb);
        EXPECT_EQ(LastStatus(), "") << "the other one works";
    }
    RunInBox("systemctl kill -s KILL console");
    EXPECT_TRUE(Becomes("StatusText", "LAB1 at 127.0.0.1:8080, no upload yet"));
    Systemctl("stop");
    EXPECT_EQ(LastStatus(), "AGENT_DOWN");
    EXPECT_THAT(TestAgent::Read(errors), testing::StartsWith("MonitoringAgent: the agent of process "));
    fs::remove(errors);
}

TEST_F(Service, TellsTheServerOfAPowerOff) {
    InstallAndStart();
    RunInBox("systemctl poweroff");
    EXPECT_TRUE(InstalledAgent::Eventually([&] { return !box.IsRunning(); }, 60000)) << box.ReadLog();
    EXPECT_EQ(LastStatus(), "DEVICE_DOWN") << agent.ReadLog();
}

TEST_F(Service, StopsACollectionWithItsScripts) {
    agent.WriteScript("one.sh", "touch " + (agent.folder / "begun").string() + "; sleep 1000");
    InstallAndStart();
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return fs::exists(agent.folder / "begun"); })) << agent.ReadLog();
    Systemctl("stop");
    RunInBox("pgrep -f 'one.sh|sleep 1000'", 1);
    EXPECT_EQ(LastStatus(), "AGENT_DOWN");
}

std::set<std::string> NamesIn(const std::string& answer) {
    static const std::regex name("\"Name\": \"([^\"]*)\"");
    return {std::sregex_token_iterator(answer.begin(), answer.end(), name, 1), {}};
}

std::set<std::string> WordsIn(const std::string& text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

TEST_F(Service, ServesRequestsThatActOnTheComputer) {
    RunInBox(
        "write() { printf '[Unit]\\n'\"$2\"'[Service]\\n'\"$3\" >/etc/systemd/system/$1.service; }\n"
        "write hub '' 'ExecStart=sleep infinity\\n'\n"
        "write spoke 'Requires=hub.service\\nAfter=hub.service\\n' 'ExecStart=sleep infinity\\n'\n"
        "write unready '' 'Type=notify\\nExecStart=sleep infinity\\nTimeoutStartSec=1\\n'\n"
        "printf '[Timer]\\nOnCalendar=03:10\\nUnit=hub.service\\n' >/etc/systemd/system/daily.timer\n"
        "systemctl daemon-reload; systemctl start spoke daily.timer");
    InstallAndStart();

    const char* query = "TEST_MONITOR --set \"WMIQUERY=SELECT State FROM Win32_Service WHERE Name = 'spoke'\"";
    const struct {
        const char* title;
        const char* request;
        const char* answer;
    } cases[] = {
        {"a query", query, R"("M": [ { "State": "Running" } ])"},
        {"a service on which another depends", "STOP_SERVICE --set SERVICE_NAME=hub", R"([ { "M": "STOPPED" } ])"},
        {"the dependent is stopped too", query, R"("M": [ { "State": "Stopped" } ])"},
        {"a service that is stopped already", "STOP_SERVICE --set SERVICE_NAME=hub",
         R"("ERRORMSG": "Unable to stop Service")"},
        {"a service that starts", "START_SERVICE --set SERVICE_NAME=hub", R"([ { "M": "STARTED" } ])"},
        {"a service that is never ready", "START_SERVICE --set SERVICE_NAME=unready", R"([ { "M": "FAILED" } ])"},
        {"an unknown service", "START_SERVICE --set SERVICE_NAME=nothing", "Unable to start Service"},
        {"timers", "TEST_MONITOR --set 'WMIQUERY=SELECT Name FROM Win32_ScheduledJob WHERE Name LIKE \"%.timer\"'",
         "daily.timer"},
        {"what starts", "TEST_MONITOR --set 'WMIQUERY=SELECT Name FROM Win32_StartupCommand'", "corvinel"},
    };
    const std::string command =
        "request add --no-flag --agent LAB1 --set MONITOR_NAME=M --set RESPONSE_NEEDED=YES --type ";
    std::vector<std::string> ids;
    for (const auto& each : cases) ids.push_back(agent.RunKvlab(command + each.request).value_or("failed"));
    agent.SetText(u"\\Monitoring", u"RequestAvailable", u"YES");
    for (std::size_t at = 0; at < ids.size(); ++at) {
        SCOPED_TRACE(cases[at].title);
        const auto answer = [&] { return agent.RunKvlab("request answers --id " + ids[at] + " 2>/dev/null"); };
        ASSERT_TRUE(InstalledAgent::Eventually([&] { return answer().has_value(); })) << agent.ReadLog();
        EXPECT_THAT(*answer(), testing::HasSubstr(cases[at].answer));
    }
    EXPECT_EQ(RunInBox("systemctl is-active hub spoke"), "active\ninactive");
    const auto names = [&](std::size_t at) { return NamesIn(*agent.RunKvlab("request answers --id " + ids[at])); };
    EXPECT_EQ(names(ids.size() - 2), WordsIn(RunInBox("systemctl list-timers --no-legend | awk '{print $(NF - 1)}'")));
    // Instances are listed as their template.
    EXPECT_THAT(WordsIn(RunInBox("systemctl list-unit-files --no-legend --type=service --state=enabled | "
                                 "sed '/@/d; s/\\.service .*//'")),
                testing::IsSubsetOf(names(ids.size() - 1)));
}

}  // namespace
}  // namespace kv::test
