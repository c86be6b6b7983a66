#include <string>

#include "collection/collect.h"
#include "collection/record_file.h"
#include "collection/wmi_query.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "jsontext/hash_json.h"
#include "platform/memory.h"

namespace kv {

void ExecuteWMIQuery(const OptionalText& nameSpace, std::u16string_view wmiQuery, std::u16string_view name) {
    Log3("\t Inside ExecuteWMIQuery() \n");
    platform::MemoryReleaseAtEnd memory;
    const std::u16string dataDirectory = PrepareDataDirectory("ExecuteWMIQuery");
    const HashTablePtr record = MakeHashTable();
    VectorPtr rows = MakeVector();
    if (!record || !rows) {
        Log1("\tInit Failed -- SystemInfo\n");
        return;
    }
    const std::u16string message = WMIFunction(nameSpace, std::u16string(wmiQuery), rows.get());
    if (PutHashValue(record.get(), name, reinterpret_cast<Word>(rows.get()), ValueType::vector) == 1)
        static_cast<void>(rows.release());
    PutHashText(record.get(), u"ERRORMSG", message);
    PutHashText(record.get(), u"DATACOLLECTTIME", DecimalText(GetNowSeconds() + agentState.gv_timeDiff));
    PutHashText(record.get(), u"AGENTKEY", agentState.gv_agentKey.view());
    PutHashText(record.get(), u"MSPCUSTOMERID", agentState.gv_custID.value_or(u""));
    const std::u16string json = HashToJSONString(record.get());
    memory.pieceBytes = json.size() * sizeof(char16_t);
    const std::optional<std::u16string> file = WriteRecordFile(dataDirectory, json);
    if (!file) return;
    Log2("ExecuteWMIQuery :: Wmiquery output - %s\n", json);
    Log2("ExecuteWMIQuery :: Completed writing- %s\n", *file);
}

}  // namespace kv
