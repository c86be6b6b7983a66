// Server and proxy details from a real registry, with host names and addresses answered through the seam.
#include <optional>
#include <set>
#include <string>

#include "agent/server_details.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "platform/registry.h"
#include "platform/sockets.h"
#include "platform/system_facts.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"

namespace kv {
namespace {

struct Setting {
    std::u16string_view key;
    std::u16string_view name;
    std::u16string_view data;
    std::int32_t resultWithout = 0;
    const char* lineWithout = "";  // after "Not able to fetch the "
    platform::RegistryType type = platform::RegistryType::text;
};

constexpr std::u16string_view server = serverInfoKeyPath;
constexpr std::u16string_view agent = monitoringKeyPath;
/// The required ones in the order of their reading, then those that have a fallback.
const Setting completeSettings[] = {
    {server, u"KVServerName", u"central", 13, "KVServerName. gv_ServerName updated with NULL value\n"},
    {server, u"KVServerFlatName", u"flat", 13, "KVServerFlatName. gv_ServerFlatName updated with NULL value\n"},
    {server, u"KVServerIPAddress", u"10.0.0.1", 13,
     "KVServerIPAddress. gv_ServerIPAddress file is updated with NULL value\n"},
    {server, u"KVServerSecurePort", u"8443", 13, "KVServerPort. gv_ServerPort is not updated \n"},
    {agentKeyPath, u"CustomerName", u"customer", 13, "CustomerName. gv_custID is not updated \n"},
    {server, u"KVLastAccessName", u"last", 13, "KVLastAccessName. gv_LastAccessName updated with NULL value\n"},
    {agentKeyPath, u"RemoteOfficeName", u"office", 13, "RemoteOfficeName. gv_remoteOfficeName is not updated \n"},
    {server, u"KVServerSecIPAddress", u"1.2", 0,
     "KVServerIPAddress. gv_ServerIPAddress file is updated with NULL value\n"},
    {server, u"KVServerProtocol", u"HTTP", 0, "KVServerProtocol. Protocol is set to default value -- HTTPS \n"},
    {agent, u"MonitoringAgentKey", u"key-1", 0, "GetOCAgentKey and assign it to gv_agentKey. Assigning NULL value\n"},
    {agent, u"MasterAgent", u"YES", 0, "MasterAgent Flag and assign it to gv_masterAgent. Assigning default value\n"},
    {systemDetailsKeyPath, u"KVAgentResourceID", u"resource", 0, "KVAgentResourceID.\n"},
    {agent, u"writeInterval", u"301", 0, "WriteInterval.\n", platform::RegistryType::dword},
};

class ServerDetails : public test::TestAgent {
  protected:
    void Set(const Setting& setting) {
        ASSERT_EQ(writeValue(platform::RootKey::localMachine, setting.key, setting.name, setting.data, setting.type),
                  platform::error::success);
    }

  private:
    static platform::SocketOperations FixedHost() {
        platform::SocketOperations sockets = platform::Sockets();
        sockets.gethostname = [](std::string& name) { return name = "box", platform::error::success; };
        sockets.gethostbyname = [](std::string_view, platform::HostEntry& host) {
            return host = {"box.example", "192.0.2.7"}, platform::error::success;
        };
        return sockets;
    }
    static platform::SystemFactOperations FixedFacts() {
        platform::SystemFactOperations facts = platform::SystemFacts();
        facts.GetComputerNameExW = [](std::u16string& name) { return name = u"box.example", platform::error::success; };
        return facts;
    }
    platform::ScopedOperations<platform::SocketOperations> sockets_{FixedHost()};
    platform::ScopedOperations<platform::SystemFactOperations> facts_{FixedFacts()};
};

TEST_F(ServerDetails, AMissingValueStopsOrFallsBack) {
    const AgentState& state = agentState;
    std::set<std::u16string_view> given;
    for (const Setting& missing : completeSettings) {
        SCOPED_TRACE(platform::Utf8FromWide(missing.name));
        test::ResetAgentState();
        const std::size_t logged = LogText().size();
        EXPECT_EQ(getCSDetails(), missing.resultWithout);
        const bool goesOn = missing.resultWithout == 0;
        const std::string log = LogText().substr(logged);
        const std::size_t line = log.find(std::string("Not able to fetch the ") + missing.lineWithout);
        EXPECT_NE(line, std::string::npos);
        EXPECT_TRUE(goesOn || log.find("Not able to fetch", line + 1) == std::string::npos) << "it stops there";
        EXPECT_EQ(state.gv_MaxFilesInDir, goesOn ? 1500 : 15);
        EXPECT_EQ(state.gv_agentID.has_value(), goesOn);
        EXPECT_EQ(state.gv_httpsEnabled, given.contains(u"KVServerProtocol") ? 0 : 1);
        const char16_t* fallback = goesOn ? u"HUBCENTER" : u"NULL";
        EXPECT_EQ(state.gv_agentKey.view(), given.contains(u"MonitoringAgentKey") ? u"key-1" : fallback);
        EXPECT_EQ(state.gv_masterAgent, given.contains(u"MasterAgent") ? u"YES" : u"NO");
        EXPECT_EQ(state.gv_writeInterval, 300);
        Set(missing);
        given.insert(missing.name);
    }
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(state.gv_ServerName, u"central");
    EXPECT_EQ(state.gv_ServerSecIPAddress, u"1.2");
    EXPECT_EQ(state.gv_ServerPort, 8443);
    EXPECT_EQ(state.gv_LastAccessName.view(), u"last");
    EXPECT_EQ(state.gv_agentID, u"box");
    EXPECT_EQ(state.gv_agentDNS, u"box.example");
    EXPECT_EQ(state.gv_localIPAddress, u"192.0.2.7");
    EXPECT_EQ(state.gv_writeInterval, 301);
    EXPECT_EQ(state.gv_DataCollTmout, 360);
}

TEST_F(ServerDetails, ReadsValuesAsTheyAreMeant) {
    for (const Setting& setting : completeSettings) Set(setting);
    for (const auto& [protocol, https] : {std::pair{u"HTTP", 0}, {u"https", 1}, {u"ftp", 0}}) {
        Set({serverInfoKeyPath, u"KVServerProtocol", protocol});
        getCSDetails();
        EXPECT_EQ(agentState.gv_httpsEnabled, https) << platform::Utf8FromWide(protocol);
    }
    Set({serverInfoKeyPath, u"KVServerSecIPAddress", u"ab"});
    Set({serverInfoKeyPath, u"KVServerSecurePort", u"84x"});
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(agentState.gv_ServerSecIPAddress, std::nullopt);
    EXPECT_TRUE(Logged("KVServerSecurePort is no port number : 84x\n"));
    FreeAllResources();
    FreeAllResources();
    EXPECT_EQ(agentState.gv_ServerName, std::nullopt);
}

TEST_F(ServerDetails, ReadsTheProxyOnlyWhenItIsOn) {
    const struct {
        const char* title;
        std::optional<std::u16string_view> enabled;
        std::optional<std::u16string_view> bypass;
        std::optional<std::u16string> server, exceptions, password;
    } rows[] = {
        {"no value", std::nullopt, std::nullopt, std::nullopt, u"<local>", std::nullopt},
        {"on, without a bypass list", u"YES", std::nullopt, u"proxy", std::nullopt, u"abc"},
        {"neither yes nor no", u"true", u"list", std::nullopt, u"<local>", std::nullopt},
        {"on", u"yes", u"list", u"proxy", u"list", u"abc"},
    };
    Set({agentKeyPath, u"ProxyServerName", u"proxy"});
    Set({agentKeyPath, u"ProxyPassword", u" YWJj "});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        test::ResetAgentState();
        if (row.enabled) Set({agentKeyPath, u"ProxyEnabled", *row.enabled});
        if (row.bypass) Set({agentKeyPath, u"ProxyByPass", *row.bypass});
        getProxyServerDetails();
        EXPECT_EQ(agentState.gv_proxyEnabled, row.enabled.value_or(u"NO"));
        EXPECT_EQ(agentState.gv_proxyServerName, row.server);
        EXPECT_EQ(agentState.gv_proxyExceptionAddr, row.exceptions);
        EXPECT_EQ(agentState.gv_proxyPassword, row.password);
    }
    EXPECT_TRUE(
        Logged("\t Error in fetching the proxy user name from the registry. gv_proxyUserName is not updated\n"));
    EXPECT_TRUE(Logged("\t getProxyServerDetails() :: Cryptographic client ok\n"));
    EXPECT_FALSE(Logged("abc"));
}

}  // namespace
}  // namespace kv
