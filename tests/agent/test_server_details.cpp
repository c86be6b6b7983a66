// Server and proxy details from a real registry, with host names and addresses answered through the seam.
#include <optional>
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

using platform::RegistryType;

struct Setting {
    std::u16string_view key;
    std::u16string_view name;
    std::u16string_view data;
    std::int32_t resultWithout = 0;
    const char* lineWithout = "";
    RegistryType type = RegistryType::text;
};

const Setting completeSettings[] = {
    {serverInfoKeyPath, u"KVServerName", u"central", 13,
     "\t getCSDetails() :: Not able to fetch the KVServerName. gv_ServerName updated with NULL value\n"},
    {serverInfoKeyPath, u"KVServerFlatName", u"flat", 13,
     "\t getCSDetails() :: Not able to fetch the KVServerFlatName. gv_ServerFlatName updated with NULL value\n"},
    {serverInfoKeyPath, u"KVServerIPAddress", u"10.0.0.1", 13, "gv_ServerIPAddress file is updated with NULL value\n"},
    {serverInfoKeyPath, u"KVServerSecIPAddress", u"10.0.0.2", 0,
     "gv_ServerIPAddress file is updated with NULL value\n"},
    {serverInfoKeyPath, u"KVServerSecurePort", u"8443", 13,
     "\t getCSDetails() :: Not able to fetch the KVServerPort. gv_ServerPort is not updated \n"},
    {agentKeyPath, u"CustomerName", u"customer", 13,
     "\t getCSDetails() :: Not able to fetch the CustomerName. gv_custID is not updated \n"},
    {serverInfoKeyPath, u"KVLastAccessName", u"last", 13,
     "\t getCSDetails() :: Not able to fetch the KVLastAccessName. gv_LastAccessName updated with NULL value\n"},
    {agentKeyPath, u"RemoteOfficeName", u"office", 13,
     "\t getCSDetails() :: Not able to fetch the RemoteOfficeName. gv_remoteOfficeName is not updated \n"},
    {serverInfoKeyPath, u"KVServerProtocol", u"HTTP", 0, "Protocol is set to default value -- HTTPS \n"},
    {monitoringKeyPath, u"MonitoringAgentKey", u"key-1", 0, "assign it to gv_agentKey. Assigning NULL value\n"},
    {monitoringKeyPath, u"MasterAgent", u"YES", 0, "assign it to gv_masterAgent. Assigning default value\n"},
    {systemDetailsKeyPath, u"KVAgentResourceID", u"resource", 0,
     "\t getCSDetails :: Not able to fetch the KVAgentResourceID.\n"},
    {monitoringKeyPath, u"writeInterval", u"301", 0, "GetWriteInterval :: Not able to fetch the WriteInterval.\n",
     RegistryType::dword},
};

class ServerDetails : public test::TestAgent {
  protected:
    void Set(const Setting& setting) {
        ASSERT_EQ(writeValue(platform::RootKey::localMachine, setting.key, setting.name, setting.data, setting.type),
                  platform::error::success);
    }

    void Remove(const Setting& setting) {
        platform::RegistryKey key = 0;
        ASSERT_EQ(platform::Registry().RegOpenKeyExW(platform::RootKey::localMachine, setting.key,
                                                     platform::RegistryAccess::allAccess, key),
                  platform::error::success);
        EXPECT_EQ(platform::Registry().RegDeleteValueW(key, setting.name), platform::error::success);
        platform::Registry().RegCloseKey(key);
    }

    void SetAll() {
        for (const Setting& setting : completeSettings) Set(setting);
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

TEST_F(ServerDetails, ReadsEverything) {
    SetAll();
    EXPECT_EQ(getCSDetails(), 0);
    const AgentState& state = agentState;
    EXPECT_EQ(state.gv_ServerName, u"central");
    EXPECT_EQ(state.gv_ServerSecIPAddress, u"10.0.0.2");
    EXPECT_EQ(state.gv_ServerPort, 8443);
    EXPECT_EQ(state.gv_LastAccessName.view(), u"last");
    EXPECT_EQ(state.gv_agentID, u"box");
    EXPECT_EQ(state.gv_agentDNS, u"box.example");
    EXPECT_EQ(state.gv_localIPAddress, u"192.0.2.7");
    EXPECT_EQ(state.gv_writeInterval, 301);
    EXPECT_EQ(state.gv_MaxFilesInDir, 1500);
    EXPECT_EQ(state.gv_DataCollTmout, 360);
    EXPECT_TRUE(Logged("\t getCSDetails() :: CS name : central\n"));
    EXPECT_TRUE(Logged(" \tgetCSDetails() :: gv_DataCollTmout : 360\n"));
}

TEST_F(ServerDetails, AMissingValueStopsOrFallsBack) {
    SetAll();
    for (const Setting& missing : completeSettings) {
        SCOPED_TRACE(platform::Utf8FromWide(missing.name));
        Remove(missing);
        test::ResetAgentState();
        const std::size_t logged = LogText().size();
        EXPECT_EQ(getCSDetails(), missing.resultWithout);
        EXPECT_NE(LogText().find(missing.lineWithout, logged), std::string::npos);
        const bool all = missing.resultWithout == 0;
        const auto lacks = [&](std::u16string_view name) { return missing.name == name; };
        EXPECT_EQ(agentState.gv_MaxFilesInDir, all ? 1500 : 15) << "nothing after a missing required value is read";
        EXPECT_EQ(agentState.gv_agentKey.view(), !all                           ? u"NULL"
                                                 : lacks(u"MonitoringAgentKey") ? u"HUBCENTER"
                                                                                : u"key-1");
        EXPECT_EQ(agentState.gv_masterAgent, all && !lacks(u"MasterAgent") ? u"YES" : u"NO");
        EXPECT_EQ(agentState.gv_agentID.has_value(), all);
        EXPECT_EQ(agentState.gv_httpsEnabled, all && !lacks(u"KVServerProtocol") ? 0 : 1);
        EXPECT_EQ(agentState.gv_writeInterval, all && !lacks(u"writeInterval") ? 301 : 300);
        Set(missing);
    }
}

TEST_F(ServerDetails, ReadsValuesAsTheyAreMeant) {
    SetAll();
    for (const auto& [protocol, https] : {std::pair{u"HTTP", 0}, {u"HTTPS", 1}, {u"https", 1}, {u"ftp", 0}}) {
        Set({serverInfoKeyPath, u"KVServerProtocol", protocol});
        getCSDetails();
        EXPECT_EQ(agentState.gv_httpsEnabled, https) << platform::Utf8FromWide(protocol);
    }
    for (const auto& [address, kept] : {std::pair{u"ab", false}, {u"1.2", true}}) {
        Set({serverInfoKeyPath, u"KVServerSecIPAddress", address});
        EXPECT_EQ(getCSDetails(), 0);
        EXPECT_EQ(agentState.gv_ServerSecIPAddress.has_value(), kept);
    }
    Set({serverInfoKeyPath, u"KVServerSecurePort", u"84x"});
    EXPECT_EQ(getCSDetails(), 0);
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
        {"neither yes nor no", u"true", u"list", std::nullopt, u"<local>", std::nullopt},
        {"on, without a bypass list", u"YES", std::nullopt, u"proxy", std::nullopt, u"abc"},
        {"on", u"yes", u"list", u"proxy", u"list", u"abc"},
    };
    Set({agentKeyPath, u"ProxyServerName", u"proxy"});
    Set({agentKeyPath, u"ProxyPassword", u" YWJj "});
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        test::ResetAgentState();
        if (row.enabled) Set({agentKeyPath, u"ProxyEnabled", *row.enabled});
        if (row.bypass)
            Set({agentKeyPath, u"ProxyByPass", *row.bypass});
        else if (row.enabled)
            Remove({agentKeyPath, u"ProxyByPass", u""});
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
