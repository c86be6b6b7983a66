#include "collection/collect.h"
#include "collection/record_file.h"
#include "collection/record_members.h"
#include "collection/snmp_query.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "http/request_servlet.h"
#include "jsontext/hash_json.h"
#include "platform/memory.h"

namespace kv {

namespace {

void PutMemberIfPresent(HashTable* table, std::u16string_view key, const HashTable* record,
                        std::u16string_view recordKey) {
    if (const OptionalText text = RecordMember(record, recordKey)) PutHashText(table, key, *text);
}

/// The members behind the values, in their order.
void PutRecordMembers(HashTable* table, const HashTable* record) {
    PutHashText(table, u"DATACOLLECTTIME", DecimalText(GetNowSeconds() + agentState.gv_timeDiff));
    PutHashText(table, u"ID", RecordMember(record, u"POLL_ID").value_or(u""));
    PutHashText(table, u"MSPCUSTOMERID", agentState.gv_custID.value_or(u""));
    PutHashText(table, u"PROTOCOL", RecordMember(record, u"PROTOCOL").value_or(u""));
    PutMemberIfPresent(table, u"AGENTKEY", record, u"AGENT_KEY");
    PutMemberIfPresent(table, u"IS_MULTIPLE_POLLED_DATA", record, u"IS_MULTIPLE_POLLED_DATA");
    PutMemberIfPresent(table, u"POLICY_NAME", record, u"POLICY_NAME");
}

void SendAnswer(HashTable* table, const HashTable* request) {
    const std::u16string id = RequestText(request, u"AGENT_REQUEST_ID");
    PutHashText(table, u"AGENT_REQUEST_ID", id);
    PostRequestAnswer(RequestText(request, u"REQUEST_TYPE"), id, HashToJSONString(table));
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
    PutHashText(table.get(), u"STATUS", status);
    PutRecordMembers(table.get(), record);
    if (CompareIgnoreCase(isTest, u"true") == 0) return SendAnswer(table.get(), record);
    const std::u16string json = HashToJSONString(table.get());
    memory.pieceBytes = json.size() * sizeof(char16_t);
    if (WriteRecordFile(dataDirectory, json)) Log2("CollectSNMPData :: Snmp query output - %s\n", json);
}

}  // namespace kv
