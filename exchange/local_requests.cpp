#include "exchange/local_requests.h"

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "collection/wmi_query.h"
#include "exchange/service_control.h"
#include "foundation/agent_state.h"
#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "foundation/text.h"
#include "foundation/time_utils.h"
#include "http/request_servlet.h"
#include "jsontext/hash_json.h"

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

/// Null for a type that changes none.
const ServiceAction* ActionOf(std::u16string_view type) {
    for (const ServiceAction& action : serviceActions) {
        if (action.type == type) return &action;
    }
    return nullptr;
}

/// Members of every reply. A result under such a name would be lost.
constexpr std::array<std::u16string_view, 5> replyMembers = {u"ERRORMSG", u"DATACOLLECTTIME", u"AGENTKEY",
                                                             u"AGENT_REQUEST_ID", u"MSPCUSTOMERID"};

/// A request and what becomes the reply to it.
struct Exchange {
    const HashTable* request;
    std::u16string type;
    std::u16string id;
    HashTablePtr reply = MakeHashTable();
    VectorPtr rows = MakeVector();
};

/// A text of the request; a line says when something else stands in its place.
OptionalText Member(const HashTable* request, std::u16string_view key) {
    if (const char16_t* text = GetHashText(request, key)) return text;
    const LineBound::OfRefusal refusal;
    if (ContainsHashKey(request, key)) Log1("\t ExecWMIQuery :: %s is no text and counts as absent\n", key);
    return std::nullopt;
}

/// One without which the request cannot be served in full.
OptionalText NeededMember(const Exchange& exchange, std::u16string_view key) {
    OptionalText text = Member(exchange.request, key);
    if (!text) {
        const LineBound::OfRefusal refusal;
        Log1("\t ExecWMIQuery :: A %s request without the text %s. Request id : %s\n", exchange.type, key, exchange.id);
    }
    return text;
}

/// Puts the rows, which are the reply's then, under a name.
void PutRows(Exchange& exchange, std::u16string_view name) {
    if (PutHashValue(exchange.reply.get(), name, reinterpret_cast<Word>(exchange.rows.get()), ValueType::vector) == 1)
        static_cast<void>(exchange.rows.release());
    else
        Log1("\t ExecWMIQuery :: No memory for the result %s, it is left out\n", name);
}

/// The text of the outcome, or none when there is no query. Without a name for them the rows stand under an empty one.
OptionalText TestMonitor(Exchange& exchange, std::u16string_view name) {
    const OptionalText query = NeededMember(exchange, u"WMIQUERY");
    if (!query) return std::nullopt;
    std::u16string message = WMIFunction(Member(exchange.request, u"NAME_SPACE"), query, exchange.rows.get());
    PutRows(exchange, name);
    return message;
}

bool RunAction(const Exchange& exchange, const ServiceAction& action) {
    const OptionalText service = NeededMember(exchange, u"SERVICE_NAME");
    if (!service) return false;
    Log3(action.announcement, *service);
    return action.run(*service);
}

OptionalText ChangeService(Exchange& exchange, const ServiceAction& action, std::u16string_view name) {
    const bool isDone = RunAction(exchange, action);
    HashTablePtr row = MakeHashTable();
    if (!row) {
        Log1("\tWMIFunction :: InitHashTable Failed\n");
    } else {
        PutHashText(row.get(), name, isDone ? action.done : u"FAILED");
        if (AddValueToVector(exchange.rows.get(), reinterpret_cast<Word>(row.get()), ValueType::table) == 1)
            static_cast<void>(row.release());
    }
    PutRows(exchange, exchange.id);
    return std::u16string(isDone ? u"NO ERROR" : action.failure);
}

bool IsReplyMember(std::u16string_view name) {
    return std::find(replyMembers.begin(), replyMembers.end(), name) != replyMembers.end();
}

/// Does what the request says and puts what came of it into the reply.
void Serve(Exchange& exchange) {
    const ServiceAction* action = ActionOf(exchange.type);
    const std::u16string name = NeededMember(exchange, u"MONITOR_NAME").value_or(u"");
    const std::u16string& resultName = action ? exchange.id : name;
    if (IsReplyMember(resultName)) {
        const LineBound::OfRefusal refusal;
        Log1("\t ExecWMIQuery :: A %s request is not served, for %s is another member of its reply\n", exchange.type,
             resultName);
        PutHashText(exchange.reply.get(), u"ERRORMSG",
                    ConcatStrings(u"Not served: another member of the reply is named ", resultName));
        return;
    }
    const OptionalText message = action ? ChangeService(exchange, *action, name) : TestMonitor(exchange, name);
    // A member without a value says that nothing was run.
    const Word text = message ? reinterpret_cast<Word>(message->c_str()) : 0;
    PutHashValue(exchange.reply.get(), u"ERRORMSG", text, ValueType::text);
}

void SendReply(const Exchange& exchange) {
    HashTable* reply = exchange.reply.get();
    PutHashText(reply, u"DATACOLLECTTIME", DecimalText(GetNowSeconds() + agentState.gv_timeDiff));
    PutHashText(reply, u"AGENTKEY", agentState.gv_agentKey.view());
    PutHashText(reply, u"AGENT_REQUEST_ID", exchange.id);
    PutHashText(reply, u"MSPCUSTOMERID", agentState.gv_custID.value_or(u""));
    const std::u16string json = HashToJSONString(reply);
    Log2("\t About to send response to CS - %s\n", json);
    Log2("\t ExecWMIQuery :: URL is %s\n", RequestAnswerUrl(exchange.type, exchange.id));
    PostRequestAnswer(exchange.type, exchange.id, json);
}

}  // namespace

void ExecWMIQuery(const HashTable* request) {
    Log3("\t Inside ExecWMIQuery() \n");
    if (LogsAtLeast(3)) Log3("\tExecWMIQuery :: requestInfo: %s\n", HashToJSONString(request));
    Exchange exchange{.request = request,
                      .type = RequestText(request, u"REQUEST_TYPE"),
                      .id = RequestText(request, u"AGENT_REQUEST_ID")};
    if (!exchange.reply || !exchange.rows) {
        Log1("\tExecWMIQuery: Init Failed -- SystemInfo\n");
        return;
    }
    Serve(exchange);
    if (CountHashKeys(exchange.reply.get()) < 1 || Member(request, u"RESPONSE_NEEDED") != u"YES") {
        Log1("\tExecWMIQuery: Data not collected\n");
        return;
    }
    SendReply(exchange);
}

}  // namespace kv
