#include <string>

#include "collection/collect.h"
#include "collection/record_file.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "jsontext/hash_json.h"

namespace kv {

namespace {

/// Fills rows with one table per result row and returns the text for ERRORMSG. Queries are not built yet: there are
/// never any rows, and the text says so.
std::u16string WMIFunction(const OptionalText& nameSpace, std::u16string_view wmiQuery, Vector* /*rows*/) {
    Log3("\t Inside WMIFunction() \n");
    Log1("\t WMIFunction :: WMI queries are not built yet on this system: %s in %s \n", wmiQuery,
         nameSpace.value_or(u"ROOT\\CIMV2"));
    return u"WMI queries are not built yet on this system";
}

}  // namespace

void ExecuteWMIQuery(const OptionalText& nameSpace, std::u16string_view wmiQuery, std::u16string_view name) {
    Log3("\t Inside ExecuteWMIQuery() \n");
    const std::u16string dataDirectory = PrepareDataDirectory("ExecuteWMIQuery");
    const HashTablePtr record = MakeHashTable();
    if (!record) {
        Log1("\tInit Failed -- SystemInfo\n");
        return;
    }
    Vector* rows = MakeVector().release();
    const std::u16string message = WMIFunction(nameSpace, wmiQuery, rows);
    PutHashValue(record.get(), name, reinterpret_cast<Word>(rows), ValueType::vector);
    PutHashText(record.get(), u"ERRORMSG", message);
    PutHashText(record.get(), u"DATACOLLECTTIME", DecimalText(GetNowSeconds() + agentState.gv_timeDiff));
    PutHashText(record.get(), u"AGENTKEY", agentState.gv_agentKey.view());
    PutHashText(record.get(), u"MSPCUSTOMERID", agentState.gv_custID.value_or(u""));
    const std::u16string json = HashToJSONString(record.get());
    const std::optional<std::u16string> file = WriteRecordFile(dataDirectory, json);
    if (!file) return;
    Log2("ExecuteWMIQuery :: Wmiquery output - %s\n", json);
    Log2("ExecuteWMIQuery :: Completed writing- %s\n", *file);
}

}  // namespace kv
