#include "collection/snmp.h"

#include "collection/record_file.h"
#include "collection/record_members.h"
#include "collection/snmp_query.h"
#include "foundation/agent_health.h"
#include "foundation/log.h"
#include "http/request_servlet.h"
#include "jsontext/hash_json.h"
#include "platform/memory.h"

namespace kv {

namespace {

/// Behind the values and their status, in this order. The key is the polled agent's.
constexpr RecordMember members[] = {
    record_member::collectTime,
    {.key = u"ID", .copyOf = u"POLL_ID", .whenAbsent = WhenAbsent::emptyText},
    record_member::customerId,
    {.key = u"PROTOCOL", .copyOf = u"PROTOCOL", .whenAbsent = WhenAbsent::emptyText},
    {.key = u"AGENTKEY", .copyOf = u"AGENT_KEY"},
    {.key = u"IS_MULTIPLE_POLLED_DATA", .copyOf = u"IS_MULTIPLE_POLLED_DATA"},
    {.key = u"POLICY_NAME", .copyOf = u"POLICY_NAME"},
};

/// One that stands in the answer to a request only.
constexpr RecordMember answerMembers[] = {record_member::requestId};

void SendAnswer(HashTable* table, const HashTable* request) {
    PutMembers(table, answerMembers, {.asked = request});
    PostRequestAnswer(RequestText(request, u"REQUEST_TYPE"), RequestText(request, u"AGENT_REQUEST_ID"),
                      HashToJSONString(table));
}

/// What a poll leaves in the table of its record, with what the record says of itself.
void PutStatus(HashTable* table, const HashTable* record, std::u16string_view status) {
    PutHashText(table, u"STATUS", status);
    PutMembers(table, members, {.asked = record});
}

}  // namespace

void CollectSNMPData(const HashTable* record, std::u16string_view isTest) {
    Log3("\t Inside CollectSNMPData() \n");
    platform::MemoryReleaseAtEnd memory;
    const std::u16string dataDirectory = PrepareDataDirectory("CollectSNMPData");
    const HashTablePtr table = MakeHashTable();
    if (!table) {
        Log1("\tInit Failed -- SystemInfo\n");
        return;
    }
    const std::u16string status = ExecuteSNMPQuery(record, table.get());
    if (status == u"FAILURE") NoteFailedQuery("the poll of %s failed", SnmpRecordName(record));
    PutStatus(table.get(), record, status);
    if (CompareIgnoreCase(isTest, u"true") == 0) return SendAnswer(table.get(), record);
    const std::u16string json = HashToJSONString(table.get());
    memory.pieceBytes = json.size() * sizeof(char16_t);
    const std::u16string name = SnmpRecordName(record);
    const std::u16string oid = MemberText(record, u"OID").value_or(u"");
    if (WriteRecordFile(dataDirectory, {.name = name, .source = oid}, json))
        Log2("CollectSNMPData :: Snmp query output - %s\n", json);
}

void RefuseSNMPData(const HashTable* request) {
    const HashTablePtr table = MakeHashTable();
    if (!table) return Log1("\tInit Failed -- SystemInfo\n");
    PutHashText(table.get(), u"OID", MemberText(request, u"OID").value_or(u""));
    PutStatus(table.get(), request, u"FAILURE");
    SendAnswer(table.get(), request);
}

}  // namespace kv
