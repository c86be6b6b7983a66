#include "exchange/snmp_discovery.h"

#include <array>
#include <utility>

#include "collection/record_members.h"
#include "collection/snmp_query.h"
#include "foundation/agent_state.h"
#include "foundation/host_utils.h"
#include "foundation/log.h"
#include "http/request_servlet.h"
#include "jsontext/hash_json.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr std::array<const char*, 3> identityOids = {
    ".1.3.6.1.2.1.1.2.0",  // sysObjectID
    ".1.3.6.1.2.1.1.1.0",  // sysDescr
    ".1.3.6.1.2.1.1.5.0",  // sysName
};
constexpr std::u16string_view noResponse = u"NO RESPONSE";
constexpr std::int32_t identityCount = identityOids.size();

/// What is found out about a device.
struct Discovery {
    std::u16string address;
    std::u16string name;
    std::u16string community;
    std::array<std::u16string, identityOids.size()> identity;  // as identityOids
    std::u16string version;
};

bool HasFirstEntry(const SnmpResponsePtr& response) {
    return response && response->results && response->oidCount > 0 && response->results[0];
}

/// Asks in SNMPv2c, and once more in SNMPv1 when that brings nothing.
SnmpResponsePtr AskForIdentity(const HashTable* request, Discovery& discovery) {
    const std::string host = platform::Utf8FromWide(discovery.address);
    const std::string community = platform::Utf8FromWide(discovery.community);
    discovery.version = u"v2";
    std::int32_t port = 0;
    if (!SnmpPort(request, port)) return nullptr;
    const std::int32_t timeout = SnmpTimeout(request, MemberText(request, u"SNMP_TIMEOUT"));
    const auto ask = [&](const char* version) {
        return SnmpResponsePtr(SnmpManagerRequest(host.c_str(), port, timeout, community.c_str(), snmpGet, version,
                                                  identityOids.data(), identityCount,
                                                  static_cast<std::int32_t>(logState.gv_logLevel.load()), nullptr));
    };
    SnmpResponsePtr response = ask("v2c");
    if (HasFirstEntry(response)) return response;
    discovery.version = u"v1";
    response.reset();
    return ask("v1");
}

/// Takes the values up to the first that is missing. When a whole entry is missing, none counts.
void TakeIdentity(const SnmpResponseData* response, Discovery& discovery) {
    discovery.identity.fill(std::u16string(noResponse));
    for (std::size_t i = 0; i < identityOids.size(); ++i) {
        const bool hasEntries = response && response->results && std::cmp_less(i, response->oidCount);
        const SnmpVarList* entry = hasEntries ? response->results[i] : nullptr;
        if (!entry) {
            Log1("No response from SNMP Agent. Hence, quiting!!!");
            discovery.identity.fill(std::u16string(noResponse));
            return;
        }
        const SnmpValue* value = entry->valueCount > 0 ? entry->values[0] : nullptr;
        if (!value || !value->value) return;
        discovery.identity[i] = SnmpValueText(*value);
    }
}

/// What is known of a device before it is looked up and asked.
Discovery WithoutResponse(const HashTable* request) {
    Discovery discovery;
    discovery.address = discovery.name = MemberText(request, u"DEVICE_NAME").value_or(u"");
    discovery.community = SnmpCommunity(request);
    discovery.identity.fill(std::u16string(noResponse));
    discovery.version = u"v1";
    return discovery;
}

Discovery Discover(const HashTable* request) {
    Discovery discovery = WithoutResponse(request);
    const std::u16string device = discovery.name;
    OptionalText name, address;
    if (device.empty() || !GetRemoteHostDetails(device, name, address)) {
        Log1("Error in getting the IPAddress of the Device. Hence, quiting!!!");
        Log1("\t DiscoverSNMPDevices :: no IPv4 address is found for %s \n", SnmpRecordName(request));
        discovery.identity.fill(u"INVALID IPADDRESS");
        discovery.version = u"INVALID IPADDRESS";
        return discovery;
    }
    discovery.address = address.value_or(device);
    discovery.name = name.value_or(device);
    TakeIdentity(AskForIdentity(request, discovery).get(), discovery);
    if (discovery.identity[0] == noResponse)
        Log1("\t DiscoverSNMPDevices :: %s does not tell what it is \n", SnmpRecordName(request));
    return discovery;
}

/// Ahead of what was found, in this order.
constexpr RecordMember replyMembers[] = {record_member::agentKey, record_member::requestId, record_member::customerId};

void PutFound(HashTable* reply, const HashTable* request, const Discovery& found) {
    PutHashText(reply, u"RemoteOffice", agentState.gv_remoteOfficeName.value_or(u""));
    PutHashText(reply, u"IPAddress", found.address);
    PutHashText(reply, u"DNSName", found.name);
    PutHashText(reply, u"Community", found.community);
    PutHashText(reply, u"SNMPPort", MemberText(request, u"SNMP_PORT").value_or(u""));
    PutHashText(reply, u"SYSOID", found.identity[0]);
    PutHashText(reply, u"SYSNAME", found.identity[2]);
    PutHashText(reply, u"SYSDESC", found.identity[1]);
    PutHashText(reply, u"SNMPVersion", found.version);
}

}  // namespace

void DiscoverSNMPDevices(const HashTable* request, bool isRefused) {
    Log3("\t Inside DiscoverSNMPDevices() \n");
    const HashTablePtr reply = MakeHashTable();
    if (!reply) {
        Log1("\tDiscoverSNMPDevices: Init Failed -- SystemInfo\n");
        return;
    }
    const Discovery found = isRefused ? WithoutResponse(request) : Discover(request);
    PutMembers(reply.get(), replyMembers, {.asked = request});
    PutFound(reply.get(), request, found);
    PostRequestAnswer(u"DISCOVER_SNMP_DEVICES", RequestText(request, u"AGENT_REQUEST_ID"),
                      HashToJSONString(reply.get()));
    Log3("DiscoverSNMPDevices : Successfully executed the command \n");
}

}  // namespace kv
