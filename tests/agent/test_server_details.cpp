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
    Set({agentKeyPath, u"ProxyServerName", u"proxy"});
    Set({agentKeyPath, u"ProxyPassword", u" YWJj "});
    for (const auto& [enabled, on] : {std::pair{u"", false}, {u"true", false}, {u"yes", true}}) {
        SCOPED_TRACE(platform::Utf8FromWide(enabled));
        if (*enabled != 0) Set({agentKeyPath, u"ProxyEnabled", enabled});
        getProxyServerDetails();
        EXPECT_EQ(agentState.gv_proxyServerName.has_value(), on);
        EXPECT_EQ(agentState.gv_proxyPassword, on ? OptionalText(u"abc") : std::nullopt);
        EXPECT_EQ(agentState.gv_proxyExceptionAddr, on ? std::nullopt : OptionalText(u"<local>"));
    }
    Set({agentKeyPath, u"ProxyByPass", u"list"});
    getProxyServerDetails();
    EXPECT_EQ(agentState.gv_proxyExceptionAddr, u"list");
    EXPECT_FALSE(Logged("abc"));
}

}  // namespace
}  // namespace kv
