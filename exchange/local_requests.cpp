#include "exchange/local_requests.h"

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "collection/record_members.h"
#include "collection/wmi_query.h"
#include "collection/wmi_text.h"
#include "exchange/service_control.h"
#include "foundation/agent_health.h"
#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "foundation/server_limit.h"
#include "foundation/text.h"
#include "http/request_servlet.h"
#include "jsontext/hash_json.h"
#include "platform/service_manager.h"

namespace kv {

namespace {

/// A type of request that changes a service.
struct ServiceAction {
    std::u16string_view type;
    const char* announcement;
    bool (*run)(std::u16string_view service);
    std::u16string_view done;
    std::u16string_view failure;
};

constexpr std::array serviceActions = {
    ServiceAction{u"START_SERVICE", "\tExecWMIQuery: Going to start windows service [%s]\n", StartServiceAndWait,
                  u"STARTED", u"Unable to start Service"},
    ServiceAction{u"STOP_SERVICE", "\tExecWMIQuery: Going to stop windows service [%s]\n", StopServiceAndWait,
                  u"STOPPED", u"Unable to stop Service"},
};

/// Null for a type that does not change a service.
const ServiceAction* FindServiceAction(std::u16string_view type) {
    for (const ServiceAction& action : serviceActions) {
        if (action.type == type) return &action;
    }
    return nullptr;
}

/// Behind the rows, in this order.
constexpr RecordMember replyMembers[] = {record_member::errorMessage, record_member::collectTime,
                                         record_member::agentKey, record_member::requestId, record_member::customerId};

/// A request and the reply to it, as it is being made.
struct Exchange {
    const HashTable* request;
    std::u16string type;
    std::u16string id;
    HashTablePtr reply = MakeHashTable();
    VectorPtr rows = MakeVector();
    OptionalText message = {};  // how the query or the action ended; null when nothing was run
    OptionalText refusal = {};  // why the request is not served at all; null when it is
};

/// A text of the request; null when it is absent or, with a line, when it is something else.
OptionalText Member(const HashTable* request, std::u16string_view key) {
    if (const char16_t* text = GetHashText(request, key)) return text;
    const LineBound::OfRefusal refusal;
    if (ContainsHashKey(request, key)) Log1("\t ExecWMIQuery :: %s is not a text and counts as absent\n", key);
    return std::nullopt;
}

/// A text that the request cannot be served without, in whole or in part; a line when it is missing.
OptionalText NeededMember(const Exchange& exchange, std::u16string_view key) {
    OptionalText text = Member(exchange.request, key);
    if (!text) {
        const LineBound::OfRefusal refusal;
        Log1("\t ExecWMIQuery :: A %s request without the text %s. Request id : %s\n", exchange.type, key, exchange.id);
    }
    return text;
}

/// Without a name the rows are put under an empty one.
void TestMonitor(Exchange& exchange, std::u16string_view name) {
    const OptionalText query = NeededMember(exchange, u"WMIQUERY");
    if (!query) return;
    exchange.message = exchange.refusal
                           ? FormatWMIError(platform::wmi_status::accessDenied, *exchange.refusal)
                           : WMIFunction(Member(exchange.request, u"NAME_SPACE"), query, exchange.rows.get());
    PutRows(exchange.reply.get(), name, std::move(exchange.rows));
}

/// Whether the administrator lets servers change a service; a line when not. A service goes by its own name: an alias
/// of a service that is not allowed does not help.
bool IsAllowed(const Exchange& exchange, const std::u16string& service) {
    const ServerLimit limit = LimitOfServices();
    if (!limit.isSet()) return true;
    if (const std::optional<std::u16string> refusal = limit.RefusalOfAll()) {
        ++agentHealth.requestsRefused;
        const LineBound::OfRefusal bound;
        Log1("\t ExecWMIQuery :: A %s request for the service %s is refused: %s. Request id : %s\n", exchange.type,
             service, *refusal, exchange.id);
        return false;
    }
    platform::OwnedServiceHandle manager;
    std::vector<std::u16string> names;
    platform::Error failure = platform::ServiceManager().OpenSCManagerW(platform::manager_right::all, manager.Place());
    if (failure == platform::error::success)
        failure = platform::ServiceManager().ListServiceNames(manager.get(), service, names);
    const std::optional<std::u16string> refusal = limit.Refusal(names);
    if (!refusal) return true;
    ++agentHealth.requestsRefused;
    const LineBound::OfRefusal bound;
    if (failure == platform::error::success) {
        Log1("\t ExecWMIQuery :: A %s request for the service %s (%s) is refused: %s. Request id : %s\n", exchange.type,
             service, names.front(), *refusal, exchange.id);
    } else {
        Log1(
            "\t ExecWMIQuery :: A %s request for the service %s is refused under AllowedServices: which service that "
            "is cannot be told (%d). Request id : %s\n",
            exchange.type, service, failure, exchange.id);
    }
    return false;
}

bool RunAction(const Exchange& exchange, const ServiceAction& action) {
    if (exchange.refusal) return false;
    const OptionalText service = NeededMember(exchange, u"SERVICE_NAME");
    if (!service || !IsAllowed(exchange, *service)) return false;
    Log3(action.announcement, *service);
    return action.run(*service);
}

void ChangeService(Exchange& exchange, const ServiceAction& action, std::u16string_view name) {
    const bool isDone = RunAction(exchange, action);
    HashTablePtr row = MakeHashTable();
    if (!row) {
        Log1("\tWMIFunction :: InitHashTable Failed\n");
    } else {
        PutHashText(row.get(), name, isDone ? action.done : u"FAILED");
        AppendTable(exchange.rows.get(), std::move(row));
    }
    PutRows(exchange.reply.get(), exchange.id, std::move(exchange.rows));
    exchange.message = isDone ? u"NO ERROR" : action.failure;
}

/// Does what the request says, and puts what came of it into the reply and the message.
void Serve(Exchange& exchange) {
    const ServiceAction* action = FindServiceAction(exchange.type);
    const std::u16string name = NeededMember(exchange, u"MONITOR_NAME").value_or(u"");
    const std::u16string& resultName = action ? exchange.id : name;
    if (HasMember(replyMembers, resultName)) {
        const LineBound::OfRefusal refusal;
        Log1("\t ExecWMIQuery :: A %s request is not served, because %s is another member of its reply\n",
             exchange.type, resultName);
        exchange.message = ConcatStrings(u"Not served: another member of the reply is named ", resultName);
    } else if (action) {
        ChangeService(exchange, *action, name);
    } else {
        TestMonitor(exchange, name);
    }
}

void SendReply(const Exchange& exchange) {
    const std::u16string json = HashToJSONString(exchange.reply.get());
    Log2("\t About to send response to CS - %s\n", json);
    Log2("\t ExecWMIQuery :: URL is %s\n", RequestAnswerUrl(exchange.type, exchange.id));
    PostRequestAnswer(exchange.type, exchange.id, json);
}

}  // namespace

void ExecWMIQuery(const HashTable* request, const OptionalText& refusal) {
    Log3("\t Inside ExecWMIQuery() \n");
    if (LogsAtLeast(3)) Log3("\tExecWMIQuery :: requestInfo: %s\n", HashToJSONString(request));
    Exchange exchange{.request = request,
                      .type = RequestText(request, u"REQUEST_TYPE"),
                      .id = RequestText(request, u"AGENT_REQUEST_ID"),
                      .refusal = refusal};
    if (!exchange.reply || !exchange.rows) {
        Log1("\tExecWMIQuery: Init Failed -- SystemInfo\n");
        return;
    }
    Serve(exchange);
    PutMembers(exchange.reply.get(), replyMembers, {.asked = request, .message = exchange.message});
    if (CountHashKeys(exchange.reply.get()) < 1 || Member(request, u"RESPONSE_NEEDED") != u"YES") {
        Log1("\tExecWMIQuery: Data not collected\n");
        return;
    }
    SendReply(exchange);
}

}  // namespace kv
