#include "queryconf/query_config.h"

#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/hash_table.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/text.h"
#include "jsontext/hash_json.h"
#include "platform/files.h"
#include "queryconf/conf_paths.h"
#include "queryconf/schedule.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
namespace error = platform::error;

std::u16string KeyOf(std::u16string_view agent) {
    std::u16string key = u"WorkFlows";
    if (!agent.empty()) key += ConcatStrings(u"_", agent);
    return key;
}

/// Reads a file; false when it holds no document. Why not, or what of it was passed over, is logged.
bool ReadDocument(const char* caller, HashTable* document, std::u16string_view fileName) {
    const JsonReadResult read = JSONFileToHash(document, fileName);
    if (!read.message.empty()) Log1("\t %s :: %s \n", caller, read.message);
    return read.ok;
}

bool HasWorkflows(const char* caller, const HashTable* table, const std::u16string& key, std::u16string_view fileName) {
    if (GetHashVector(table, key)) return true;
    Log1("\t %s :: %s has no array %s \n", caller, fileName, key);
    return false;
}

std::u16string UnderBinPath(std::u16string_view path) {
    return ConcatStrings(agentState.gv_ocAgentBinPath.value_or(u""), path);
}

/// Puts the backup in the place of a missing file. The file has its name only once it is complete, so that a full disk
/// or a kill in between cannot leave half a plan where the next start would take it for the plan.
void RestoreFromBackup(std::u16string_view agent, std::u16string_view fileName) {
    Log3("\t Inside RestoreFromBackup() \n");
    std::u16string backup = UnderBinPath(conf_path::backupDirectory);
    if (!agent.empty()) backup += std::u16string(agent) + u"\\";
    backup += conf_path::planName;
    const std::u16string restored = ConcatStrings(fileName, u".restored");
    Error result = Files().CopyFileW(backup, restored);
    if (result == error::success) result = Files().MoveFileExW(restored, fileName, true);
    if (result == error::success) return;
    Log1("\t LoadQueryConfig :: %s cannot be restored from %s. Error is [%u] \n", fileName, backup, result);
    Files().DeleteFileW(restored);
}

/// What keeps an element of a list of workflows from running, or null. A number with a fraction has been cut by now.
const char* FaultOf(const VectorElement* element) {
    if (element->type != ValueType::table) return "is no object";
    const auto* workflow = reinterpret_cast<const HashTable*>(element->value);
    const HashEntry* interval = GetHashEntry(workflow, u"interval");
    if (!interval) return "has no interval";
    if (interval->type != ValueType::integer && interval->type != ValueType::number)
        return "has an interval that is no number of minutes";
    if (static_cast<std::int32_t>(interval->value) < 1) return "has an interval below 1";
    if (!GetHashVector(workflow, u"recordSetName")) return "has no array recordSetName";
    return nullptr;
}

/// A list without workflows is a plan to collect nothing; one in which nothing can run is a mistake.
bool HasRunnableWorkflow(const Vector* workflows, const std::u16string& key, std::u16string_view fileName) {
    const char* fault = nullptr;
    for (const VectorElement* element = workflows->head; element; element = element->next) {
        if (!(fault = FaultOf(element))) return true;
    }
    if (fault) Log1("\t IsUsableQueryConfig :: %s :: no workflow of %s can run: the last %s \n", fileName, key, fault);
    return !fault;
}

const char16_t* NameOf(const VectorElement* element) {
    if (element->type != ValueType::table) return nullptr;
    return GetHashText(reinterpret_cast<const HashTable*>(element->value), u"wfname");
}

/// Moves the workflows that can run into a list of their own; the others stay and are logged. Null when memory ran out.
VectorPtr TakeWorkflows(Vector* workflows, const char16_t* key, std::u16string_view fileName) {
    VectorPtr taken = MakeVector();
    std::int32_t index = 0;
    for (VectorElement* element = workflows->head; element && taken; element = element->next, ++index) {
        if (const char* fault = FaultOf(element)) {
            Log1("\t LoadQueryConfig :: %s :: workflow [%d] of %s, wfname %s, %s: it is left out \n", fileName, index,
                 key, NameOf(element), fault);
            continue;
        }
        auto* moved = new (std::nothrow) VectorElement{element->value, element->type, nullptr};
        if (!moved) return nullptr;
        AddElement(taken.get(), moved);
        element->type = ValueType::none;
    }
    return taken;
}

/// Moves the lists of workflows out of a document into a table of their own. Null when memory ran out.
HashTablePtr TakePlan(const HashTable* document, std::u16string_view fileName) {
    HashTablePtr plan = MakeHashTable();
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(document);
    for (std::size_t i = 0; keys[i] && plan; ++i) {
        Vector* workflows = GetHashVector(document, keys[i]);
        if (!workflows) {
            Log1("\t LoadQueryConfig :: %s :: the value of %s is no array: it is left out \n", fileName, keys[i]);
            continue;
        }
        VectorPtr taken = TakeWorkflows(workflows, keys[i], fileName);
        if (!taken || !PutHashValue(plan.get(), keys[i], reinterpret_cast<Word>(taken.get()), ValueType::vector))
            return nullptr;
        static_cast<void>(taken.release());
    }
    return plan;
}

/// Lists that are no longer in the merged table, but may be in use.
std::vector<VectorPtr> replacedPlans;

/// Makes room for a new list. The old one is not freed yet: gv_sortVec and running timers refer to its entries until
/// the schedule is built anew.
void RemoveOldKey(const std::u16string& key) {
    replacedPlans.emplace_back(GetHashVector(agentState.gv_queryConfHash, key));
    RemoveHashKey(agentState.gv_queryConfHash, key);
    Log2("\t Key %s deleted from query conf \n", key);
    Log2("\t Query conf key count after deleting : %d \n", CountHashKeys(agentState.gv_queryConfHash));
}

/// Frees those lists of a merged plan that the merged table did not take.
void FreeListsLeftOver(const HashTable* plan, std::u16string_view fileName) {
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(plan);
    for (std::size_t i = 0; keys[i]; ++i) {
        Vector* workflows = GetHashVector(plan, keys[i]);
        if (GetHashVector(agentState.gv_queryConfHash, keys[i]) == workflows) continue;
        Log1("\t LoadQueryConfig :: %s :: %s belongs to another file and is left out \n", fileName, keys[i]);
        FreeAllVector(workflows);
    }
}

struct FreeHashTableDeleter {
    void operator()(HashTable* table) const { FreeHashTable(table); }
};

void MergePlan(HashTablePtr plan, const std::u16string& key, std::u16string_view fileName) {
    const bool hasKey = HasWorkflows("LoadQueryConfig", plan.get(), key, fileName);
    if (!agentState.gv_queryConfHash) {
        agentState.gv_queryConfHash = plan.release();
        return;
    }
    // A file without its own key has nothing to put in the place of the plan in use, which stays.
    if (hasKey && ContainsHashKey(agentState.gv_queryConfHash, key)) RemoveOldKey(key);
    // From here on the lists belong to the merged table.
    const std::unique_ptr<HashTable, FreeHashTableDeleter> merged(plan.release());
    MergeHashTable(merged.get(), agentState.gv_queryConfHash);
    Log2("\t Query conf key count after merging : %d \n", CountHashKeys(agentState.gv_queryConfHash));
    FreeListsLeftOver(merged.get(), fileName);
}

void LoadSlave(const std::u16string& agent) {
    const std::u16string fileName = ConcatStrings(conf_path::slavesDirectory, agent) + u"\\queryconf.txt";
    if (fileExists(fileName)) LoadQueryConfig(agent, fileName);
}

void CreateSlavesDirectory() {
    Log1("\t LoadConfFiles :: No query conf file exists under slaves directory.\n");
    if (const int result = Files().wmkdir(conf_path::slavesDirectory))
        Log1("\t LoadConfFiles :: %s cannot be created. errno is [%d] \n", conf_path::slavesDirectory, result);
}

void LoadSlaves() {
    Log3("\t Inside LoadSlaves() \n");
    FileSearch search(ConcatStrings(conf_path::slavesDirectory, u"*"));
    if (!search.HasFile()) {
        CreateSlavesDirectory();
        return;
    }
    // The first two entries are the directory's own "." and "..".
    for (int position = 0; search.HasFile(); search.Next(), ++position) {
        if (position >= 2) LoadSlave(search.file.fileName);
    }
    if (search.error != error::noMoreFiles)
        Log1("\t LoadConfFiles :: the search of the slaves directory ended early. Error is [%u] \n", search.error);
}

}  // namespace

void LoadConfFiles() {
    Log3("\t Inside LoadConfFiles() \n");
    LoadQueryConfig(u"", conf_path::ownPlan);
    if (CompareIgnoreCase(agentState.gv_masterAgent, u"YES") == 0) LoadSlaves();
    agentState.gv_loadqueryconf = 1;
    initializeScheduler();
    scheduleQueryHashData();
}

void LoadQueryConfig(std::u16string_view agent, std::optional<std::u16string_view> fileName) {
    Log3("\t Inside LoadQueryConfig() \n");
    const HashTablePtr document = MakeHashTable();
    if (!document) {
        Log1("Initialise hash table is Failed\n");
        return;
    }
    const std::u16string_view name = fileName.value_or(conf_path::ownPlan);
    if (!fileExists(UnderBinPath(name))) {
        Log1("queryconf.txt file is not available...copy file from backup directory..\n");
        RestoreFromBackup(agent, name);
    }
    if (!ReadDocument("LoadQueryConfig", document.get(), name)) return;
    HashTablePtr plan = TakePlan(document.get(), name);
    if (!plan) {
        Log1("\t LoadQueryConfig :: %s is too large for the memory; the plan in use stays \n", name);
        return;
    }
    MergePlan(std::move(plan), KeyOf(agent), name);
}

void FreeReplacedPlans() { replacedPlans.clear(); }

bool IsUsableQueryConfig(std::u16string_view agent, std::u16string_view fileName) {
    Log3("\t Inside IsUsableQueryConfig() \n");
    constexpr const char* caller = "IsUsableQueryConfig";
    const HashTablePtr document = MakeHashTable();
    if (!document) {
        Log1("Initialise hash table is Failed\n");
        return false;
    }
    const std::u16string key = KeyOf(agent);
    return ReadDocument(caller, document.get(), fileName) && HasWorkflows(caller, document.get(), key, fileName) &&
           HasRunnableWorkflow(GetHashVector(document.get(), key), key, fileName);
}

}  // namespace kv
