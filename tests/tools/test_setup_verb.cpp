// kvagentctl setup.
#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {

namespace {

class SetupVerb : public AgentToolTest {};

TEST_F(SetupVerb, TellsAllThatIsWrongAndStoresNothing) {
    const std::tuple<const char*, Words, std::vector<const char*>> rows[] = {
        {"nothing", {}, {"what is to be set?"}},
        {"no server", {"--port", "1"}, {"--server is missing, and no server was set before"}},
        {"all at once",
         {"--server", "ftp://cs:x/", "--ip", "nowhere", "--second-ip", "q", "--customer", "", "--protocol", "ssh"},
         {"--server takes https:// or http://, not 'ftp://'", "--ip takes an address, not 'nowhere'",
          "--second-ip takes an address", "--server and --protocol name two protocols", "--server takes a port number",
          "--customer takes a text that is not empty"}},
        {"a path", {"--server", "https://cs/agent"}, {"takes no path, because the agent's paths are fixed"}},
        {"two ports", {"--server", "cs:1", "--port", "2", "--ip", "192.0.2.1"}, {"--server and --port name two ports"}},
        {"a port", {"--server", "cs", "--port", "65536", "--ip", "192.0.2.1"}, {"a port number from 1 to 65535"}},
        {"credentials", {"--server", "me:hunter2@cs"}, {"--server takes neither user nor password"}},
        {"every address", {"--server", "0.0.0.0"}, {"not '0.0.0.0', which stands for every address"}},
        {"control character",
         {"--server", "cs\x1b"},
         {"without scheme and port, not 'cs\\x1b': a name has no control"}},
        {"a URL with a slip", {"--server", "HTTPS//cs:8443"}, {"not 'HTTPS//cs:8443'; did you mean https://cs:8443?"}},
        {"two schemes", {"--server", "https://https://cs"}, {"did you mean https://cs?"}},
        {"a cut address", {"--server", "10.1.1", "--ip", "10.1.1"}, {"not '10.1.1': an IPv4 address has four numbers"}},
        {"long name", {"--server", std::string(254, 'c')}, {"of at most 253 characters, not of 254\n"}},
        {"unknown name", {"--server", "cs.invalid"}, {"cs.invalid cannot be looked up", "give the address with --ip"}},
    };
    for (const auto& [title, options, errors] : rows) {
        SCOPED_TRACE(title);
        const Outcome outcome = Run(Line("setup", options));
        EXPECT_EQ(outcome.exitCode, 2);
        for (const char* error : errors) EXPECT_THAT(outcome.errors, HasSubstr(error));
        EXPECT_THAT(outcome.errors, testing::Not(HasSubstr("hunter2")));
        EXPECT_EQ(Registry({"list", agentKey}).exitCode, 3) << "nothing is stored";
    }
}

TEST_F(SetupVerb, StoresAllAndChangesOneThing) {
    const Words whole{"--server", "HTTPS://cs.example.com:8443/", "--ip", "192.0.2.1", "--office", "Here"};
    Expect(Line("setup", Line("--dry-run", whole)), 0, "Nothing was stored");
    EXPECT_EQ(Registry({"list", agentKey}).exitCode, 3);
    const char* const told = "Stored. The agent takes it at its next start: ";
    Expect(Line("setup", whole), 0, told, "KVAgentInstallDir is missing");
    EXPECT_EQ(Run({"setup", "--port", "8444", "--second-ip", "192.0.2.2"}).exitCode, 0);
    const std::tuple<std::string, const char*, const char*> values[] = {
        {serverKey, "KVServerName", "cs.example.com\n"},    {serverKey, "KVServerFlatName", "cs\n"},
        {serverKey, "KVServerIPAddress", "192.0.2.1\n"},    {serverKey, "KVLastAccessName", "cs.example.com\n"},
        {serverKey, "KVServerSecIPAddress", "192.0.2.2\n"}, {serverKey, "KVServerSecurePort", "8444\n"},
        {serverKey, "KVServerProtocol", "https\n"},         {agentKey, "CustomerName", "Default\n"},
        {agentKey, "RemoteOfficeName", "Here\n"},
    };
    for (const auto& [key, name, value] : values) EXPECT_EQ(Get(key, name), value) << name;
    EXPECT_EQ(Run({"setup", "--server", "192.0.2.9"}).exitCode, 0);
    EXPECT_THAT(Run({"setup", "--port", "1"}).output,
                testing::ContainsRegex("KVServerIPAddress +192.0.2.9 +as before"));
    EXPECT_EQ(Get(serverKey, "KVServerIPAddress") + Get(serverKey, "KVServerSecIPAddress"), "192.0.2.9\n--\n");
}

}  // namespace

}  // namespace kv::test
