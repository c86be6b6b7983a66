#include "collection/collect.h"

#include <optional>
#include <string>

#include "collection/record_members.h"
#include "foundation/agent_state.h"
#include "foundation/guarded.h"
#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "jsontext/hash_json.h"

namespace kv {

namespace {

/// The entry at an index of gv_sortVec, or null.
const HashTable* EntryAt(std::int32_t index) {
    const VectorElement* element = agentState.gv_sortVec ? ElementAt(agentState.gv_sortVec, index) : nullptr;
    return element ? reinterpret_cast<const HashTable*>(element->value) : nullptr;
}

OptionalText TextOf(const HashTable* record, std::u16string_view key) {
    OptionalText text = RecordMember(record, key);
    if (!text && ContainsHashKey(record, key))
        Log1("\t CollectAndSaveData :: %s is no text, whole number or truth value and is not used \n", key);
    return text;
}

/// Rows under such a name would be lost.
bool IsMemberOfEveryRecord(std::u16string_view name) {
    return name == u"ERRORMSG" || name == u"DATACOLLECTTIME" || name == u"AGENTKEY" || name == u"MSPCUSTOMERID";
}

void CollectWMI(const HashTable* record) {
    const OptionalText query = TextOf(record, u"wmiQuery");
    const OptionalText name = TextOf(record, u"Name");
    if (!query || !name) {
        Log1("\t CollectAndSaveData :: a WMI record without the text %s is skipped \n", query ? "Name" : "wmiQuery");
        return;
    }
    if (IsMemberOfEveryRecord(*name)) {
        Log1("\t CollectAndSaveData :: a WMI record is skipped, for %s is another member of it \n", *name);
        return;
    }
    ExecuteWMIQuery(TextOf(record, u"nameSpace"), *query, *name);
}

/// Key, name, time, time difference and the record's own parameters. A text that is absent leaves its two blanks.
std::u16string ScriptParameters(const HashTable* record) {
    const std::int64_t difference = agentState.gv_timeDiff;
    std::u16string text(agentState.gv_agentKey.view());
    text += u" " + TextOf(record, u"Name").value_or(u"");
    text += u" " + DecimalText(GetNowSeconds() + difference);
    text += u" " + DecimalText(difference);
    return text += u" " + TextOf(record, u"params").value_or(u"");
}

void CollectScript(const HashTable* record) {
    const OptionalText script = TextOf(record, u"script");
    if (!script) {
        Log1("\t CollectAndSaveData :: a script record without the text script is skipped \n");
        return;
    }
    ExecuteScript(*script, ScriptParameters(record), TextOf(record, u"response_needed"));
}

/// A record is of the first kind whose key it has; one of no known kind is passed over.
void CollectRecord(const HashTable* record) {
    if (ContainsHashKey(record, u"wmiQuery")) {
        CollectWMI(record);
    } else if (ContainsHashKey(record, u"script")) {
        CollectScript(record);
    } else if (ContainsHashKey(record, u"PROTOCOL")) {
        CollectSNMPData(record, u"false");
    }
}

}  // namespace

void CollectAndSaveData(void* argument) {
    const LineBound bound(100);  // a workflow may well have more than ten records
    Log3("\t Inside CollectAndSaveData() \n");
    const std::int32_t index = *static_cast<const std::int32_t*>(argument);
    const HashTable* entry = EntryAt(index);
    if (agentState.gv_collectData == 0) {
        Log1("CollectAndSaveData: Data not collected as connection to CS is lost\n");
        return;
    }
    if (!entry) {
        Log1("\t CollectAndSaveData :: no workflow stands at index [%d] \n", index);
        return;
    }
    if (LogsAtLeast(2)) Log2("\t CollectAndSaveData :: queryInfo: %s\n", HashToJSONString(entry));
    const Vector* records = GetHashVector(entry, u"recordSetName");
    if (!records) {
        Log1("\t CollectAndSaveData :: workflow %s has no list recordSetName and collects nothing \n",
             GetHashText(entry, u"wfname"));
        return;
    }
    // The plan no longer changes once it is scheduled, so the list is walked without its lock.
    for (const VectorElement* element = records->head; element; element = element->next) {
        if (element->type == ValueType::table) {
            RunGuarded("CollectRecord", [&] { CollectRecord(reinterpret_cast<const HashTable*>(element->value)); });
        } else {
            Log1("\t CollectAndSaveData :: something in recordSetName is no record and is skipped \n");
        }
    }
}

}  // namespace kv
