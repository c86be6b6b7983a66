#include "lab/store/requests.h"

#include <algorithm>
#include <array>

#include "foundation/file_utils.h"
#include "lab/store/record_text.h"
#include "platform/utf.h"

namespace kv::lab {

namespace {

constexpr std::string_view downloadType = "DOWNLOAD_QUERYCONF";

/// Whether an agent sends nothing about such a request, however it goes.
bool IsSilent(std::string_view type, json_object* members) {
    constexpr std::array<std::string_view, 4> alwaysAnswered{downloadType, "SNMP_TEST_MONITOR", "GET_INSTANCE_DATA",
                                                             "DISCOVER_SNMP_DEVICES"};
    constexpr std::array<std::string_view, 3> answeredOnDemand{"TEST_MONITOR", "START_SERVICE", "STOP_SERVICE"};
    if (std::count(alwaysAnswered.begin(), alwaysAnswered.end(), type) != 0) return false;
    if (std::count(answeredOnDemand.begin(), answeredOnDemand.end(), type) == 0) return true;
    json_object* needed = nullptr;
    return !json_object_object_get_ex(members, "RESPONSE_NEEDED", &needed) ||
           std::string_view(json_object_get_string(needed)) != "YES";
}

std::string NewId(Database& database) {
    for (std::int64_t number = 1 + QueryNumber(database, "SELECT max(number) FROM request");; ++number) {
        std::string id = std::to_string(number);
        if (!Statement(database, "SELECT 1 FROM request WHERE id = ?", id).Step()) return id;
    }
}

/// Within the caller's transaction.
std::string InsertRequest(Database& database, const NewRequest& request) {
    const std::string id = request.id.empty() ? NewId(database) : request.id;
    if (Statement(database, "SELECT 1 FROM request WHERE id = ?", id).Step())
        throw RequestExists("there is a request with the id " + id);
    const Json members(json_object_new_object());
    for (const auto& [name, value] : request.members)
        json_object_object_add(members.get(), name.c_str(), JsonText(value));
    Execute(database, "INSERT INTO request (agent, id, type, members, silent, added) VALUES (?, ?, ?, ?, ?, ?)",
            request.agent, id, request.type, PlainJson(members.get()),
            static_cast<std::int64_t>(IsSilent(request.type, members.get())), Now());
    return id;
}

/// What is done with the configuration whose path is the first argument.
std::string ConfAt(const char* what) {
    return std::string(what) + " WHERE '/conf/' || number || '/queryconf.zip' = ?1";
}

constexpr std::string_view requestColumns =
    "SELECT number, agent, id, type, members, state, added, listed, ended, listings FROM request ";

std::vector<Request> ReadRequests(Statement& rows) {
    std::vector<Request> requests;
    while (rows.Step())
        requests.push_back({rows.number(0), rows.text(1), rows.text(2), rows.text(3), rows.text(4), rows.text(5),
                            rows.number(6), rows.number(7), rows.number(8), rows.number(9)});
    return requests;
}

std::string ListDocument(const std::vector<Request>& requests) {
    const Json document(json_object_new_object());
    json_object* list = json_object_new_array();
    json_object_object_add(document.get(), "RequestList", list);
    for (const Request& request : requests) {
        json_object* item = json_object_new_object();
        json_object_object_add(item, "AGENT_REQUEST_ID", JsonText(request.id));
        json_object_object_add(item, "REQUEST_TYPE", JsonText(request.type));
        json_object_array_add(list, item);
        const ParsedJson members = ParseJson(request.members);
        if (!json_object_is_type(members.value.get(), json_type_object)) continue;
        json_object_object_foreach(members.value.get(), name, value) {
            json_object_object_add(item, name, json_object_get(value));
        }
    }
    return Utf16LittleEndianBytes(platform::WideFromUtf8(PlainJson(document.get())));
}

/// Ends the silent requests that the agent has passed when it reports about this one: those before it in the same list.
/// The notice of a download comes when the whole list is served, and so also ends the request that it names.
void EndSilentRequests(Database& database, const Report& report, bool includingItself) {
    Execute(database,
            "UPDATE request SET state = 'done', ended = ?3 FROM "
            "(SELECT number AS reached, listed AS at FROM request WHERE agent = ?1 AND id = ?2) AS named "
            "WHERE agent = ?1 AND state = 'listed' AND silent <> 0 AND listed <= named.at "
            "AND number < named.reached + ?4",
            report.agent, report.requestId, Now(), static_cast<std::int64_t>(includingItself));
}

/// Ends a request that has not ended yet, or only because the agent did not answer.
void EndRequest(Database& database, const Report& report, std::string_view state) {
    Execute(database,
            "UPDATE request SET state = ?3, ended = ?4 "
            "WHERE agent = ?1 AND id = ?2 AND state IN ('waiting', 'listed', 'unanswered')",
            report.agent, report.requestId, state, Now());
}

/// Whether a key is one of those of a list with commas between.
bool Lists(std::string_view keys, std::string_view key) {
    return ("," + std::string(keys) + ",").find("," + std::string(key) + ",") != std::string::npos;
}

void EndDownloads(Database& database, std::string_view agent, std::string_view planKeys) {
    std::vector<std::int64_t> ended;
    {
        Statement rows(database,
                       "SELECT number, members FROM request WHERE agent = ? AND type = ? AND state = 'listed'", agent,
                       downloadType);
        while (rows.Step()) {
            json_object* key = nullptr;
            const ParsedJson members = ParseJson(rows.text(1));
            if (json_object_object_get_ex(members.value.get(), "AGENT_KEY", &key) &&
                json_object_is_type(key, json_type_string) && Lists(planKeys, json_object_get_string(key)))
                ended.push_back(rows.number(0));
        }
    }
    for (const std::int64_t number : ended)
        Execute(database, "UPDATE request SET state = 'answered', ended = ?2 WHERE number = ?1", number, Now());
}

}  // namespace

std::string AddRequest(Store& store, const NewRequest& request) {
    Transaction transaction(*store.database);
    std::string id = InsertRequest(*store.database, request);
    transaction.Commit();
    return id;
}

std::string AddConfiguration(Store& store, std::string_view agent, std::string_view planKey, std::string_view zip) {
    Database& database = *store.database;
    Transaction transaction(database);
    const std::int64_t number = QueryNumber(
        database, "INSERT INTO conf (agent, zip, time) VALUES (?, ?, ?) RETURNING number", planKey, Blob{zip}, Now());
    const std::string path = "/conf/" + std::to_string(number) + "/queryconf.zip";
    std::string id = InsertRequest(database, {std::string(agent),
                                              std::string(downloadType),
                                              "",
                                              {{"AGENT_KEY", std::string(planKey)}, {"DOWNLOAD_URL", path}}});
    transaction.Commit();
    return id;
}

std::optional<std::string> TakeConfiguration(Store& store, std::string_view path, bool arrives) {
    std::optional<std::string> zip;
    {
        // A connection that still reads could not wait for another one's write.
        Statement row(*store.database, ConfAt("SELECT zip FROM conf"), path);
        if (row.Step()) zip = row.text(0);
    }
    if (zip && arrives) Execute(*store.database, ConfAt("UPDATE conf SET fetched = ?2"), path, Now());
    return zip;
}

std::optional<std::int64_t> ConfigurationFetched(Store& store, const Request& request) {
    const ParsedJson members = ParseJson(request.members);
    json_object* url = nullptr;
    if (request.type != downloadType || !json_object_object_get_ex(members.value.get(), "DOWNLOAD_URL", &url) ||
        !json_object_is_type(url, json_type_string))
        return std::nullopt;
    Statement row(*store.database, ConfAt("SELECT fetched FROM conf"), json_object_get_string(url));
    return row.Step() ? std::optional(row.number(0)) : std::nullopt;
}

std::string TakeRequestList(Store& store, std::string_view agent, bool arrives) {
    Database& database = *store.database;
    // Mostly nothing is to be done, and then nobody has to wait for this.
    if (!Statement(database, "SELECT 1 FROM request WHERE agent = ? AND state IN ('waiting', 'listed')", agent).Step())
        return "";
    Transaction transaction(database);
    Execute(database,
            "UPDATE request SET state = CASE WHEN silent <> 0 THEN 'done' ELSE 'unanswered' END, ended = ?3 "
            "WHERE agent = ?1 AND state = 'listed' AND listings >= ?2",
            agent, maxListings, Now());
    Execute(database,
            "UPDATE request SET state = 'listed', listed = ?2, listings = listings + 1 "
            "WHERE agent = ?1 AND state IN ('waiting', 'listed')",
            agent, Now());
    std::vector<Request> requests;
    {
        Statement rows(database, std::string(requestColumns) + "WHERE agent = ? AND state = 'listed' ORDER BY number",
                       agent);
        requests = ReadRequests(rows);
    }
    if (arrives) transaction.Commit();
    return requests.empty() ? "" : ListDocument(requests);
}

void TakeAnswer(Store& store, const Report& report) {
    Database& database = *store.database;
    Transaction transaction(database);
    StoreAnswer(store, report);
    EndRequest(database, report, "answered");
    EndSilentRequests(database, report, false);
    transaction.Commit();
}

void TakeNotice(Store& store, const Report& report, std::string_view planKeys) {
    Database& database = *store.database;
    Transaction transaction(database);
    NoteAction(store, report);
    const bool downloaded = report.action == downloadType;
    if (report.action == "DELETE_REQUEST") EndRequest(database, report, "dropped");
    if (downloaded) EndDownloads(database, report.agent, planKeys);
    EndSilentRequests(database, report, downloaded);
    transaction.Commit();
}

std::vector<Request> Requests(Store& store, std::string_view agent) {
    Statement rows(*store.database, std::string(requestColumns) + "WHERE ?1 = '' OR agent = ?1 ORDER BY number", agent);
    return ReadRequests(rows);
}

std::vector<Request> LatestRequests(Store& store, std::string_view agent, std::int64_t limit) {
    Statement rows(*store.database,
                   std::string(requestColumns) + "WHERE ?1 = '' OR agent = ?1 ORDER BY number DESC LIMIT ?2", agent,
                   limit);
    return ReadRequests(rows);
}

std::vector<Request> LatestPlans(Store& store, std::string_view agent, std::int64_t limit) {
    Statement rows(
        *store.database,
        std::string(requestColumns) + "WHERE type = ?3 AND (?1 = '' OR agent = ?1) ORDER BY number DESC LIMIT ?2",
        agent, limit, downloadType);
    return ReadRequests(rows);
}

std::vector<std::pair<std::string, std::int64_t>> RequestStates(Store& store, std::string_view agent) {
    Statement rows(*store.database,
                   "SELECT state, count(*) FROM request WHERE ?1 = '' OR agent = ?1 GROUP BY state ORDER BY state",
                   agent);
    std::vector<std::pair<std::string, std::int64_t>> states;
    while (rows.Step()) states.emplace_back(rows.text(0), rows.number(1));
    return states;
}

std::vector<Report> AnswersTo(Store& store, const Request& request, std::int64_t limit) {
    Statement rows(*store.database,
                   "SELECT agent, action, request_id, text, time FROM answer WHERE agent = ? AND request_id = ? "
                   "ORDER BY number DESC LIMIT ?",
                   request.agent, request.id, limit);
    std::vector<Report> answers;
    while (rows.Step()) answers.push_back({rows.text(0), rows.text(1), rows.text(2), rows.text(3), rows.number(4)});
    return answers;
}

}  // namespace kv::lab
