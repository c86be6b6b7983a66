// kvagentctl on its command line, on every system.
#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {

namespace {

class ControlTool : public AgentToolTest {};

TEST_F(ControlTool, SaysWhatIsMissingWithoutAnAgent) {
    const std::tuple<Words, int, const char*> rows[] = {
        {{"status"}, 3, "version:   "},
        {{"collect"}, 3, "name a plan: kvagentctl collect PLAN"},
        {{"log"}, 3, "is the agent installed"},
        {{"pin"}, 3, "no server is set: kvagentctl setup --server SERVER"},
        {{"check"}, 1, "kvagentctl setup --server SERVER"},
    };
    for (const auto& [words, exitCode, told] : rows) {
        SCOPED_TRACE(words.front());
        const Outcome outcome = Run(words);
        EXPECT_EQ(outcome.exitCode, exitCode);
        EXPECT_THAT(outcome.output + outcome.errors, HasSubstr(told));
    }
}

TEST_F(ControlTool, ChecksAndCollectsAPlan) {
    const std::string plan = Utf8(folder / "plan.json");
    const auto write = [&plan](const std::string& record) {
        Write(plan, R"({"WorkFlows":[{"wfname":"W","interval":1,"recordSetName":[{)" + record + "}]}]}");
    };
    write(R"("wmiQuery":"SELECT Caption FROM Win32_OperatingSystem","Name":"System")");
    Expect({"collect", plan}, 0, "== System: workflow W, WMI, ");
    Expect({"collect", plan, "--record", "system"}, 0, "\"Caption\": \"");
    Expect({"collect", plan, "--record", "Nix"}, 3, "", "there are: System");
    const std::pair<const char*, const char*> rows[] = {
        {R"("wmiquery":"SELECT","Name":"N")", "did you mean wmiQuery?"},
        {R"("wmiQuery":"SELECT * FROM Win32_BIOS","Name":"ERRORMSG")", "is another member"},
        {R"("PROTOCOL":"SPOLL","DEVICE_NAME":"d","OID":".1.x")", "OID '.1.x' is not numbers with dots"},
    };
    for (const auto& [members, finding] : rows) {
        write(members);
        EXPECT_THAT(Run({"check", plan}).output, HasSubstr(finding));
    }
}

TEST_F(ControlTool, RefusesWhatIsNotASnmpRequest) {
    const std::tuple<Words, const char*> rows[] = {
        {Words(),
         "the request is missing\n\nUsage:\tkvagentctl snmp [-p] [-c] [-t] <get|gnext|walk> <IpAddress> <OID>\n\t-p\t"},
        {{"bulk", "127.0.0.1", ".1"}, "'bulk' is not get, gnext or walk"},
        {{"get", "127.0.0.1"}, "the OID is missing"},
        {{"get", "127.0.0.1", "sysName.0"}, "'sysName.0' is not an OID"},
        {{"get", "127.0.0.1:161", ".1"}, "is not an IPv4 address or a name; a port is given with -p"},
        {{"get", "127.0.0.1", ".1..3"}, "'.1..3' is not an OID"},
        {{"get", "127.0.0.1", ".1.4294967295"}, "4294967295, and the largest that is asked for is 4294967294"},
        {{"get", "127.0.0.1", ".1,.2"}, "'.1,.2': blanks between OIDs, not commas"},
        {{"get", "127.1", ".1"}, "the address '127.1': an IPv4 address has four numbers"},
        {{"-p", "0", "get", "127.0.0.1", ".1"}, "--port takes a number from 1 to 65535, not '0'"},
        {{"--version", "v3", "get", "127.0.0.1", ".1"}, "--version takes v1 or v2c, not 'v3'"},
        {{"-x", "get", "127.0.0.1", ".1"}, "unknown option '-x' (see kvagentctl snmp --help)"},
    };
    for (const auto& [words, errors] : rows) Expect(Line("snmp", words), 2, "", errors);
}

TEST_F(ControlTool, AsksThisComputer) {
    const Outcome rows = Run({"query", "--json", "SELECT Caption, TotalVisibleMemorySize FROM Win32_OperatingSystem"});
    EXPECT_EQ(rows.exitCode, 0) << rows.errors;
    EXPECT_THAT(rows.output, ::testing::ContainsRegex("\"Caption\": \".+\",\n +\"TotalVisibleMemorySize\": .+\n"));
    EXPECT_THAT(rows.output, ::testing::Not(HasSubstr("MemorySize\": \""))) << "a number";
    Expect({"query", "SELECT FROM"}, 1, "", "Invalid query (80041017)");
}

}  // namespace

}  // namespace kv::test
