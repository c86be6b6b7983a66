// kvagentctl on its command line, on every system.
#include "tests/tools/tool_fixture.h"

namespace kv::test {

namespace {

class ControlTool : public ToolTest {
  protected:
    ControlTool() : ToolTest(KVAGENTCTL_PROGRAM) {}
};

TEST_F(ControlTool, RefusesWhatIsNotASnmpRequest) {
    const std::tuple<Words, const char*> rows[] = {
        {Words(),
         "the request is missing\n\nUsage:\tkvagentctl snmp [-p] [-c] [-t] <get|gnext|walk> <IpAddress> <OID>\n\t-p\t"},
        {{"bulk", "127.0.0.1", ".1"}, "'bulk' is not get, gnext or walk"},
        {{"get", "127.0.0.1"}, "the OID is missing"},
        {{"get", "127.0.0.1", "sysName.0"}, "'sysName.0' is not an OID"},
        {{"get", "127.0.0.1", ".1..3"}, "'.1..3' is not an OID"},
        {{"get", "127.0.0.1", ".1.4294967295"}, "is not an OID"},
        {{"-p", "0", "get", "127.0.0.1", ".1"}, "--port takes a number from 1 to 65535, not '0'"},
        {{"--version", "v3", "get", "127.0.0.1", ".1"}, "--version takes v1 or v2c, not 'v3'"},
        {{"-x", "get", "127.0.0.1", ".1"}, "unknown option '-x' (see kvagentctl snmp --help)"},
    };
    for (const auto& [words, errors] : rows) {
        Words line = words;
        line.insert(line.begin(), "snmp");
        const Outcome outcome = Run(line);
        EXPECT_EQ(outcome.exitCode, 2);
        EXPECT_THAT(outcome.errors, HasSubstr(errors));
    }
}

TEST_F(ControlTool, AsksThisComputer) {
    const Outcome rows = Run({"query", "--json", "SELECT Caption, TotalVisibleMemorySize FROM Win32_OperatingSystem"});
    EXPECT_EQ(rows.exitCode, 0) << rows.errors;
    EXPECT_THAT(rows.output, ::testing::ContainsRegex("\"Caption\": \".+\",\n +\"TotalVisibleMemorySize\": .+\n"));
    EXPECT_THAT(rows.output, ::testing::Not(HasSubstr("MemorySize\": \""))) << "a number";
    const Outcome refused = Run({"query", "SELECT FROM"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.errors, HasSubstr("Invalid query (80041017)"));
}

}  // namespace

}  // namespace kv::test
