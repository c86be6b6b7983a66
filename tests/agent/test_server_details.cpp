// Server and proxy details from a real registry.
#include <optional>
#include <string>

#include "agent/server_details.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "platform/registry.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"

namespace kv {
namespace {

struct Setting {
    std::u16string_view key;
    std::u16string_view name;
    std::u16string_view data;
    platform::RegistryType type = platform::RegistryType::text;
};

constexpr std::u16string_view server = serverInfoKeyPath;
/// In the order of their reading.
const Setting requiredSettings[] = {
    {server, u"KVServerName", u"central"},          {server, u"KVServerFlatName", u"flat"},
    {server, u"KVServerIPAddress", u"10.0.0.1"},    {server, u"KVServerSecurePort", u"8443"},
    {agentKeyPath, u"CustomerName", u"customer"},   {server, u"KVLastAccessName", u"last"},
    {agentKeyPath, u"RemoteOfficeName", u"office"},
};
const Setting optionalSettings[] = {
    {server, u"KVServerSecIPAddress", u"1.2"},
    {server, u"KVServerProtocol", u"HTTP"},
    {monitoringKeyPath, u"MonitoringAgentKey", u"key-1"},
    {monitoringKeyPath, u"MasterAgent", u"YES"},
    {monitoringKeyPath, u"writeInterval", u"301", platform::RegistryType::dword},
};

class ServerDetails : public test::TestAgent {
  protected:
    void Set(const Setting& setting) {
        ASSERT_EQ(writeValue(platform::RootKey::localMachine, setting.key, setting.name, setting.data, setting.type),
                  platform::error::success);
    }
};

TEST_F(ServerDetails, AMissingValueStopsOrFallsBack) {
    const AgentState& state = agentState;
    for (const Setting& missing : requiredSettings) {
        EXPECT_EQ(getCSDetails(), 13) << platform::Utf8FromWide(missing.name);
        EXPECT_EQ(state.gv_agentID, std::nullopt) << "it stops there";
        Set(missing);
    }
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(state.gv_ServerName, u"central");
    EXPECT_EQ(state.gv_ServerPort, 8443);
    EXPECT_EQ(state.gv_LastAccessName.view(), u"last");
    EXPECT_TRUE(state.gv_agentID.has_value());
    EXPECT_EQ(state.gv_httpsEnabled, 1);
    EXPECT_EQ(state.gv_agentKey.view(), u"HUBCENTER");
    EXPECT_EQ(state.gv_masterAgent, u"NO");
    EXPECT_EQ(state.gv_writeInterval, 300);
    for (const Setting& setting : optionalSettings) Set(setting);
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(state.gv_ServerSecIPAddress, u"1.2");
    EXPECT_EQ(state.gv_httpsEnabled, 0);
    EXPECT_EQ(state.gv_agentKey.view(), u"key-1");
    EXPECT_EQ(state.gv_masterAgent, u"YES");
    EXPECT_EQ(state.gv_writeInterval, 301);
    Set({server, u"KVServerSecIPAddress", u"ab"});
    Set({server, u"KVServerSecurePort", u"84x"});
    EXPECT_EQ(getCSDetails(), 0);
    EXPECT_EQ(state.gv_ServerSecIPAddress, std::nullopt) << "too short for an address";
    EXPECT_TRUE(Logged("KVServerSecurePort is no port number : 84x\n"));
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
    EXPECT_FALSE(Logged("abc"));
}

}  // namespace
}  // namespace kv
