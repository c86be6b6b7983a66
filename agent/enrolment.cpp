#include "agent/enrolment.h"

#include <array>
#include <string>
#include <string_view>

#include "agent/service_admin.h"
#include "collection/record_file.h"
#include "exchange/http_transaction.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/host_utils.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "platform/clock.h"
#include "platform/errors.h"

namespace kv {

namespace {

constexpr std::uint32_t retryMilliseconds = 60000;

/// The text stored where the registry has no key yet, and the one from before the registry was read.
bool HasKey() {
    const std::u16string_view key = agentState.gv_agentKey.view();
    return !key.empty() && CompareIgnoreCase(key, u"HUBCENTER") != 0 && CompareIgnoreCase(key, u"NULL") != 0;
}

std::u16string RegistrationUrl() {
    const std::array<std::pair<std::u16string_view, std::u16string>, 7> parameters{{
        {u"agentKey", std::u16string(agentState.gv_agentKey.view())},
        {u"agentID", agentState.gv_agentID.value_or(u"")},
        {u"agentDNS", agentState.gv_agentDNS.value_or(u"")},
        {u"ipAddress", agentState.gv_localIPAddress.value_or(u"")},
        {u"customerName", agentState.gv_custID.value_or(u"")},
        {u"remoteOffice", agentState.gv_remoteOfficeName.value_or(u"")},
        {u"osName", GetOSName()},
    }};
    std::u16string url = u"/servlets/RegisterAgent";
    char16_t separator = u'?';
    for (const auto& [name, value] : parameters) {
        url += separator;
        url += name;
        url += u'=';
        url += QueryValue(value);
        separator = u'&';
    }
    return url;
}

/// One exchange; true when the server has answered and the agent knows whether and with which key to run.
bool Register() {
    Log3("\t Inside Register() \n");
    agentState.gv_agentRunFlag = 1;
    std::u16string url = RegistrationUrl();
    Log2("\t InitLicenseParams :: URL is %s\n", url);
    const platform::Error error = AgentSendRequest(agentState.gv_ServerName, agentState.gv_ServerPort, url, {}, nullptr,
                                                   RequestKind::REQUEST_GET_HEADERS, 0, false);
    if (error != platform::error::success) {
        Log1("\t InitLicenseParams :: The server did not register this agent. retVal is [%d] \n", error);
        return false;
    }
    if (agentState.gv_agentRunFlag == 1 && !HasKey()) {
        Log1("\t InitLicenseParams :: The server answered without an agent key\n");
        return false;
    }
    return true;
}

/// True when the server has registered the agent; false when it goes on with the key it has, or is told not to run.
bool Enrol() {
    while (!Register()) {
        if (agentState.gv_agentRunFlag != 1) return false;
        if (HasKey()) {
            Log1("\t InitLicenseParams :: Going on with the agent key of an earlier run\n");
            return false;
        }
        Log1("\t InitLicenseParams :: Trying again in %d seconds\n", retryMilliseconds / 1000);
        platform::Clock().Sleep(retryMilliseconds);
    }
    Log1("\t InitLicenseParams :: Registered with agent key %s\n", agentState.gv_agentKey);
    return true;
}

/// The settings may have ended ahead of the key; the key of an earlier run counts all the same.
void TakeStoredKey() {
    OptionalText key;
    if (CompareIgnoreCase(agentState.gv_agentKey.view(), u"NULL") == 0 &&
        GetOCAgentKey(key) == platform::error::success && key) {
        agentState.gv_agentKey.publish(key);
    }
}

}  // namespace

void InitLicenseParams() {
    Log3("\t Inside InitLicenseParams() \n");
    TakeStoredKey();
    if (CompareIgnoreCase(agentState.gv_agentKey.view(), u"HUBCENTER") == 0) {
        Log3("\t InitLicenseParams :: Going to delete slave dir...\n");
        DeleteDirectoryRecursively(agentState.gv_ocAgentBinPath.value_or(u"") + u"..\\conf\\slaves\\");
    }
    const bool registered = Enrol();
    if (agentState.gv_agentRunFlag != 1) {
        StopService();
        return;
    }
    if (registered) SetEnableSendAgentStatus(u"yes");
    RemoveUnfinishedRecordFiles();
    VerifyLastFileNum();
}

}  // namespace kv
