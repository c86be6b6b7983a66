#include "collection/wmi.h"

#include <optional>
#include <string>
#include <utility>

#include "collection/record_file.h"
#include "collection/record_members.h"
#include "collection/wmi_query.h"
#include "foundation/agent_health.h"
#include "foundation/log.h"
#include "foundation/text.h"
#include "jsontext/hash_json.h"
#include "platform/memory.h"

namespace kv {

namespace {

/// Behind the rows, in this order.
constexpr RecordMember members[] = {record_member::errorMessage, record_member::collectTime, record_member::agentKey,
                                    record_member::customerId};

}  // namespace

bool IsWMIRecordMember(std::u16string_view name) { return HasMember(members, name); }

void CollectWMI(const HashTable* record) {
    const OptionalText query = ReadMember(record, u"wmiQuery");
    const OptionalText name = ReadMember(record, u"Name");
    if (query && name) return ExecuteWMIQuery(ReadMember(record, u"nameSpace"), *query, *name);
    Log1("\t CollectAndSaveData :: a WMI record without the text %s is skipped \n", query ? "Name" : "wmiQuery");
}

void ExecuteWMIQuery(const OptionalText& nameSpace, std::u16string_view wmiQuery, std::u16string_view name) {
    Log3("\t Inside ExecuteWMIQuery() \n");
    if (HasMember(members, name)) {
        Log1("\t ExecuteWMIQuery :: a WMI record is skipped, because %s is another member of it \n", name);
        return;
    }
    platform::MemoryReleaseAtEnd memory;
    const std::u16string dataDirectory = PrepareDataDirectory("ExecuteWMIQuery");
    const HashTablePtr record = MakeHashTable();
    VectorPtr rows = MakeVector();
    if (!record || !rows) {
        Log1("\tInit Failed -- SystemInfo\n");
        return;
    }
    const std::u16string message = WMIFunction(nameSpace, std::u16string(wmiQuery), rows.get());
    if (message != u"NO ERROR") NoteFailedQuery("the query of %s failed: %s", name, message);
    PutRows(record.get(), name, std::move(rows));
    PutMembers(record.get(), members, {.asked = nullptr, .message = message});
    const std::u16string json = HashToJSONString(record.get());
    memory.pieceBytes = json.size() * sizeof(char16_t);
    const std::u16string source = ConcatStrings(nameSpace.value_or(u""), wmiQuery);
    const std::optional<std::u16string> file = WriteRecordFile(dataDirectory, {.name = name, .source = source}, json);
    if (!file) return;
    Log2("ExecuteWMIQuery :: Wmiquery output - %s\n", json);
    Log2("ExecuteWMIQuery :: Completed writing- %s\n", *file);
}

}  // namespace kv
