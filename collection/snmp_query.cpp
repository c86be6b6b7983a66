#include "collection/snmp_query.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "collection/record_members.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"

namespace kv {

namespace {

/// What a record asks of its device.
struct SnmpQuery {
    std::string host;
    std::int32_t port = 0;
    std::int32_t timeoutSeconds = 0;
    std::string community;
    std::int32_t requestType = snmpGet;
    std::string version;
    std::vector<std::string> oids;
    bool retriesLeft = false;
};

/// How much of what was asked for an attempt has brought.
enum class Answer { missing, empty, cut, complete };

/// What came of a poll: the answer to the last attempt, and why it is not a success.
struct Outcome {
    bool succeeded = false;
    std::string reason;
    std::int32_t replaced = 0;  // values that a later one with the same text of its OID has replaced
};

/// The parts of a text between commas, those without characters left out.
std::vector<std::string> Split(std::string_view text) {
    std::vector<std::string> parts;
    while (!text.empty()) {
        const std::string_view part = text.substr(0, text.find(','));
        if (!part.empty()) parts.emplace_back(part);
        text.remove_prefix(std::min(part.size() + 1, text.size()));
    }
    return parts;
}

/// The narrow form of a member; false, with a log line, when its text is not well-formed.
bool ReadNarrow(const HashTable* record, const char* key, const OptionalText& member, std::string& text) {
    if (ChangeWideToUtf8Str(member.value_or(u""), text)) return true;
    Log1("\t %s :: %s is not a text that can be sent \n", SnmpRecordName(record), key);
    return false;
}

/// False with a log line when there is nothing to send.
bool ReadQuery(const HashTable* record, SnmpQuery& query) {
    const bool isWalk = CompareIgnoreCase(MemberText(record, u"IS_MULTIPLE_POLLED_DATA"), u"true") == 0;
    query.requestType = isWalk ? snmpWalk : snmpGet;
    query.retriesLeft = CompareIgnoreCase(MemberText(record, u"PROTOCOL"), u"SPOLL") == 0;
    std::string oids;
    if (!ReadNarrow(record, "OID", MemberText(record, u"OID"), oids) ||
        !ReadNarrow(record, "DEVICE_NAME", MemberText(record, u"DEVICE_NAME"), query.host) ||
        !ReadNarrow(record, "SNMP_VERSION", MemberText(record, u"SNMP_VERSION"), query.version) ||
        !ReadNarrow(record, "COMMUNITY", SnmpCommunity(record), query.community)) {
        return false;
    }
    query.oids = Split(oids);
    if (query.host.empty() || query.oids.empty()) {
        Log1("\t %s :: Without %s nothing is asked \n", SnmpRecordName(record),
             query.host.empty() ? "DEVICE_NAME" : "OID");
        return false;
    }
    if (!SnmpPort(record, query.port)) return false;
    if (query.version != "v1" && query.version != "v2c")
        Log1("\t %s :: SNMP_VERSION \"%s\" is neither v1 nor v2c: %s \n", SnmpRecordName(record), query.version,
             query.version == "v3" ? "no device will answer" : "v1 is taken");
    query.timeoutSeconds = SnmpTimeout(record, std::u16string(agentState.gv_SNMPTimeout.view()));
    return true;
}

/// Asks the device. A response that comes in place of the present one replaces it.
Answer Ask(const SnmpQuery& query, SnmpResponsePtr& response) {
    std::vector<const char*> oids;
    for (const std::string& oid : query.oids) oids.push_back(oid.c_str());
    SnmpResponseData* answer = SnmpManagerRequest(
        query.host.c_str(), query.port, query.timeoutSeconds, query.community.c_str(), query.requestType,
        query.version.c_str(), oids.data(), static_cast<std::int32_t>(oids.size()),
        static_cast<std::int32_t>(logState.gv_logLevel.load()), response.get());
    if (answer != response.get()) response.reset(answer);
    if (!response) return Answer::missing;
    return response->results ? Answer::complete : Answer::empty;
}

/// Runs `put`, which puts a value under a key, and frees the text or table that it replaces and nobody else holds: a
/// device may give an OID twice, and a second attempt gives all again. True when there was something to replace.
template <class Put>
bool Replace(const HashTable* table, std::u16string_view key, const Put& put) {
    const HashEntry* entry = GetHashEntry(table, key);
    const HashEntry former = entry ? *entry : HashEntry{};
    if (put() != 1) return entry != nullptr;
    if (former.type == ValueType::text) FreeText(reinterpret_cast<char16_t*>(former.value));
    if (former.type == ValueType::table) FreeAllHashTable(reinterpret_cast<HashTable*>(former.value));
    return entry != nullptr;
}

/// Puts one OID's values into a table of theirs, and "TYPE" into the record's when it still lacks one.
void StoreValues(const SnmpVarList& list, HashTable* values, HashTable* table, bool& noValueYet,
                 std::int32_t& replaced) {
    for (std::int32_t i = 0; i < list.valueCount; ++i) {
        const SnmpValue* value = list.values[i];
        std::u16string oid, type;
        if (!value || !value->value || !ChangeUtf8ToWideStr(value->oid, oid)) {
            Log3("\t ExecuteSNMPQuery: Var value is null .... \n");
            continue;
        }
        if (noValueYet && ChangeUtf8ToWideStr(value->type, type)) PutHashText(table, u"TYPE", type);
        noValueYet = false;
        const std::u16string text = SnmpValueText(*value);
        const auto put = [&] {
            return PutHashValue(values, oid, reinterpret_cast<Word>(text.c_str()), ValueType::text);
        };
        if (Replace(values, oid, put)) ++replaced;
    }
}

/// Puts a table for each OID, up to the first that has no list: missing is then its index.
Answer StoreLists(const SnmpQuery& query, const SnmpResponseData& response, HashTable* table, bool& noValueYet,
                  std::size_t& missing, std::int32_t& replaced) {
    replaced = 0;
    for (std::size_t i = 0; i < query.oids.size(); ++i) {
        const SnmpVarList* list = std::cmp_less(i, response.oidCount) ? response.results[i] : nullptr;
        missing = i;
        if (!list) return Answer::cut;
        HashTablePtr values = MakeHashTable();
        if (!values) {
            Log1("ExecuteSNMPQuery :: InitHashTable Failed\n");
            return Answer::cut;
        }
        StoreValues(*list, values.get(), table, noValueYet, replaced);
        std::u16string oid;
        ChangeUtf8ToWideStr(query.oids[i].c_str(), oid);
        Replace(table, oid, [&] { return PutHashTable(table, oid, std::move(values)); });
    }
    return Answer::complete;
}

/// Logs what an attempt lacks and says whether there is to be another.
bool TakeRetry(Answer answer, SnmpQuery& query) {
    const bool retries = std::exchange(query.retriesLeft, false);
    if (answer == Answer::missing) {
        Log1(retries ? "No response from SNMP Agent. Going to retry!!!"
                     : "No response from SNMP Agent. Hence, quiting!!!");
    } else if (answer == Answer::empty) {
        Log1("Empty response from SNMP Agent. Hence, quiting!!!");
        if (retries) Log1("No response from SNMP Agent. Going to retry1");
    } else {
        Log1("No response from SNMP Agent. Hence, quiting!!!");
        if (retries) Log1("No response from SNMP Agent. Going to retry2");
    }
    return retries;
}

/// Why a poll whose last attempt came to this failed. What a get lacks at its first OID it lacks at all; whether the
/// device was asked, and how it answered, is said by the engine.
std::string FailureReason(Answer answer, const SnmpQuery& query, std::size_t missing) {
    if (answer == Answer::complete) return "none of the OIDs has a value";
    if (answer == Answer::missing || answer == Answer::empty) return "the request brought nothing";
    if (query.requestType == snmpWalk) return "no values below " + query.oids[missing];
    if (missing == 0) return "it gave no value";
    return "no value for " + query.oids[missing - 1] + ", behind which nothing is taken";
}

/// Asks until the answer is complete or there are no attempts left. It succeeds when every OID has its list and there
/// was a value.
Outcome Poll(SnmpQuery& query, HashTable* table) {
    bool noValueYet = true;
    std::size_t missing = 0;
    std::int32_t replaced = 0;
    SnmpResponsePtr response;
    Answer answer = Answer::missing;
    do {
        answer = Ask(query, response);
        if (answer == Answer::complete) answer = StoreLists(query, *response, table, noValueYet, missing, replaced);
    } while (answer != Answer::complete && TakeRetry(answer, query));
    if (noValueYet && (answer == Answer::cut || answer == Answer::complete))
        Log1("Empty response from SNMP Agent. Updating returnMessage as FAILURE !!!");
    if (answer == Answer::complete && !noValueYet) return {.succeeded = true, .reason = "", .replaced = replaced};
    return {.succeeded = false, .reason = FailureReason(answer, query, missing), .replaced = replaced};
}

}  // namespace

std::u16string ExecuteSNMPQuery(const HashTable* record, HashTable* table) {
    Log3("\t Inside ExecuteSNMPQuery() \n");
    PutHashText(table, u"OID", MemberText(record, u"OID").value_or(u""));
    SnmpQuery query;
    if (!ReadQuery(record, query)) return u"FAILURE";
    const Outcome outcome = Poll(query, table);
    if (outcome.replaced > 0)
        Log1(
            "\t %s :: %d of the values are not in the record: a later one's OID has the same text, as a part from "
            "2147483648 on is not written \n",
            SnmpRecordName(record), outcome.replaced);
    if (outcome.succeeded) return u"SUCCESS";
    Log1("\t ExecuteSNMPQuery :: The poll of %s for %s failed: %s \n", SnmpRecordName(record),
         MemberText(record, u"OID"), outcome.reason);
    return u"FAILURE";
}

}  // namespace kv
