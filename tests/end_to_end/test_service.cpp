// The agent as a service of a real systemd: installed, started, stopped, killed and powered off.
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

#include "foundation/registry_store.h"
#include "tests/end_to_end/boxed_system.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

const std::string unit = "corvinel-monitoring-agent.service";
const std::string unitFile = "/etc/systemd/system/" + unit;
const std::string enabledLink = "/etc/systemd/system/multi-user.target.wants/" + unit;

/// An agent that is not installed yet, in a box with a lab's server on its loopback.
class Service : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!box.booted()) GTEST_SKIP() << "no systemd can be had here: " << box.log();
        fs::copy_file(KV_LAB_PROGRAM, agent.folder / "kvlab");
        useProgram(KV_HASTY_AGENT_PROGRAM);
        agent.setServer(8080, u"http");
        agent.setNumber(u"\\Monitoring", u"writeInterval", 1);
        agent.setText(u"\\Monitoring", u"RequestAvailable", u"NO");  // nothing is fetched before all is queued
        agent.writePlan(R"({ "WorkFlows": [ { "wfname": "w", "interval": 60, "recordSetName": [)"
                        R"({ "script": "one.sh", "params": "", "response_needed": "true", "Name": "One" } ] } ] })");
        agent.writeScript("one.sh", R"(printf "$2")");
        // Until the agent has told it of the power-off, the server goes on.
        inBox("mkdir " + unitFile + ".d; printf '[Unit]\\nAfter=kvlab.service\\n[Service]\\nStandardError=append:" +
              errors.string() + "\\n' >" + unitFile + ".d/lab.conf\n" + "systemd-run -q --unit=kvlab " +
              (agent.folder / "kvlab").string() + " serve --port 8080 --database " + agent.database + "\n" +
              "timeout 60 bash -c 'until (: </dev/tcp/127.0.0.1/8080) 2>/dev/null; do sleep 0.02; done'");
    }

    /// What a sanitizer says is there, too.
    void TearDown() override { EXPECT_EQ(TestAgent::Read(errors), ""); }

    /// What the service's unit starts.
    void useProgram(const char* program) const {
        fs::copy_file(program, agentProgram, fs::copy_options::overwrite_existing);
    }

    /// Runs commands in the box, which have to succeed.
    std::string inBox(const std::string& commands, int exitCode = 0) const {
        const ShellOutcome outcome = box.run(commands);
        EXPECT_EQ(outcome.exitCode, exitCode) << commands << '\n' << outcome.output << agent.log();
        return outcome.output;
    }

    std::string systemctl(const std::string& verb) const { return inBox("systemctl " + verb + " " + unit); }

    void startDependency() const { inBox("systemd-run -q --unit=corvinel-kestrova-agent sleep infinity"); }

    /// Installed, with all that it needs.
    void install() const {
        startDependency();
        inBox(agentProgram.string() + " /i", 1);
    }
    /// And running, known to the server.
    void installAndStart() const {
        install();
        systemctl("start");
        ASSERT_TRUE(InstalledAgent::eventually([&] { return status().empty(); })) << agent.log();
    }

    std::string shown(const std::string& property) const { return systemctl("show --value -p " + property); }

    /// Waits for a property to have a value.
    testing::AssertionResult becomes(const std::string& property, const std::string& value) const {
        if (InstalledAgent::eventually([&] { return shown(property) == value; })) return testing::AssertionSuccess();
        return testing::AssertionFailure() << property << " is " << shown(property) << '\n' << agent.log();
    }

    std::string status() const { return LastWord(agent.database); }
    std::vector<std::string> accepted() const { return AcceptedTexts(agent.database); }
    bool logged(const char* text) const { return agent.log().find(text) != std::string::npos; }

    /// Of the records that wait.
    std::set<int> recordNumbers() const {
        std::set<int> numbers;
        if (!fs::exists(agent.data)) return numbers;
        for (const auto& entry : fs::directory_iterator(agent.data)) {
            const std::string name = entry.path().stem();
            if (entry.path().extension() == ".txt") numbers.insert(std::atoi(name.c_str() + name.rfind('_') + 1));
        }
        return numbers;
    }

    InstalledAgent agent;
    BoxedSystem box{agent.folder};
    fs::path errors = agent.folder / "errors.txt";
    fs::path agentProgram = agent.monitoring / "bin" / "MonitoringAgent";
};

TEST_F(Service, IsInstalledStartedPausedRemovedAndStopped) {
    useProgram(KV_AGENT_PROGRAM);
    inBox(agentProgram.string() + " /i", 1);
    EXPECT_EQ(shown("UnitFileState"), "enabled");
    EXPECT_EQ(shown("ActiveState"), "inactive");
    EXPECT_NE(box.run("systemctl start " + unit).exitCode, 0) << "without the service that it depends on";
    startDependency();
    systemctl("start");
    EXPECT_EQ(shown("ActiveState"), "active");
    const std::string running = shown("StatusText");
    ASSERT_TRUE(InstalledAgent::eventually([&] { return recordNumbers().size() == 1; })) << agent.log();

    systemctl("kill --kill-whom=main -s USR1");
    EXPECT_TRUE(becomes("StatusText", "Paused: collection goes on"));
    systemctl("kill --kill-whom=main -s USR2");
    EXPECT_TRUE(becomes("StatusText", running));

    inBox(agentProgram.string() + " /i", 1);
    EXPECT_TRUE(logged("Create Service failure, error code = 1073")) << agent.log();
    EXPECT_EQ(shown("UnitFileState"), "enabled");
    inBox(agentProgram.string() + " /u", 1);
    inBox("test ! -e " + unitFile + " -a ! -L " + enabledLink);
    EXPECT_EQ(shown("ActiveState"), "active");

    systemctl("stop");
    EXPECT_EQ(shown("ActiveState"), "inactive");
    EXPECT_EQ(status(), "AGENT_DOWN");
    std::uint32_t number = 0;
    GetMALastCreatedJSONNum(number);
    EXPECT_EQ(number, *recordNumbers().rbegin());
    EXPECT_TRUE(logged("LOGGING STOPPED"));
}

TEST_F(Service, AtPowerOffItTellsThatTheDeviceGoesDown) {
    installAndStart();
    inBox("systemctl poweroff");
    EXPECT_TRUE(InstalledAgent::eventually([&] { return !box.running(); }, 60000)) << box.log();
    EXPECT_EQ(status(), "DEVICE_DOWN") << agent.log();
}

TEST_F(Service, KilledItIsStartedAgainTwiceAndNumbersItsRecordsOn) {
    useProgram(KV_AGENT_PROGRAM);
    inBox("printf '[Service]\\nRestartSec=100ms\\n' >" + unitFile + ".d/hurry.conf");
    installAndStart();
    for (const std::size_t records : {1U, 2U, 3U}) {
        ASSERT_TRUE(InstalledAgent::eventually([&] { return recordNumbers().size() == records; })) << agent.log();
        systemctl("kill --kill-whom=main -s KILL");
    }
    EXPECT_TRUE(becomes("ActiveState", "failed"));
    EXPECT_EQ(recordNumbers(), (std::set<int>{2, 3, 4}));
    systemctl("reset-failed");
    for (int times = 0; times < 5; ++times) systemctl("restart");
    EXPECT_EQ(shown("ActiveState"), "active");
}

TEST_F(Service, StoppedWhileItCollectsOrUploadsItLosesNothing) {
    agent.writeScript("one.sh", "touch " + (agent.folder / "begun").string() + "; until [ -e " +
                                    (agent.folder / "go").string() + R"( ]; do sleep 0.02; done; printf "$2")");
    installAndStart();
    ASSERT_TRUE(InstalledAgent::eventually([&] { return fs::exists(agent.folder / "begun"); })) << agent.log();
    systemctl("stop");
    inBox("pgrep -f one.sh", 1);
    EXPECT_EQ(status(), "AGENT_DOWN");

    TestAgent::Write(agent.folder / "go", "");
    ASSERT_TRUE(agent.kvlab("fault set --servlet FileCollector --delay 60000"));
    systemctl("start");
    ASSERT_TRUE(InstalledAgent::eventually([&] { return agent.kvlab("fault list") == ""; })) << agent.log();
    systemctl("stop");
    EXPECT_TRUE(accepted().empty());

    agent.writePlan(R"({ "WorkFlows": [] })");
    systemctl("start");
    EXPECT_TRUE(InstalledAgent::eventually([&] { return !accepted().empty(); })) << agent.log();
    EXPECT_EQ(accepted(), std::vector<std::string>{"One"});
}

TEST_F(Service, ServesRequestsThatActOnTheComputerAndStopsBesideASilentServer) {
    inBox(
        "write() { printf '[Unit]\\n'\"$2\"'[Service]\\n'\"$3\" >/etc/systemd/system/$1.service; }\n"
        "write hub '' 'ExecStart=sleep infinity\\n'\n"
        "write spoke 'Requires=hub.service\\nAfter=hub.service\\n' 'ExecStart=sleep infinity\\n'\n"
        "write unready '' 'Type=notify\\nExecStart=sleep infinity\\nTimeoutStartSec=1\\n'\n"
        "systemctl daemon-reload; systemctl start spoke");
    installAndStart();

    const char* query = "TEST_MONITOR --set \"WMIQUERY=SELECT State FROM Win32_Service WHERE Name = 'spoke'\"";
    const struct {
        const char* title;
        const char* request;
        const char* answer;
    } cases[] = {
        {"a query", query, R"("M": [ { "State": "Running" } ])"},
        {"a service on which another depends", "STOP_SERVICE --set SERVICE_NAME=hub", R"([ { "M": "STOPPED" } ])"},
        {"it is stopped too", query, R"("M": [ { "State": "Stopped" } ])"},
        {"one that is stopped already", "STOP_SERVICE --set SERVICE_NAME=hub",
         R"("ERRORMSG": "Unable to stop Service")"},
        {"one that starts", "START_SERVICE --set SERVICE_NAME=hub", R"([ { "M": "STARTED" } ])"},
        {"one that never gets ready", "START_SERVICE --set SERVICE_NAME=unready", R"([ { "M": "FAILED" } ])"},
        {"one that is not there", "START_SERVICE --set SERVICE_NAME=nothing", "Unable to start Service"},
    };
    const std::string command =
        "request add --no-flag --agent LAB1 --set MONITOR_NAME=M --set RESPONSE_NEEDED=YES --type ";
    std::vector<std::string> ids;
    for (const auto& each : cases) ids.push_back(agent.kvlab(command + each.request).value_or("failed"));
    agent.setText(u"\\Monitoring", u"RequestAvailable", u"YES");
    for (std::size_t at = 0; at < ids.size(); ++at) {
        SCOPED_TRACE(cases[at].title);
        const auto answer = [&] { return agent.kvlab("request answers --id " + ids[at] + " 2>/dev/null"); };
        ASSERT_TRUE(InstalledAgent::eventually([&] { return answer().has_value(); })) << agent.log();
        EXPECT_THAT(*answer(), HasSubstr(cases[at].answer));
    }
    EXPECT_EQ(inBox("systemctl is-active hub spoke"), "active\ninactive");

    ASSERT_TRUE(agent.kvlab("fault set --servlet StatusUpdateServlet --delay 60000"));
    const auto start = std::chrono::steady_clock::now();
    systemctl("stop");
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken.count(), 20.0 / 30);
    EXPECT_LT(taken.count(), 30);
    EXPECT_EQ(shown("ActiveState"), "inactive");
    EXPECT_EQ(shown("Result"), "success");
    EXPECT_FALSE(logged("LOGGING STOPPED"));
}

}  // namespace
}  // namespace kv::test
