#include "agent/server_details.h"

#include <string>
#include <utility>

#include "agent/log_file.h"
#include "agent/server_trust.h"
#include "foundation/agent_state.h"
#include "foundation/guarded.h"
#include "foundation/host_utils.h"
#include "foundation/log.h"
#include "foundation/proxy_password.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "platform/messages.h"
#include "platform/system_facts.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
namespace error = platform::error;

constexpr std::int32_t requiredValueMissing = error::invalidData;

/// The last reason for which the registry failed, other than that a value is absent. Settings are read by one thread.
Error registryFailure = error::success;

bool Fetched(bool found, const char* failureLine) {
    if (!found) Log1(failureLine);
    return found;
}

/// True when a read went well; else writes its failure line.
bool Fetched(Error result, const char* failureLine) {
    if (result != error::success && !IsGone(result)) registryFailure = result;
    return Fetched(result == error::success, failureLine);
}

/// Reads a text and publishes it; after a failure it is absent.
Error Publish(PublishedText& field, Error (*read)(OptionalText&)) {
    OptionalText text;
    const Error result = read(text);
    field.Publish(text);
    return result;
}

Error ReadServerPort() {
    OptionalText text;
    const Error result = GetKVServerSecurePort(text);
    if (result != error::success) return result;
    agentState.gv_ServerPort = ParseDecimal(text.value_or(u""));
    if (agentState.gv_ServerPort < 1 || agentState.gv_ServerPort > 65535)
        Log1("\t getCSDetails() :: KVServerSecurePort is not a port number : %s\n", text);
    return result;
}

/// False at the first required value that is missing: the later ones are then not read.
bool ReadServer() {
    AgentState& state = agentState;
    if (!Fetched(GetKVServerName(state.gv_ServerName),
                 "\t getCSDetails() :: Not able to fetch the KVServerName. gv_ServerName updated with NULL value\n"))
        return false;
    if (!Fetched(GetKVServerFlatName(state.gv_ServerFlatName),
                 "\t getCSDetails() :: Not able to fetch the KVServerFlatName. gv_ServerFlatName updated with NULL "
                 "value\n"))
        return false;
    constexpr const char* addressMissing =
        "\t getCSDetails() :: Not able to fetch the KVServerIPAddress. gv_ServerIPAddress file is updated with NULL "
        "value\n";
    if (!Fetched(GetKVServerIPAddress(state.gv_ServerIPAddress), addressMissing)) return false;
    Fetched(GetKVServerSecIPAddress(state.gv_ServerSecIPAddress), addressMissing);  // optional
    if (!Fetched(ReadServerPort(),
                 "\t getCSDetails() :: Not able to fetch the KVServerPort. gv_ServerPort is not updated \n"))
        return false;
    if (!Fetched(GetCustomerName(state.gv_custID),
                 "\t getCSDetails() :: Not able to fetch the CustomerName. gv_custID is not updated \n"))
        return false;
    if (!Fetched(Publish(state.gv_LastAccessName, GetKVLastAccessName),
                 "\t getCSDetails() :: Not able to fetch the KVLastAccessName. gv_LastAccessName updated with NULL "
                 "value\n"))
        return false;
    return Fetched(GetRemoteOfficeName(state.gv_remoteOfficeName),
                   "\t getCSDetails() :: Not able to fetch the RemoteOfficeName. gv_remoteOfficeName is not updated "
                   "\n");
}

/// Anything but "https" means plain HTTP. What is neither may be a slip, and leaves a line.
void TakeProtocol(const OptionalText& protocol) {
    agentState.gv_httpsEnabled = CompareIgnoreCase(protocol, u"https") == 0 ? 1 : 0;
    if (!agentState.gv_httpsEnabled && CompareIgnoreCase(protocol, u"http") != 0)
        Log1("\t getCSDetails() :: KVServerProtocol is neither https nor http and counts as http : %s\n", protocol);
}

/// Protocol, key and master flag; each has a fallback.
void ReadProtocolAndKey() {
    AgentState& state = agentState;
    OptionalText protocol;
    if (Fetched(GetKVServerProtocol(protocol),
                "\t getCSDetails() :: Not able to fetch the KVServerProtocol. Protocol is set to default value -- "
                "HTTPS \n"))
        TakeProtocol(protocol);
    else
        state.gv_httpsEnabled = 1;
    // The line says NULL; the value is the sign, for the enrolment, that no key exists yet.
    if (!Fetched(Publish(state.gv_agentKey, GetOCAgentKey),
                 "\t getCSDetails() :: Not able to fetch the GetOCAgentKey and assign it to gv_agentKey. Assigning "
                 "NULL value\n"))
        state.gv_agentKey.Publish(u"HUBCENTER");
    if (!Fetched(GetMasterAgent(state.gv_masterAgent),
                 "\t getCSDetails() :: Not able to fetch the MasterAgent Flag and assign it to gv_masterAgent. "
                 "Assigning default value\n"))
        state.gv_masterAgent = u"NO";
}

/// False at the first name of this computer that cannot be obtained. A missing address stops nothing: it may come with
/// the network.
bool ReadComputer() {
    if (!Fetched(GetLocalComputerName(agentState.gv_agentID),
                 "\t getCSDetails :: Not able to fetch the GetLocalComputerName and assign it to gv_agentID\n") ||
        !Fetched(GetComputerNameWithDNS(agentState.gv_agentDNS),
                 "\t getCSDetails :: Not able to fetch the GetComputerNameWithDNS and assign it to gv_agentDNS\n"))
        return false;
    Fetched(GetLocalIPAddr(agentState.gv_localIPAddress),
            "\t getCSDetails :: Not able to fetch the GetLocalIPAddress and assign it to gv_localIPAddress\n");
    return true;
}

/// A number accessor never fails: it gives its fallback.
std::int32_t Number(Error (*read)(std::uint32_t&)) {
    std::uint32_t number = 0;
    read(number);
    return static_cast<std::int32_t>(number);
}

void ReadNumbers() {
    agentState.gv_configInterval = Number(GetConfigInterval);
    agentState.gv_writeInterval = Number(GetWriteInterval);
    agentState.gv_MaxFilesInDir = Number(GetMaxFilesInDir);
    agentState.gv_MaxFilestobeSend = Number(GetMaxFilestobeSend);
    agentState.gv_SysInfoInterval = Number(GetSysInfoInterval);
    agentState.gv_DataCollTmout = Number(GetDataCollectionTimeout);
}

void PrintDetails() {
    const AgentState& state = agentState;
    Log2("\t getCSDetails() :: CS name : %s\n", state.gv_ServerName);
    Log2("\t getCSDetails() :: CS flat name : %s\n", state.gv_ServerFlatName);
    Log2("\t getCSDetails() :: CS IP address : %s\n", state.gv_ServerIPAddress);
    Log2("\t getCSDetails() :: CS secondary IP address : %s\n", state.gv_ServerSecIPAddress);
    Log2("\t getCSDetails() :: CS port : %d\n", state.gv_ServerPort);
    Log2("\t getCSDetails() :: customer name : %s\n", state.gv_custID);
    Log2("\t getCSDetails() :: last access name : %s\n", state.gv_LastAccessName);
    Log2("\t getCSDetails() :: remote office name : %s\n", state.gv_remoteOfficeName);
    Log2("\t getCSDetails() :: https enabled : %d\n", state.gv_httpsEnabled);
    Log2("\t getCSDetails() :: agent key : %s\n", state.gv_agentKey);
    Log2("\t getCSDetails() :: master agent : %s\n", state.gv_masterAgent);
    Log2("\t getCSDetails() :: agent ID : %s\n", state.gv_agentID);
    Log2("\t getCSDetails() :: agent DNS : %s\n", state.gv_agentDNS);
    Log2("\t getCSDetails() :: local IP address : %s\n", state.gv_localIPAddress);
    Log2("\t getCSDetails() :: resource ID : %s\n", state.gv_kvAgentResourceID);
    Log2("\t getCSDetails() :: gv_configInterval : %d\n", state.gv_configInterval);
    Log2("\t getCSDetails() :: gv_writeInterval : %d\n", state.gv_writeInterval);
    Log2("\t getCSDetails() :: gv_MaxFilesInDir : %d\n", state.gv_MaxFilesInDir);
    Log2("\t getCSDetails() :: gv_MaxFilestobeSend : %d\n", state.gv_MaxFilestobeSend);
    Log2("\t getCSDetails() :: gv_SysInfoInterval : %d\n", state.gv_SysInfoInterval);
    Log2(" \tgetCSDetails() :: gv_DataCollTmout : %d\n", state.gv_DataCollTmout);
}

bool ProxyIsEnabled() { return CompareIgnoreCase(agentState.gv_proxyEnabled, u"yes") == 0; }

/// The password in clear from the service manager, in UTF-8. Editors end a file with a line end, which is not part of
/// it.
void ReadProxyCredential() {
    std::string secret;
    const Error result = platform::SystemFacts().ReadCredential("proxy-password", secret);
    if (result == error::fileNotFound) return;
    if (result != error::success) {
        Log1("\t Error in reading the credential proxy-password: %s (error %d). gv_proxyPassword is not updated\n",
             platform::MessageInLine(result), result);
        return;
    }
    if (secret.ends_with('\n')) secret.pop_back();
    if (secret.ends_with('\r')) secret.pop_back();
    agentState.gv_proxyPassword = platform::WideFromUtf8(secret);
    Log2("\t getProxyServerDetails() :: the proxy's password is that of the credential proxy-password\n");
}

void ReadProxy() {
    Fetched(GetProxyServerName(agentState.gv_proxyServerName),
            "\t Error in fetching the proxy server name from the registry. gv_proxyServerName is not updated\n");
    Fetched(GetProxyUserName(agentState.gv_proxyUserName),
            "\t Error in fetching the proxy user name from the registry. gv_proxyUserName is not updated\n");
    Fetched(GetProxyByPass(agentState.gv_proxyExceptionAddr),
            "\t Error in fetching the proxy by pass list from the registry. gv_proxyExceptionAddr is not updated\n");
    OptionalText encoded;
    agentState.gv_proxyPassword.reset();
    const Error result = GetProxyPassword(encoded);
    if (result == error::success && encoded) agentState.gv_proxyPassword = DecodeBase64(*encoded);
    if (result == error::fileNotFound) ReadProxyCredential();
}

/// Makes the texts of getCSDetails absent.
void FreeServerTexts() {
    AgentState& state = agentState;
    for (OptionalText* text :
         {&state.gv_ServerName, &state.gv_ServerIPAddress, &state.gv_ServerSecIPAddress, &state.gv_custID,
          &state.gv_agentID, &state.gv_agentDNS, &state.gv_ServerFlatName, &state.gv_localIPAddress,
          &state.gv_masterAgent, &state.gv_kvAgentResourceID, &state.gv_remoteOfficeName})
        text->reset();
    for (PublishedText* text : {&state.gv_agentKey, &state.gv_SNMPTimeout, &state.gv_LastAccessName})
        text->Publish(std::nullopt);
}

}  // namespace

std::int32_t getCSDetails() {
    Log3("\t Inside getCSDetails() \n");
    if (!ReadServer()) return requiredValueMissing;
    ReadProtocolAndKey();
    if (!ReadComputer()) return requiredValueMissing;
    Fetched(GetKVAgentResourceID(agentState.gv_kvAgentResourceID),
            "\t getCSDetails :: Not able to fetch the KVAgentResourceID.\n");
    ReadNumbers();
    PrintDetails();
    return 0;
}

void getProxyServerDetails() {
    Log3("\t Inside getProxyServerDetails() \n");
    if (EnsureCryptoKeys())
        Log3("\t getProxyServerDetails() :: Cryptographic client ok\n");
    else
        Log3("\t getProxyServerDetails() :: Cryptographic client error\n");
    Fetched(GetProxyEnabled(agentState.gv_proxyEnabled),
            "\t Error in reading whether the proxy is enabled. gv_proxyEnabled is NO\n");
    if (ProxyIsEnabled())
        ReadProxy();
    else
        Log3("\t getProxyServerDetails() :: proxy is not enabled \n");
    Log2("\t getProxyServerDetails() :: proxy server Enabled : %s\n", agentState.gv_proxyEnabled);
    Log2("\t getProxyServerDetails() :: proxy server name : %s\n", agentState.gv_proxyServerName);
    Log2("\t getProxyServerDetails() :: proxy user name : %s\n", agentState.gv_proxyUserName);
    Log2("\t getProxyServerDetails() :: proxy ByPass : %s\n", agentState.gv_proxyExceptionAddr);
}

void SetDefaults() {
    const AgentState defaults;
    AgentState& state = agentState;
    state.gv_ServerName = defaults.gv_ServerName;
    state.gv_ServerPort = defaults.gv_ServerPort;
    state.gv_ServerIPAddress = defaults.gv_ServerIPAddress;
    state.gv_queryConfHash = defaults.gv_queryConfHash;
    state.gv_configInterval = defaults.gv_configInterval;
    state.gv_writeInterval = defaults.gv_writeInterval;
    state.gv_MaxFilestobeSend = defaults.gv_MaxFilestobeSend;
    state.gv_MaxFilesInDir = defaults.gv_MaxFilesInDir;
    state.gv_SysInfoInterval = defaults.gv_SysInfoInterval;
    state.gv_DataCollTmout = defaults.gv_DataCollTmout;
    state.gv_collectData = defaults.gv_collectData.load();
    state.gv_httpsEnabled = defaults.gv_httpsEnabled;
    state.gv_httpTimeout = defaults.gv_httpTimeout;
    state.gv_proxyEnabled = defaults.gv_proxyEnabled;
    state.gv_proxyServerName = defaults.gv_proxyServerName;
    state.gv_proxyUserName = defaults.gv_proxyUserName;
    state.gv_proxyPassword = defaults.gv_proxyPassword;
    state.gv_proxyExceptionAddr = defaults.gv_proxyExceptionAddr;
    state.gv_agentID = defaults.gv_agentID;
    state.gv_agentDNS = defaults.gv_agentDNS;
    state.gv_agentKey.Publish(defaults.gv_agentKey.view());
    state.gv_SNMPTimeout.Publish(defaults.gv_SNMPTimeout.view());
    state.gv_masterAgent = defaults.gv_masterAgent;
    state.gv_timeDiff = defaults.gv_timeDiff.load();
    state.gv_loadqueryconf = defaults.gv_loadqueryconf;
    state.gv_agentRunFlag = defaults.gv_agentRunFlag.load();
}

void LoadSettings(const char* missingLine) {
    const auto read = [missingLine] {
        registryFailure = error::success;
        RunGuarded("getCSDetails", [missingLine] {
            if (getCSDetails() != 0 && missingLine) Log1(missingLine);
        });
        RunGuarded("getProxyServerDetails", getProxyServerDetails);
        return registryFailure;
    };
    AskForAMinute(read, [](Error failure) {
        Log1("\t getCSDetails() :: settings cannot be read, and are read again for a minute. Error is [%d]\n", failure);
    });
    RunGuarded("getServerTrust", getServerTrust);
}

void ReloadSettings() {
    Log3("\t Inside ReloadSettings() \n");
    FreeServerTexts();
    FreeProxyDetails();
    RunGuarded("SetDefaults", SetDefaults);
    LoadSettings();
}

void FreeAllResources() {
    Log1("\t Inside FreeAllResources() \n");
    // Once other threads work, nothing tells when they read the state for the last time: the end of the process frees
    // it.
    if (!agentState.gv_isMainThreadStarted) {
        FreeCSDetails();
        FreeProxyDetails();
        FreeAllHashTable(std::exchange(agentState.gv_queryConfHash, nullptr));
    }
    StopLogging();
}

void FreeCSDetails() {
    Log3("\t Inside FreeCSDetails() \n");
    FreeServerTexts();
    agentState.gv_ocAgentBinPath.reset();
}

void FreeProxyDetails() {
    Log3("\t Inside FreeProxyDetails() \n");
    if (ProxyIsEnabled()) {
        for (OptionalText* text : {&agentState.gv_proxyServerName, &agentState.gv_proxyUserName,
                                   &agentState.gv_proxyPassword, &agentState.gv_proxyExceptionAddr})
            text->reset();
    }
    agentState.gv_proxyEnabled.reset();
}

}  // namespace kv
