#include "exchange/request_dispatch.h"

#include <optional>
#include <utility>

#include "collection/snmp.h"
#include "exchange/local_requests.h"
#include "exchange/snmp_discovery.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/hash_table.h"
#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/request_types.h"
#include "foundation/server_limit.h"
#include "foundation/text.h"
#include "http/http_transaction.h"
#include "http/request_servlet.h"
#include "jsontext/hash_json.h"
#include "platform/files.h"
#include "queryconf/conf_paths.h"
#include "queryconf/config_reload.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;

/// How often one line may be written for a list: more often than a good list needs, not so often that old logs go.
constexpr std::uint32_t mostLines = 1000;

/// What the requests of one list leave to be done at its end.
struct ListResult {
    std::u16string lastRequestId;  // of the last request that had an id
    std::u16string confKeys;       // agents for which a plan was to be downloaded, separated by commas
};

using RequestHandler = void (*)(const HashTable* request, ListResult& result);

/// A text that a request needs; null, with a log line, when it is absent or something else.
const char16_t* NeededText(const HashTable* request, std::u16string_view key) {
    const char16_t* text = GetHashText(request, key);
    if (text) return text;
    ++agentHealth.requestsRefused;
    const LineBound::OfRefusal refusal;
    Log1("\t ParseRequestList :: A %s request without the text %s is skipped. Request id : %s\n",
         GetHashText(request, u"REQUEST_TYPE"), key, GetHashText(request, u"AGENT_REQUEST_ID"));
    return nullptr;
}

void DownloadQueryConf(const HashTable* request, ListResult& result) {
    Log3("\t Inside DownloadQueryConf() \n");
    const char16_t* agentKey = NeededText(request, u"AGENT_KEY");
    if (!agentKey) return;
    OptionalText url;
    if (ContainsHashKey(request, u"DOWNLOAD_URL")) {
        const char16_t* text = NeededText(request, u"DOWNLOAD_URL");
        if (!text) return;
        url = text;
    }
    if (!IsOwnAgentKey(agentKey) && !IsSlaveKey(agentKey)) {
        ++agentHealth.requestsRefused;
        const LineBound::OfRefusal refusal;
        Log1("\t ParseRequestList :: %s is not the key of an agent here. The DOWNLOAD_QUERYCONF request is skipped\n",
             agentKey);
        return;
    }
    // Noted first: if one of the two calls stops on its way, what they have changed by then is still scheduled.
    agentState.gv_queryConfReloadPending = true;
    if (!result.confKeys.empty()) result.confKeys += u',';
    result.confKeys += agentKey;
    RequestingConfigDetailstoCS(url);
    ReloadQueryConfDetails(agentKey);
}

/// Deletes a slave's plan. Its directory goes too unless it holds anything else.
void DeleteSlave(const std::u16string& directory, const std::u16string& plan) {
    if (const Error failure = Files().DeleteFileW(plan))
        Log1("\t ParseRequestList :: %s cannot be deleted. Error is [%d]\n", plan, failure);
    if (const Error failure = Files().RemoveDirectoryW(directory))
        Log1("\t ParseRequestList :: %s cannot be removed. Error is [%d]\n", directory, failure);
    ReloadAndScheduleQueryData();
}

void DeleteDevice(const HashTable* request, ListResult&) {
    Log3("\t Inside DeleteDevice() \n");
    const char16_t* device = NeededText(request, u"DEVICE_NAME");
    if (!device) return;
    Log2("\t ParseRequestList :: Device to delete : %s, agentKey : %s\n", device, agentState.gv_agentKey);
    if (IsOwnAgentKey(device)) {
        Log2("Dropping the DELETE_DEVICE request as agentKey points to MasterAgent");
        return;
    }
    if (!IsSlaveKey(device)) {
        ++agentHealth.requestsRefused;
        const LineBound::OfRefusal refusal;
        Log1("\t ParseRequestList :: %s is not the key of a slave. The DELETE_DEVICE request is skipped\n", device);
        return;
    }
    const std::u16string directory = ConcatStrings(conf_path::slavesDirectory, SlaveDirectoryName(device));
    const std::u16string plan = ConcatStrings(directory, u"\\").append(conf_path::planName);
    if (fileExists(plan)) DeleteSlave(directory, plan);
}

void ReadSnmpData(const HashTable* request, ListResult&) { CollectSNMPData(request, u"true"); }
void RefuseSnmpData(const HashTable* request, std::u16string_view) { RefuseSNMPData(request); }

void DiscoverDevice(const HashTable* request, ListResult&) { DiscoverSNMPDevices(request); }
void RefuseDiscovery(const HashTable* request, std::u16string_view) { DiscoverSNMPDevices(request, true); }

void ActOnThisComputer(const HashTable* request, ListResult&) { ExecWMIQuery(request); }
void RefuseAction(const HashTable* request, std::u16string_view reason) {
    ExecWMIQuery(request, std::u16string(reason));
}

/// A request whose failures the server is not told of.
void RefuseInSilence(const HashTable*, std::u16string_view) {}

struct RequestType {
    std::u16string_view name;
    RequestHandler serve;
    void (*refuse)(const HashTable* request, std::u16string_view reason);  // tells the server of a failure
};

constexpr RequestType requestTypes[] = {
    {u"TEST_MONITOR", ActOnThisComputer, RefuseAction},
    {u"START_SERVICE", ActOnThisComputer, RefuseAction},
    {u"STOP_SERVICE", ActOnThisComputer, RefuseAction},
    {u"SNMP_TEST_MONITOR", ReadSnmpData, RefuseSnmpData},
    {u"GET_INSTANCE_DATA", ReadSnmpData, RefuseSnmpData},
    {u"DOWNLOAD_QUERYCONF", DownloadQueryConf, RefuseInSilence},
    {u"DISCOVER_SNMP_DEVICES", DiscoverDevice, RefuseDiscovery},
    {u"DELETE_DEVICE", DeleteDevice, RefuseInSilence},
};

static_assert(std::ranges::equal(requestTypes, requestTypeNames, {}, &RequestType::name));

/// Serves a request of a type that the administrator allows.
void ServeAllowed(const RequestType& type, const HashTable* request, ListResult& result) {
    const std::u16string names[] = {std::u16string(type.name)};
    const std::optional<std::u16string> refusal = LimitOfRequests().Refusal(names);
    if (!refusal) return type.serve(request, result);
    ++agentHealth.requestsRefused;
    const LineBound::OfRefusal bound;
    Log1("\t ParseRequestList :: A %s request is refused: %s. Request id : %s\n", type.name, *refusal,
         GetHashText(request, u"AGENT_REQUEST_ID"));
    type.refuse(request, *refusal);
}

void Dispatch(const HashTable* request, ListResult& result) {
    const char16_t* name = GetHashText(request, u"REQUEST_TYPE");
    for (const RequestType& type : requestTypes) {
        if (name && type.name == name) return ServeAllowed(type, request, result);
    }
    ++agentHealth.requestsRefused;
    const LineBound::OfRefusal refusal;
    Log2("\t ParseRequestList :: Requests of type %s are unknown. Request id : %s\n", name,
         GetHashText(request, u"AGENT_REQUEST_ID"));
}

/// Names the request that is being served in the registry: if it brings the agent down, the next start drops it.
void MarkRequest(std::u16string_view id) {
    if (const Error failure = SetRequestID(id))
        Log1("\t ParseRequestList :: RequestID cannot be set to %s. Error is [%d]\n", id, failure);
}

void TakeRequestId(const HashTable* request, ListResult& result) {
    const char16_t* id = GetHashText(request, u"AGENT_REQUEST_ID");
    if (id) {
        Log2("\t ParseRequestList :: Going to set request id : %s\n", id);
        MarkRequest(id);
        result.lastRequestId = id;
    } else if (ContainsHashKey(request, u"AGENT_REQUEST_ID")) {
        const LineBound::OfRefusal refusal;
        Log1("\t ParseRequestList :: AGENT_REQUEST_ID is not a text. The request counts as one without id\n");
    }
}

void ServeRequest(const VectorElement* element, ListResult& result) {
    if (element->type != ValueType::table) {
        ++agentHealth.requestsRefused;
        const LineBound::OfRefusal refusal;
        Log1("\t ParseRequestList :: An element of RequestList is not an object. It is skipped\n");
        return;
    }
    const auto* request = reinterpret_cast<const HashTable*>(element->value);
    const std::uint64_t refusedBefore = agentHealth.requestsRefused;
    RunGuarded("ParseRequestList", [&] {
        TakeRequestId(request, result);
        Dispatch(request, result);
    });
    if (agentHealth.requestsRefused == refusedBefore) ++agentHealth.requestsServed;
    MarkRequest(u"NONE");
}

/// Brings the plans that came with the list into the schedule, all at once, and tells the server.
void FinishDownloads(const ListResult& result) {
    Log3("\t Inside FinishDownloads() \n");
    ReloadAndScheduleQueryData();
    Log1("\t ParseRequestList :: got queryconf : %s\n", result.confKeys);
    std::u16string url = RequestServletUrl();
    url.append(u"&action=DOWNLOAD_QUERYCONF&status=success&requestId=").append(QueryValue(result.lastRequestId));
    url.append(u"&moId=").append(QueryValue(result.confKeys));
    Log1("\t Download query conf status :: URL : %s\n", url);
    InternetGetRequest(agentState.gv_ServerName, agentState.gv_ServerPort, url, nullptr, false);
}

/// Loads the list; false when it cannot be read. A list that lacks RequestList has no requests.
bool LoadRequestList(HashTable* list, std::u16string_view fileName) {
    if (!fileExists(fileName)) {
        Log1("\t ParseRequestList :: testconf.txt file is not available\n");
        return false;
    }
    const JsonReadResult read = JSONFileToHash(list, fileName);
    if (!read.message.empty()) Log1("\t ParseRequestList :: %s\n", read.message);
    if (!read.ok) return false;
    if (!ContainsHashKey(list, u"RequestList")) {
        Log1("\t ParseRequestList :: %s has no RequestList\n", fileName);
        return true;
    }
    const bool isArray = GetHashVector(list, u"RequestList") != nullptr;
    if (!isArray) Log1("\t ParseRequestList :: The RequestList of %s is not an array\n", fileName);
    return isArray;
}

}  // namespace

bool ParseRequestList(std::u16string_view fileName) {
    const LineBound bound(mostLines);
    const HashTablePtr list = MakeHashTable();
    if (!list) {
        Log1("\t Initialise hash table is Failed\n");
        return false;
    }
    Log1("\t Inside ParseRequestList -- fileName : %s", fileName);
    const bool readable = LoadRequestList(list.get(), fileName);
    const Vector* requests = GetHashVector(list.get(), u"RequestList");
    Log1("\t ParseRequestList :: query conf - sortVec size: [%d]\n", requests ? requests->count : 0);
    ListResult result;
    for (const VectorElement* element = requests ? requests->head : nullptr; element; element = element->next)
        ServeRequest(element, result);
    if (agentState.gv_queryConfReloadPending) RunGuarded("ParseRequestList", [&] { FinishDownloads(result); });
    agentState.gv_queryConfReloadPending = false;
    return readable;
}

}  // namespace kv
