// kvlab request add, list and answers.
#include <algorithm>
#include <fmt/format.h>

#include "lab/commands/command_line.h"
#include "lab/commands/known_names.h"
#include "lab/commands/request_queue.h"
#include "lab/store/record_text.h"
#include "lab/store/requests.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

/// A member that was given as NAME=VALUE.
std::pair<std::string, std::string> ParseMember(const std::string& text) {
    const std::size_t end = text.find('=');
    if (end == 0 || end == std::string::npos) throw UsageError("--set takes NAME=VALUE, not '" + text + "'");
    if (!platform::IsValidUtf8(text)) throw UsageError("--set takes UTF-8, not '" + text + "'");
    std::string name = text.substr(0, end);
    if (name == "AGENT_REQUEST_ID") throw UsageError("AGENT_REQUEST_ID is given with --id");
    if (name == "REQUEST_TYPE") throw UsageError("REQUEST_TYPE is given with --type");
    return {std::move(name), text.substr(end + 1)};
}

void RunRequestAdd(const Given& given) {
    NewRequest request{NeededValue(given, "--agent"), NeededValue(given, "--type"), Value(given, "--id"), {}};
    for (const std::string& text : Values(given, "--set")) request.members.push_back(ParseMember(text));
    for (const std::string& text : {request.type, request.id})
        if (!platform::IsValidUtf8(text)) throw UsageError("'" + text + "' is not UTF-8");
    QueueForAgent(given, request.agent, [&](Store& store) { return AddRequest(store, request); });
}

std::string TimeText(std::int64_t time) { return time == 0 ? "" : UtcText(time); }

void RunRequestList(const Given& given) {
    Store store = OpenExisting(given);
    const std::string agent = StoredValue(given, "--agent");
    const std::vector<Request> requests = Requests(store, agent);
    if (requests.empty() && !agent.empty()) RequireAgent(store, agent);
    for (const Request& request : requests)
        PrintLine(fmt::format("{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}", request.number, OneLine(request.agent),
                              OneLine(request.id), OneLine(request.type), request.state, TimeText(request.added),
                              TimeText(request.listed), TimeText(request.ended), request.listings,
                              OneLine(request.members)));
}

constexpr std::int64_t maxAnswers = 1000;

void RunRequestAnswers(const Given& given) {
    Store store = OpenExisting(given);
    const std::string agent = StoredValue(given, "--agent");
    const std::string id = StoredValue(given, "--id");
    std::vector<Report> answers = LatestAnswers(store, agent, id, maxAnswers);
    if (answers.empty() && !agent.empty()) RequireAgent(store, agent);
    if (answers.empty() && !id.empty()) throw NotFoundError("there is no answer to the request " + id);
    std::reverse(answers.begin(), answers.end());
    for (const Report& answer : answers)
        PrintLine(fmt::format("{}\t{}\t{}\t{}\t{}", UtcText(answer.time), OneLine(answer.agent),
                              OneLine(answer.requestId), OneLine(answer.action), OneLine(answer.text)));
}

constexpr Option addOptions[] = {
    databaseOption,
    {"--agent", "KEY", "the agent that fetches it", Times::once},
    {"--type", "TYPE", "REQUEST_TYPE, such as SNMP_TEST_MONITOR", Times::once},
    {"--id", "ID", "AGENT_REQUEST_ID; a number by default"},
    {"--set", "NAME=VALUE", "another member; may be given several times", Times::any},
    {"--state", "DIR",
     "the agent's state directory, by default KVAGENT_STATE_DIR, else the usual one; RequestAvailable is set to YES in "
     "the registry there, which must be that of the agent"},
    {"--no-flag", "", "only queue: for an agent on another machine, or one that this server does not know yet"},
};

constexpr Option listOptions[] = {databaseOption, {"--agent", "KEY", "only this agent's"}};

constexpr Option answersOptions[] = {
    databaseOption,
    {"--agent", "KEY", "only this agent's"},
    {"--id", "ID", "only those to this request; exit code 3 if it has no answer"},
};

constexpr Item requestTypes[] = {
    {"TEST_MONITOR", "One query about the computer: WMIQUERY, NAME_SPACE (ROOT\\CIMV2 by default), MONITOR_NAME."},
    {"START_SERVICE, STOP_SERVICE", "Start or stop a service of the computer: SERVICE_NAME, MONITOR_NAME."},
    {"SNMP_TEST_MONITOR, GET_INSTANCE_DATA",
     "Values of an SNMP device, as the SNMP record of a plan has them: PROTOCOL, DEVICE_NAME, SNMP_PORT, SNMP_VERSION, "
     "COMMUNITY, OID, POLL_ID, AGENT_KEY, POLICY_NAME, IS_MULTIPLE_POLLED_DATA."},
    {"DISCOVER_SNMP_DEVICES",
     "What an SNMP device is: DEVICE_NAME, SNMP_PORT, SNMP_TIMEOUT (seconds), COMMUNITY (\"public\" by default)."},
    {"DELETE_DEVICE", "Lets a master agent forget its slave DEVICE_NAME."},
};

constexpr Command commands[] = {
    {"request add",
     "Queues a request of any type with any members, unchecked, and tells the agent that requests wait, which it sees "
     "within 30 seconds. Prints the request's id.",
     {},
     addOptions,
     RunRequestAdd,
     "Types, and their members; the first three are answered only with RESPONSE_NEEDED=YES:",
     requestTypes},
    {"request list",
     "Prints the requests. One a line, with tabs between: number, agent, id, type, state, times of adding, last "
     "listing and end, number of listings, members. States are waiting (not fetched yet), listed (fetched; it may be "
     "served already, if its kind gets no answer), answered, dropped (the agent went down while serving it), done "
     "(of a kind that gets no answer), and unanswered (listed three times).",
     {},
     listOptions,
     RunRequestList},
    {"request answers",
     "Prints what agents have answered. One answer a line, the oldest of the last 1000 that fit first, with tabs "
     "between: time, "
     "agent, id of the request, its type, the answer as JSON text.",
     {},
     answersOptions,
     RunRequestAnswers},
};

}  // namespace

std::span<const Command> RequestCommands() { return commands; }

}  // namespace kv::lab
