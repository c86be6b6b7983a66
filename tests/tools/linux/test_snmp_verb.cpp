// kvagentctl snmp against a real snmpd.
#include "tests/support/snmp_devices.h"
#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {

namespace {

class SnmpVerb : public AgentToolTest {};

TEST_F(SnmpVerb, AsksADeviceOnce) {
    const SnmpDaemon device("sysName box\nextend bytes /bin/echo \x01z");
    const std::string port = std::to_string(device.port());
    const std::string silent = std::to_string(SnmpDaemon().port());
    const std::string name = ".1.3.6.1.2.1.1.5.0";
    const std::string lacking = ".1.3.6.1.2.1.1.77.0";
    const std::string noSuch = lacking + " = No Such Object\n";
    const std::string bytes = ".1.3.6.1.4.1.8072.1.3.2.3.1.1.5.98.121.116.101.115";
    const std::tuple<const char*, Words, int, std::string, const char*> rows[] = {
        {"a text", {"-p", port, "get", "127.0.0.1", name}, 0, name + " = OCTET STRING: box\n", ""},
        {"long names, no dot ahead", {"--port=" + port, "get", "127.0.0.1", name.substr(1)}, 0, "box", ""},
        {"bytes", {"-p" + port, "get", "127.0.0.1", bytes}, 0, bytes + " = OCTET STRING (hex): 01 7A\n", ""},
        {"next", {"-p", port, "gnext", "127.0.0.1", ".1.3.6.1.2.1.1.5"}, 0, name + " = OCTET STRING: box\n", ""},
        {"two", {"-p", port, "get", "127.0.0.1", ".1.3.6.1.2.1.1.2.0", name}, 0, "OBJECT IDENTIFIER: .1.3.6.1.4.1", ""},
        {"walk", {"-p", port, "walk", "127.0.0.1", ".1.3.6.1.2.1.1.5"}, 0, name + " = OCTET STRING: box\n", ""},
        {"leaf", {"-p", port, "walk", "127.0.0.1", name}, 3, "", "gives no value below .1.3.6.1.2.1.1.5.0; get asks"},
        {"v1", {"-p", port, "get", "127.0.0.1", name, lacking}, 3, "", "error status 2 at value 2: noSuchName"},
        {"v2c", {"-p", port, "--version", "v2c", "get", "127.0.0.1", lacking}, 3, noSuch, "gives no value for"},
        {"silence", {"-p", silent, "-t", "1", "walk", "127.0.0.1", name}, 1, "", "no answer from 127.0.0.1 port"},
        {"community", {"-p", port, "-t1", "-c", "x", "get", "127.0.0.1", name}, 1, "", "within 1 s; a device keeps"},
    };
    for (const auto& [title, words, exitCode, output, errors] : rows) {
        SCOPED_TRACE(title);
        Expect(Line("snmp", words), exitCode, output, errors);
    }
    EXPECT_EQ(Run({"snmp", "--json", "-p", port, "get", "127.0.0.1", ".1.3.6.1.2.1.11.30.0"}).output,
              "[\n  {\n    \"oid\": \".1.3.6.1.2.1.11.30.0\",\n    \"type\": \"INTEGER\",\n    \"value\": 2\n  }\n]\n");
}

}  // namespace

}  // namespace kv::test
