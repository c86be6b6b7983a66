#include "collection/collect.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "collection/script.h"
#include "collection/snmp.h"
#include "collection/wmi.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/guarded.h"
#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "jsontext/hash_json.h"

namespace kv {

namespace {

/// The entry at an index of gv_sortVec, or null.
const HashTable* EntryAt(std::int32_t index) {
    const VectorElement* element = agentState.gv_sortVec ? ElementAt(agentState.gv_sortVec, index) : nullptr;
    return element ? reinterpret_cast<const HashTable*>(element->value) : nullptr;
}

void CollectSnmp(const HashTable* record) { CollectSNMPData(record, u"false"); }

/// A kind of record, told by a key that it has, and its collector.
struct Collector {
    std::u16string_view key;
    std::string_view kind;
    void (*collect)(const HashTable* record);
};

/// A record is of the first kind whose key it has.
constexpr Collector collectors[] = {
    {u"wmiQuery", "WMI", CollectWMI},
    {u"script", "script", CollectScript},
    {u"PROTOCOL", "SNMP", CollectSnmp},
};

/// Null for a record of an unknown kind.
const Collector* CollectorOf(const HashTable* record) {
    const auto* found =
        std::find_if(std::begin(collectors), std::end(collectors),
                     [record](const Collector& collector) { return ContainsHashKey(record, collector.key); });
    return found == std::end(collectors) ? nullptr : found;
}

}  // namespace

std::string_view KindOfRecord(const HashTable* record) {
    const Collector* collector = CollectorOf(record);
    return collector ? collector->kind : std::string_view();
}

void CollectRecord(const HashTable* record) {
    if (const Collector* collector = CollectorOf(record)) collector->collect(record);
}

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
        Log1("\t CollectAndSaveData :: there is no workflow at index [%d] \n", index);
        return;
    }
    if (LogsAtLeast(2)) Log2("\t CollectAndSaveData :: queryInfo: %s\n", HashToJSONString(entry));
    const Vector* records = GetHashVector(entry, u"recordSetName");
    if (!records) {
        Log1("\t CollectAndSaveData :: workflow %s has no list recordSetName and collects nothing \n",
             GetHashText(entry, u"wfname"));
        return;
    }
    ++agentHealth.workflowsRun;
    // The plan no longer changes once it is scheduled, so the list is walked without its lock.
    for (const VectorElement* element = records->head; element; element = element->next) {
        if (element->type == ValueType::table) {
            RunGuarded("CollectRecord", [&] { CollectRecord(reinterpret_cast<const HashTable*>(element->value)); });
        } else {
            Log1("\t CollectAndSaveData :: an element of recordSetName is not a record and is skipped \n");
        }
    }
}

}  // namespace kv
