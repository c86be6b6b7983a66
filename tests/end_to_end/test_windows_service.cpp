// The Windows programs at work under Wine, with a lab's server and a snmpd on this side: installed as a service,
// started, collecting, uploading, serving, stopped and removed. Run by `./test --windows` inside tools/in_wine.sh.
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>

#include "agent/backends.h"
#include "foundation/file_utils.h"
#include "lab/server.h"
#include "platform/utf.h"
#include "tests/end_to_end/installed_agent.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

constexpr const char* service = "Corvinel Monitoring Agent";

/// What a text of the environment says; throws where it is not there.
std::string Required(const char* variable) {
    const char* value = std::getenv(variable);
    if (value == nullptr) throw std::runtime_error(std::string(variable) + " is not set; run ./test --windows");
    return value;
}

/// A Windows computer, the agent's files and settings on it, and a server that the agent reaches by HTTPS.
class WindowsService : public ::testing::Test {
  protected:
    WindowsService() {
        InstallBackends();
        removeAll();  // what a run that was ended has left
        for (const char* below : {"bin", "conf/scripts", "logs"}) fs::create_directories(monitoring / below);
        for (const char* program : {"MonitoringAgent.exe", "kvreg.exe"})
            fs::copy_file(programs / program, monitoring / "bin" / program);
        startServer();
        set("", "KVAgentInstallDir", "'C:\\kvagent\\'");
        set("", "CustomerName", "'Test customer'");
        set("", "RemoteOfficeName", "'Test office'");
        set("", "AgentLogLevel", "2 --dword");
        set("\\ServerInfo", "KVServerName", "localhost");
        set("\\ServerInfo", "KVServerFlatName", "localhost");
        set("\\ServerInfo", "KVServerIPAddress", "127.0.0.1");
        set("\\ServerInfo", "KVServerSecIPAddress", "--");
        set("\\ServerInfo", "KVServerSecurePort", std::to_string(server->port()));
        set("\\ServerInfo", "KVServerProtocol", "https");
        set("\\ServerInfo", "KVLastAccessName", "127.0.0.1");
        set("\\Monitoring", "writeInterval", "5 --dword");
    }
    ~WindowsService() override { removeAll(); }

    void removeAll() const {
        windows("net.exe stop '" + std::string(service) + "'");
        windows((programs / "MonitoringAgent.exe").string() + " /u");
        windows((programs / "kvreg.exe").string() + " delete 'Software\\Halvorine'");
        fs::remove_all(folder);
    }

    void startServer() {
        lab::ServerOptions options;
        options.database = (folder / "lab.db").string();
        MakeCertificate(folder, options.certificate, options.privateKey);
        server.emplace(options);
    }

    /// Runs a program of the agent's or of the system's.
    ShellOutcome windows(const std::string& commandLine) const {
        return RunShell("cd '" + (monitoring / "bin").string() + "' 2>/dev/null; timeout -k 5 60 wine64 " +
                        commandLine + " </dev/null 2>&1");
    }

    void set(const std::string& subKey, const std::string& name, const std::string& data) const {
        const ShellOutcome outcome = windows("kvreg.exe set '" + key + subKey + "' " + name + " " + data);
        if (outcome.exitCode != 0)
            throw std::runtime_error("the setting " + name + " cannot be made: " + outcome.output);
    }
    std::string setting(const std::string& subKey, const std::string& name) const {
        return windows("kvreg.exe get '" + key + subKey + "' " + name).output;
    }

    static std::string plan(const std::string& records) {
        return R"({ "WorkFlows": [ { "wfname": "w", "interval": 60, "order": 1, "recordSetName": [ )" + records +
               " ] } ] }";
    }
    void writePlan(const std::string& json) const {
        TestAgent::Write(monitoring / "conf" / "queryconf.txt", Utf16LittleEndianBytes(platform::WideFromUtf8(json)));
    }
    void writeScript(const std::string& name, const std::string& body) const {
        TestAgent::Write(monitoring / "conf" / "scripts" / name, body);
    }

    std::string log() const { return TestAgent::Read(monitoring / "logs" / "agent.log"); }
    bool runs() const { return windows("net.exe start").output.find(service) != std::string::npos; }

    /// The texts of the records that the lab has, a line each.
    std::string accepted() const {
        std::string texts;
        for (const std::string& text : AcceptedTexts(folder / "lab.db")) texts += text + "\n";
        return texts;
    }
    std::string status() const { return LastWord(folder / "lab.db"); }
    std::string kvlab(const std::string& arguments) const {
        return Kvlab(arguments, folder / "lab.db").value_or("failed");
    }
    /// Has the agent fetch its requests, and waits for what it answers to one.
    std::string answerTo(const std::string& request) const {
        const std::string id = kvlab(
            "request add --no-flag --agent LAB1 --set MONITOR_NAME=M --set RESPONSE_NEEDED=YES "
            "--type " +
            request);
        set("\\Monitoring", "RequestAvailable", "YES");
        std::string answer;
        InstalledAgent::eventually(
            [&] {
                answer = kvlab("request answers --agent LAB1");
                return answer.find("\"" + id + "\"") != std::string::npos;
            },
            patience);
        return answer;
    }

    /// Milliseconds. The agent fetches requests every 30 seconds, and uploads a minute after its start first.
    static constexpr int patience = 120000;
    const std::string key = "Software\\Halvorine\\Kestrova\\KVAgent";
    const fs::path programs = Required("KV_WINDOWS_PROGRAMS");
    const fs::path folder = fs::path(Required("WINEPREFIX")) / "drive_c" / "kvagent";
    const fs::path monitoring = folder / "monitoring";
    std::optional<lab::LabServer> server;
};

TEST_F(WindowsService, IsInstalledCollectsServesStopsAndIsRemoved) {
    const SnmpDaemon device("sysName polled-device");
    writeScript("one.bat", "@echo off\r\necho {\"system\":\"%OS%\",\"word\":\"%~5\"}\r\n");
    writePlan(plan(R"({ "script": "one.bat", "Name": "Script", "params": "\"two words\"", "response_needed": "true" },)"
                   R"({ "wmiQuery": "SELECT Name, Caption FROM Win32_OperatingSystem", "Name": "Query" },)"
                   R"({ "PROTOCOL": "SPOLL", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": ")" +
                   std::to_string(device.port()) +
                   R"(", "SNMP_VERSION": "v2c", "COMMUNITY": "public", "OID": ".1.3.6.1.2.1.1.5.0", "POLL_ID": "1",)"
                   R"( "AGENT_KEY": "D1", "POLICY_NAME": "Poll" })"));

    EXPECT_THAT(windows("MonitoringAgent.exe").output, HasSubstr("no service manager started this process"));
    EXPECT_EQ(windows("MonitoringAgent.exe /i").exitCode, 1);
    ASSERT_EQ(windows("net.exe start '" + std::string(service) + "'").exitCode, 0) << log();
    EXPECT_TRUE(runs());
    ASSERT_TRUE(InstalledAgent::eventually([&] { return status() == ""; }, patience)) << "enrolled\n" << log();

    // Everything collected comes by itself.
    InstalledAgent::eventually([&] { return accepted().find("polled-device") != std::string::npos; }, patience);
    EXPECT_THAT(accepted(), AllOf(HasSubstr(R"("system":"Windows_NT","word":"two words")"), HasSubstr("\"Caption\""),
                                  HasSubstr("polled-device")))
        << log();

    const std::string query = "TEST_MONITOR --set 'WMIQUERY=SELECT State FROM Win32_Service WHERE DisplayName = \"";
    EXPECT_THAT(answerTo(query + service + "\"'"), HasSubstr(R"("State": "Running")")) << log();

    writeScript("new.cmd", "@echo {\"from\":\"the new plan\"}\r\n");
    TestAgent::Write(folder / "new.json", plan(R"({ "script": "new.cmd", "Name": "New", "response_needed": "true" })"));
    kvlab("conf push --no-flag LAB1 " + (folder / "new.json").string());
    set("\\Monitoring", "RequestAvailable", "YES");
    EXPECT_TRUE(
        InstalledAgent::eventually([&] { return accepted().find("the new plan") != std::string::npos; }, patience))
        << log();

    ASSERT_EQ(windows("net.exe stop '" + std::string(service) + "'").exitCode, 0) << log();
    EXPECT_FALSE(runs());
    EXPECT_EQ(status(), "AGENT_DOWN");
    EXPECT_EQ(windows("MonitoringAgent.exe /u").exitCode, 1);
    EXPECT_NE(windows("net.exe start '" + std::string(service) + "'").exitCode, 0) << "it is gone";
}

}  // namespace
}  // namespace kv::test
