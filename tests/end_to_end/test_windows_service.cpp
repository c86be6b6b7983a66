// The Windows programs under Wine, with a lab's server and an snmpd on Linux. `./test --windows` runs it inside
// tools/in_wine.sh.
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>

#include "agent/backends.h"
#include "foundation/file_utils.h"
#include "lab/server/server.h"
#include "platform/utf.h"
#include "tests/end_to_end/installed_agent.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr const char* service = "Corvinel Monitoring Agent";

/// A variable of the environment; throws if it is not set.
std::string RequiredVariable(const char* variable) {
    const char* value = std::getenv(variable);
    if (value == nullptr) throw std::runtime_error(std::string(variable) + " is not set; run ./test --windows");
    return value;
}

/// A Windows computer with the agent's files and settings, and a server that the agent reaches by HTTPS.
class WindowsService : public ::testing::Test {
  protected:
    WindowsService() {
        InstallBackends();
        RemoveAll();  // what an aborted run has left
        for (const char* below : {"bin", "conf/scripts", "logs"}) fs::create_directories(monitoring / below);
        for (const char* program : {"MonitoringAgent.exe", "kvreg.exe"})
            fs::copy_file(programs / program, monitoring / "bin" / program);
        StartServer();
        Set("", "KVAgentInstallDir", "'C:\\kvagent\\'");
        Set("", "CustomerName", "'Test customer'");
        Set("", "RemoteOfficeName", "'Test office'");
        Set("", "AgentLogLevel", "2 --dword");
        Set("\\ServerInfo", "KVServerName", "localhost");
        Set("\\ServerInfo", "KVServerFlatName", "localhost");
        Set("\\ServerInfo", "KVServerIPAddress", "127.0.0.1");
        Set("\\ServerInfo", "KVServerSecIPAddress", "--");
        Set("\\ServerInfo", "KVServerSecurePort", std::to_string(server->port()));
        Set("\\ServerInfo", "KVServerProtocol", "https");
        Set("\\ServerInfo", "KVLastAccessName", "127.0.0.1");
        Set("\\Monitoring", "writeInterval", "5 --dword");
    }
    ~WindowsService() override { RemoveAll(); }

    void RemoveAll() const {
        RunWindows("net.exe stop '" + std::string(service) + "'");
        RunWindows((programs / "MonitoringAgent.exe").string() + " /u");
        RunWindows((programs / "kvreg.exe").string() + " delete --yes 'Software\\Halvorine'");
        fs::remove_all(folder);
    }

    void StartServer() {
        lab::ServerOptions options;
        options.database = (folder / "lab.db").string();
        MakeCertificate(folder, options.certificate, options.privateKey);
        server.emplace(options);
    }

    /// Runs a program of the agent or the system.
    ShellOutcome RunWindows(const std::string& commandLine) const {
        return RunShell("cd '" + (monitoring / "bin").string() + "' 2>/dev/null; timeout -k 5 60 wine64 " +
                        commandLine + " </dev/null 2>&1");
    }

    void Set(const std::string& subKey, const std::string& name, const std::string& data) const {
        const ShellOutcome outcome = RunWindows("kvreg.exe set '" + key + subKey + "' " + name + " " + data);
        if (outcome.exitCode != 0)
            throw std::runtime_error("the setting " + name + " cannot be made: " + outcome.output);
    }

    static std::string MakePlan(const std::string& records) {
        return R"({ "WorkFlows": [ { "wfname": "w", "interval": 60, "order": 1, "recordSetName": [ )" + records +
               " ] } ] }";
    }
    void WritePlan(const std::string& json) const {
        TestAgent::Write(monitoring / "conf" / "queryconf.txt", Utf16LittleEndianBytes(platform::WideFromUtf8(json)));
    }
    void WriteScript(const std::string& name, const std::string& body) const {
        TestAgent::Write(monitoring / "conf" / "scripts" / name, body);
    }

    std::string ReadLog() const { return TestAgent::Read(monitoring / "logs" / "agent.log"); }
    bool IsRunning() const { return RunWindows("net.exe start").output.find(service) != std::string::npos; }

    /// The texts of the lab's records, a line each.
    std::string AcceptedLines() const {
        std::string texts;
        for (const std::string& text : AcceptedTexts(folder / "lab.db")) texts += text + "\n";
        return texts;
    }
    std::string ReadStatus() const { return LastStatus(folder / "lab.db"); }
    std::string RunKvlab(const std::string& arguments) const {
        return test::RunKvlab(arguments, folder / "lab.db").value_or("failed");
    }
    /// Adds a request, has the agent fetch it, and waits for the answer.
    std::string RequestAnswer(const std::string& request) const {
        const std::string id = RunKvlab(
            "request add --no-flag --agent LAB1 --set MONITOR_NAME=M --set RESPONSE_NEEDED=YES "
            "--type " +
            request);
        Set("\\Monitoring", "RequestAvailable", "YES");
        std::string answer;
        InstalledAgent::Eventually(
            [&] {
                answer = RunKvlab("request answers --agent LAB1");
                return answer.find("\"" + id + "\"") != std::string::npos;
            },
            patience);
        return answer;
    }

    /// Milliseconds. The agent fetches requests every 30 seconds, and uploads for the first time after a minute.
    static constexpr int patience = 120000;
    const std::string key = "Software\\Halvorine\\Kestrova\\KVAgent";
    const fs::path programs = RequiredVariable("KV_WINDOWS_PROGRAMS");
    const fs::path folder = fs::path(RequiredVariable("WINEPREFIX")) / "drive_c" / "kvagent";
    const fs::path monitoring = folder / "monitoring";
    std::optional<lab::LabServer> server;
};

TEST_F(WindowsService, WorksFromItsInstallationToItsRemoval) {
    const SnmpDaemon device("sysName polled-device");
    WriteScript("one.bat", "@echo off\r\necho {\"system\":\"%OS%\",\"word\":\"%~5\"}\r\n");
    WritePlan(
        MakePlan(R"({ "script": "one.bat", "Name": "Script", "params": "\"two words\"", "response_needed": "true" },)"
                 R"({ "wmiQuery": "SELECT Name, Caption FROM Win32_OperatingSystem", "Name": "Query" },)"
                 R"({ "PROTOCOL": "SPOLL", "DEVICE_NAME": "127.0.0.1", "SNMP_PORT": ")" +
                 std::to_string(device.port()) +
                 R"(", "SNMP_VERSION": "v2c", "COMMUNITY": "public", "OID": ".1.3.6.1.2.1.1.5.0", "POLL_ID": "1",)"
                 R"( "AGENT_KEY": "D1", "POLICY_NAME": "Poll" })"));

    EXPECT_THAT(RunWindows("MonitoringAgent.exe").output, HasSubstr("no service manager started this process"));
    EXPECT_EQ(RunWindows("MonitoringAgent.exe /i").exitCode, 1);
    ASSERT_EQ(RunWindows("net.exe start '" + std::string(service) + "'").exitCode, 0) << ReadLog();
    EXPECT_TRUE(IsRunning());
    ASSERT_TRUE(InstalledAgent::Eventually([&] { return ReadStatus() == ""; }, patience)) << "enrolled\n" << ReadLog();

    InstalledAgent::Eventually([&] { return AcceptedLines().find("polled-device") != std::string::npos; }, patience);
    EXPECT_THAT(AcceptedLines(), testing::AllOf(HasSubstr(R"("system":"Windows_NT","word":"two words")"),
                                                HasSubstr("\"Caption\""), HasSubstr("polled-device")))
        << ReadLog();

    const std::string query = "TEST_MONITOR --set 'WMIQUERY=SELECT State FROM Win32_Service WHERE DisplayName = \"";
    EXPECT_THAT(RequestAnswer(query + service + "\"'"), HasSubstr(R"("State": "Running")")) << ReadLog();

    WriteScript("new.cmd", "@echo {\"from\":\"the new plan\"}\r\n");
    TestAgent::Write(folder / "new.json",
                     MakePlan(R"({ "script": "new.cmd", "Name": "New", "response_needed": "true" })"));
    RunKvlab("conf push --no-flag LAB1 " + (folder / "new.json").string());
    Set("\\Monitoring", "RequestAvailable", "YES");
    EXPECT_TRUE(
        InstalledAgent::Eventually([&] { return AcceptedLines().find("the new plan") != std::string::npos; }, patience))
        << ReadLog();

    ASSERT_EQ(RunWindows("net.exe stop '" + std::string(service) + "'").exitCode, 0) << ReadLog();
    EXPECT_FALSE(IsRunning());
    EXPECT_EQ(ReadStatus(), "AGENT_DOWN");
    EXPECT_EQ(RunWindows("MonitoringAgent.exe /u").exitCode, 1);
    EXPECT_NE(RunWindows("net.exe start '" + std::string(service) + "'").exitCode, 0) << "it is removed";
}

}  // namespace
}  // namespace kv::test
