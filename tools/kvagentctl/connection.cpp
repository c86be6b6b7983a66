#include "tools/kvagentctl/connection.h"

#include <algorithm>
#include <fmt/format.h>

#include "agent/server_details.h"
#include "agent/server_trust.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "platform/utf.h"
#include "tools/kvagentctl/agent_process.h"

namespace kv::control {

namespace {

constexpr std::int32_t patience = 10000;  // milliseconds for a connection

}  // namespace

std::vector<ServerAddress> ServerAddresses() {
    constexpr struct {
        const char* name;
        platform::Error (*read)(OptionalText&);
    } settings[] = {{"KVLastAccessName", GetKVLastAccessName},
                    {"KVServerIPAddress", GetKVServerIPAddress},
                    {"KVServerSecIPAddress", GetKVServerSecIPAddress},
                    {"KVServerName", GetKVServerName},
                    {"KVServerFlatName", GetKVServerFlatName}};
    std::vector<ServerAddress> addresses;
    for (const auto& setting : settings) {
        OptionalText text;
        if (setting.read(text) != platform::error::success || !text || text->size() < 3) continue;
        const auto same = std::find_if(addresses.begin(), addresses.end(),
                                       [&](const ServerAddress& address) { return address.text == *text; });
        if (same == addresses.end())
            addresses.push_back({*text, setting.name});
        else
            same->settings += fmt::format(", {}", setting.name);
    }
    return addresses;
}

bool ReadConnection() {
    const LogLines silence([](std::string_view) {});
    OptionalText port, protocol;
    const platform::Error result = GetKVServerSecurePort(port);
    RequireReadableRegistry(result);
    if (result != platform::error::success) return false;
    agentState.gv_ServerPort = ParseDecimal(port.value_or(u""));
    if (GetKVServerProtocol(protocol) == platform::error::success)
        agentState.gv_httpsEnabled = CompareIgnoreCase(protocol, u"https") == 0 ? 1 : 0;
    agentState.gv_httpTimeout = patience;
    getProxyServerDetails();
    getServerTrust();
    return agentState.gv_ServerPort > 0;
}

bool UsesProxy() { return CompareIgnoreCase(agentState.gv_proxyEnabled, u"yes") == 0; }

std::string ProxyName() { return platform::Utf8FromWide(agentState.gv_proxyServerName.value_or(u"")); }

}  // namespace kv::control
